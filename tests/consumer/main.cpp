#include <DolmStorageLib.h>
#include <dolm_session.hpp>

int main() {
    VynErrors::init();
    if (VynErrors::getErrorNameString(IMAGE_TOOLS_FILE_NOT_FOUND) != "File not found.") {
        return 1;
    }
    try {
        dolmstorage::Session session({});
    } catch (const dolmstorage::Failure &failure) {
        return failure.reports().size() == 1 ? 0 : 1;
    }
    return 1;
}
