#include "host/assignments.h"

#include <set>

#include "host/errors.h"
#include "host/nvar_names.h"
#include "host/output.h"
#include "host/patterns.h"
#include "host/value_text.h"

namespace dolm {

namespace {

ValueChange assign(Library &library, const Assignment &assignment) {
    const Nvar nvar = library.nvar(assignment.name);
    if (assignment.value.size() > nvar.entry.max_size) {
        throw Failure(assignment.name + ": the value has " +
                      std::to_string(assignment.value.size()) + " bytes, over the limit of " +
                      std::to_string(nvar.entry.max_size));
    }
    if (!nvar.writable) {
        tell_notice("warning: " + assignment.name +
                    " is not written back to flash; its new value stands in vync.cfg alone");
    }
    library.set_value(assignment.name, assignment.value);
    return {nvar.name, nvar.value, assignment.value};
}

} // namespace

std::vector<Assignment> read_assignments(const std::vector<std::string> &words) {
    std::vector<Assignment> assignments;
    std::set<std::string> names;
    for (size_t i = 0; i < words.size(); i += 2) {
        const std::string &name = words[i];
        if (name.starts_with('-')) {
            throw UsageError("unknown option " + name);
        }
        if (i + 1 == words.size()) {
            throw UsageError("'" + name + "' has no value");
        }
        if (!names.insert(full_name(name)).second) {
            throw UsageError("'" + name + "' is given two values");
        }
        assignments.push_back({name, parse_value(words[i + 1])});
    }
    return assignments;
}

std::vector<ValueChange> assign(Library &library, const std::vector<Assignment> &assignments) {
    std::vector<std::string> names;
    for (const Assignment &assignment : assignments) {
        names.push_back(assignment.name);
    }
    require_nvars(library, names);
    std::vector<ValueChange> changes;
    for (const Assignment &assignment : assignments) {
        changes.push_back(assign(library, assignment));
    }
    return changes;
}

} // namespace dolm
