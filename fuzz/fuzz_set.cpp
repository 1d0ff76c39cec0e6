// The whole library on a damaged set with both images: start-up, some changes, termination, a
// second start-up on what that left.
//
// Input: u8 seed of the changes, 0 modulo 4 for checksums left as damaged | edits (damage.h).
// Target of an edit modulo 6: the AFS image, its metadata, the EFS image, the FTBL, "orvel.cfg",
// "vync.cfg".

#include <cstring>

#include "damage.h"
#include "frontend/fcs_tables.h"
#include "fuzz/require.h"
#include "proof/full_set.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;
namespace full_set = dolm::proof::full_set;

namespace {

using full_set::FlashSet;

void damage_set(FlashSet &set, const damage::Edit &edit) {
    switch (edit.target % 6) {
    case 0:
        damage::set_byte(set.qfs, edit);
        break;
    case 1:
        damage::set_afs_metadata(set.qfs, edit);
        break;
    case 2:
        damage::set_byte(set.efs, edit);
        break;
    case 3:
        damage::set_byte(set.ftbl, edit);
        break;
    case 4:
        damage::set_byte(set.orvel, edit);
        break;
    default:
        damage::set_byte(set.vync, edit);
    }
}

void change_values(uint32_t seed) {
    std::vector<std::string> names;
    for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        names.emplace_back(entry->name);
    }
    for (const std::string &name : names) {
        seed = seed * 1664525 + 1013904223;
        if (seed >> 31 == 0) {
            host_session::set_value(name, std::string(seed >> 8 & 0x3FF, 'v'));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const FlashSet sound = [] {
        FlashSet set;
        set.vync = host_session::with_head(builders::store_of({{2, "overriding"}, {9, "value"}}));
        return set;
    }();
    if (size < 1) {
        return 0;
    }
    FlashSet set = sound;
    const std::vector<damage::Edit> edits = damage::parse_edits({data + 1, size - 1});
    for (const damage::Edit &edit : edits) {
        damage_set(set, edit);
    }
    if (!edits.empty() && data[0] % 4 != 0) {
        damage::repair_afs(set.qfs);
        damage::repair_efs(set.efs);
    }
    for (uint32_t round = 0; round < 2; ++round) {
        const bool started = set.start();
        require(started || !edits.empty());
        if (started) {
            change_values(data[0] + round);
        }
        qoQfsNvarTerm(true);
        qoQfsNvarTerm(false);
        host_session::reports.clear();
    }
    return 0;
}
