#include "host/commands.h"
#include "host/errors.h"

namespace dolm {

void prove_set(const ProveOptions &) {
    throw UsageError(
        "prove puts itself between the library and its devices, which Windows does not "
        "allow; run it on Linux");
}

} // namespace dolm
