// The wear policy: which EU a reclaim takes, and whether idle time is worth one.
#include <algorithm>

#include "AfsFtl.h"
#include "afs/ftl_access.h"

using namespace dolm;

namespace {

// The wear rule fires when the erase counts are further apart than this, and then only at every
// tenth erase of the most worn EU.
constexpr uint32_t max_wear_spread = 100;
constexpr uint32_t wear_rule_period = 10;

// The idle check wants more room than this: slots in the log, and in the data EUs if these hold
// more dirt than data_dirt_worth_reclaim.
constexpr uint32_t short_log = 29;
constexpr uint32_t short_data = 63;
constexpr uint32_t data_dirt_worth_reclaim = 96;

constexpr reclaim_choice no_choice = {.eu = AFS_FTL_NONE, .mode = AFS_FTL_MODE_MOVE};

bool is_of_kind(const afs_eu_info &row, uint32_t kind) {
    return (row.va_base != 0) == (kind == AFS_FTL_KIND_DATA);
}

// Decides between the EUs of one kind.
struct wear_survey {
    uint32_t least_worn = AFS_FTL_NONE;
    uint32_t highest_erase_count = 0;
    uint32_t dirtiest = AFS_FTL_NONE; // of equals the least worn, of those the first
};

wear_survey survey_kind(const afs_ftl_state &ftl, uint32_t kind) {
    wear_survey survey;
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        const afs_eu_info &row = ftl.eu_table[eu];
        if (eu == ftl.spare_eu || !is_of_kind(row, kind)) {
            continue;
        }
        survey.highest_erase_count = std::max(survey.highest_erase_count, row.erase_count);
        if (survey.dirtiest == AFS_FTL_NONE) {
            survey.least_worn = survey.dirtiest = eu;
            continue;
        }
        if (row.erase_count < ftl.eu_table[survey.least_worn].erase_count) {
            survey.least_worn = eu;
        }
        const afs_eu_info &best = ftl.eu_table[survey.dirtiest];
        if (row.dirty_pages > best.dirty_pages ||
            (row.dirty_pages == best.dirty_pages && row.erase_count < best.erase_count)) {
            survey.dirtiest = eu;
        }
    }
    return survey;
}

// An EU that holds nothing live and has nothing erased: to reclaim it costs an erase and no copy.
bool is_entirely_dead(const afs_context *context, uint32_t eu) {
    const afs_ftl_state &ftl = *context->ftl;
    const afs_eu_info &row = ftl.eu_table[eu];
    const uint32_t slots = row.va_base != 0 ? usable_slots(context, eu) : AFS_FTL_EU_PAGES;
    return row.free_pages == 0 && row.dirty_pages == slots &&
           (row.va_base != 0 || eu != ftl.write_eu);
}

// The dirtiest EU of a kind, or a candidate that costs nothing to copy, unless the wear rule fires.
reclaim_choice choose_victim(const afs_ftl_state &ftl, uint32_t kind, uint32_t candidate,
                             wear_rule rule) {
    const wear_survey survey = survey_kind(ftl, kind);
    if (survey.dirtiest == AFS_FTL_NONE) {
        return no_choice;
    }
    const uint32_t lowest = ftl.eu_table[survey.least_worn].erase_count;
    if (rule == wear_rule::on && survey.highest_erase_count - lowest > max_wear_spread &&
        survey.highest_erase_count % wear_rule_period == 0) {
        return {.eu = survey.least_worn, .mode = AFS_FTL_MODE_RECLAIM};
    }
    return {.eu = candidate != AFS_FTL_NONE ? candidate : survey.dirtiest,
            .mode = AFS_FTL_MODE_RECLAIM};
}

// Work for idle time: the kind of EU, and the EU itself where only one will do.
struct idle_work {
    uint32_t eu;
    uint32_t kind;
};

bool find_idle_work(const afs_context *context, idle_work &work) {
    const afs_ftl_state &ftl = *context->ftl;
    uint32_t log_free = 0;
    uint32_t data_free = 0;
    uint32_t data_dirty = 0;
    uint32_t candidate = AFS_FTL_NONE;
    for (uint32_t i = 0; i < ftl.eu_count; ++i) {
        const afs_eu_info &row = ftl.eu_table[i];
        if (i == ftl.spare_eu) {
            continue;
        }
        if (row.va_base != 0) {
            data_free += row.free_pages;
            data_dirty += row.dirty_pages;
        } else if (i == ftl.write_eu) {
            log_free += log_head_is_full(ftl) ? 0 : AFS_FTL_EU_PAGES - ftl.write_slot;
        } else if (row.free_pages != 0) {
            log_free += AFS_FTL_EU_PAGES;
        }
        if (is_entirely_dead(context, i) &&
            (candidate == AFS_FTL_NONE || row.erase_count < ftl.eu_table[candidate].erase_count)) {
            candidate = i;
        }
    }
    if (log_free <= short_log) {
        work.kind = AFS_FTL_KIND_LOG;
        work.eu = AFS_FTL_NONE;
        return true;
    }
    if (data_free <= short_data && data_dirty > data_dirt_worth_reclaim) {
        work.kind = AFS_FTL_KIND_DATA;
        work.eu = AFS_FTL_NONE;
        return true;
    }
    if (candidate != AFS_FTL_NONE) {
        work.kind = ftl.eu_table[candidate].va_base != 0 ? AFS_FTL_KIND_DATA : AFS_FTL_KIND_LOG;
        work.eu = candidate;
        return true;
    }
    return false;
}

} // namespace

namespace dolm {

reclaim_choice choose_on_demand(const afs_context *context, uint32_t kind, wear_rule rule) {
    const afs_ftl_state &ftl = *context->ftl;
    const uint32_t with_room = find_oldest_eu(ftl, [kind](uint32_t, const afs_eu_info &row) {
        return is_of_kind(row, kind) && row.free_pages != 0;
    });
    return with_room != AFS_FTL_NONE ? reclaim_choice{.eu = with_room, .mode = AFS_FTL_MODE_MOVE}
                                     : choose_victim(ftl, kind, AFS_FTL_NONE, rule);
}

reclaim_choice choose_for_idle_time(const afs_context *context, wear_rule rule) {
    idle_work work;
    return find_idle_work(context, work) ? choose_victim(*context->ftl, work.kind, work.eu, rule)
                                         : no_choice;
}

} // namespace dolm

uint32_t choose_eu_to_reclaim(afs_context *context, uint32_t kind, uint32_t wear, uint32_t *mode,
                              uint8_t idle) {
    if (!ftl_is_mounted(context) || mode == nullptr) {
        return AFS_FTL_NONE;
    }
    const wear_rule rule = wear == 1 ? wear_rule::on : wear_rule::off;
    const reclaim_choice choice =
        idle != 0 ? choose_for_idle_time(context, rule) : choose_on_demand(context, kind, rule);
    *mode = choice.mode;
    return choice.eu;
}

uint32_t afs_physical_ftl_idle_reclaim_needed(afs_context *context, uint32_t *eu, uint32_t *kind) {
    if (!ftl_is_mounted(context) || eu == nullptr || kind == nullptr) {
        return 0;
    }
    idle_work work;
    if (!find_idle_work(context, work)) {
        return 0;
    }
    *eu = work.eu;
    *kind = work.kind;
    return 1;
}
