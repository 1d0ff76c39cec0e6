// The tables of a set that may be damaged, mended as far as they tell things twice.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/set_files.h"

namespace dolm {

// The values of one store, by number.
struct MendedValues {
    std::map<uint32_t, std::string> doubts; // of those that were mended, what was wrong
    std::map<uint32_t, std::string> lost;   // why
    std::string missing; // why a value that is not there may have been; empty if all are there
};

struct MendedTables {
    SetFiles files; // without images
    MendedValues base;
    MendedValues overrides;
    std::set<uint32_t> doubted_numbers; // whose entries contradict each other
    std::map<uint32_t, std::string>
        efs_doubts; // by id, why the place in EFS may not be that file's
    std::vector<Problem> damages;
};

MendedTables mend_tables(const SetFiles &set);

} // namespace dolm
