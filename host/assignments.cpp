#include "host/assignments.h"

#include <set>

#include "host/errors.h"
#include "host/nvar_names.h"
#include "host/output.h"
#include "host/patterns.h"
#include "host/value_text.h"

namespace dolm {

namespace {

// An assignment beside the NVAR that it is for.
struct Target {
    Nvar nvar;
    Bytes value;
};

std::vector<Target> find_targets(const Library &library,
                                 const std::vector<Assignment> &assignments) {
    std::vector<std::string> names;
    for (const Assignment &assignment : assignments) {
        names.push_back(assignment.name);
    }
    require_nvars(library, names);
    std::vector<Target> targets;
    for (const Assignment &assignment : assignments) {
        Nvar nvar = library.nvar(assignment.name);
        Bytes value = assignment.value ? *assignment.value : nvar.base.value_or(Bytes{});
        targets.push_back({std::move(nvar), std::move(value)});
    }
    return targets;
}

void require_room(const std::vector<Target> &targets) {
    std::vector<Problem> problems;
    for (const auto &[nvar, value] : targets) {
        if (value.size() > nvar.entry.max_size) {
            problems.push_back({"", "", std::string(short_name(nvar.name)),
                                "the value has " + std::to_string(value.size()) +
                                    " bytes, over the limit of " +
                                    std::to_string(nvar.entry.max_size)});
        }
    }
    if (!problems.empty()) {
        throw Failure(std::move(problems));
    }
}

} // namespace

std::vector<Assignment> read_assignments(const std::vector<std::string> &words) {
    std::vector<Assignment> assignments;
    for (size_t i = 0; i < words.size(); i += 2) {
        const std::string &name = words[i];
        if (name.starts_with('-')) {
            throw UsageError("unknown option " + name);
        }
        if (i + 1 == words.size()) {
            throw UsageError("'" + name + "' has no value");
        }
        assignments.push_back({name, parse_value(words[i + 1])});
    }
    return assignments;
}

void require_one_each(const std::vector<Assignment> &assignments) {
    std::set<std::string> names;
    for (const Assignment &assignment : assignments) {
        if (!names.insert(full_name(assignment.name)).second) {
            throw UsageError("'" + assignment.name + "' is given two values");
        }
    }
}

std::vector<ValueChange> assign(Library &library, const std::vector<Assignment> &assignments) {
    const std::vector<Target> targets = find_targets(library, assignments);
    require_room(targets);
    std::vector<ValueChange> changes;
    for (const auto &[nvar, value] : targets) {
        if (!nvar.writable) {
            tell_notice("warning: " + std::string(short_name(nvar.name)) +
                        " is not written back to flash; its new value stands in vync.cfg alone");
        }
        library.set_value(nvar.name, value);
        changes.push_back({nvar.name, nvar.value, value});
    }
    return changes;
}

} // namespace dolm
