// The stores of values, "orvel.cfg" and "vync.cfg".
#include <algorithm>

#include "host/check/store_check.h"

namespace dolm {

bool tells_of_values(std::span<const uint8_t> bytes) {
    return std::any_of(bytes.begin(), bytes.end(), [&](uint8_t byte) {
        return byte != bytes[0] || (byte != 0 && byte != 0xFF);
    });
}

StoreCheck::StoreCheck(const SetView &view, const char *file, size_t begin, const FcsStore &store,
                       Findings &findings)
    : view_(view), file_(file), begin_(begin), store_(store), findings_(findings) {}

void StoreCheck::run() {
    if (!check_count()) {
        return;
    }
    if (!is_cut_short()) {
        check_payloads();
        check_packing();
    }
    if (view_.table.has_magic && !view_.names.empty()) {
        check_numbers();
        check_order();
        check_limits();
    }
    tell_opaque();
}

std::string StoreCheck::place(const FcsRecord &record, size_t field, const char *name) const {
    return at_offset(begin_ + record.at + field,
                     std::string(name) + " of record " + std::to_string(index_of(record)));
}

size_t StoreCheck::index_of(const FcsRecord &record) const {
    return static_cast<size_t>(&record - store_.records.data());
}

std::string StoreCheck::name_of(const FcsRecord &record) const {
    return name_in(view_.names, record.number);
}

Finding &StoreCheck::error(const FcsRecord &record, size_t field, const char *name,
                           std::string text) {
    return findings_.error({file_, place(record, field, name), std::move(text), name_of(record)},
                           subject_of(record));
}

void StoreCheck::tell_opaque() {
    std::vector<const FcsRecord *> set;
    for (const FcsRecord &record : store_.records) {
        if (record.opaque != 0) {
            set.push_back(&record);
        }
    }
    if (!set.empty()) {
        findings_.note({file_, place(*set[0], fcs::record_opaque_offset, "opaque word"),
                        "the opaque word of " + counted(set.size(), "record") +
                            ", the first one here, is not 0; nothing interprets it",
                        name_of(*set[0])});
    }
}

namespace {

// Whether the store behind the head of "vync.cfg" can be looked at.
bool check_vync_head(const Bytes &bytes, Findings &findings) {
    const std::string place = at_offset(fcs::vync_length_offset, "length of the payload");
    if (bytes.size() < fcs::vync_head_size) {
        findings.error({vync_cfg, at_offset(bytes.size(), "end of the file"),
                        counted(bytes.size(), "byte") + " are no head of 16"});
        return false;
    }
    const uint32_t length = get_le32(bytes, fcs::vync_length_offset);
    const size_t rest = bytes.size() - fcs::vync_head_size;
    if (length > rest) {
        findings.error({vync_cfg, place,
                        "the head announces " + counted(length, "byte") + ", and " +
                            std::to_string(rest) + " follow it"});
        return false;
    }
    const auto store = read_fcs_store(std::span(bytes).subspan(fcs::vync_head_size));
    const uint64_t end = store.records.empty() ? store.payloads_at() : store.records.back().end();
    if (length < end && end <= rest) {
        findings.error({vync_cfg, place,
                        "the head announces " + counted(length, "byte") +
                            ", and the store behind it has " + std::to_string(end)});
        return false;
    }
    const auto behind = std::span(bytes).subspan(fcs::vync_head_size + length);
    if (tells_of_values(behind)) {
        findings.note({vync_cfg, at_offset(fcs::vync_head_size + length),
                       counted(behind.size(), "byte") + " behind the store, which nothing reads"});
    }
    for (const size_t at : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 12u, 13u, 14u, 15u}) {
        if (bytes[at] != 0) {
            findings.note({vync_cfg, at_offset(at, "head"),
                           "a byte of the head that nothing reads is not zero"});
            break;
        }
    }
    return true;
}

} // namespace

void check_stores(const SetView &view, Findings &findings) {
    if (!view.files.orvel_cfg.empty()) {
        StoreCheck(view, orvel_cfg, 0, view.base, findings).run();
    }
    if (!view.files.vync_cfg.empty() && check_vync_head(view.files.vync_cfg, findings)) {
        StoreCheck(view, vync_cfg, fcs::vync_head_size, view.overrides, findings).run();
    }
}

} // namespace dolm
