// A store of values: its bytes by themselves, and its names against the file table.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/check/set_view.h"

namespace dolm {

// Whether bytes are more than a filling with zeros or erased bytes.
bool tells_of_values(std::span<const uint8_t> bytes);

class StoreCheck {
  public:
    // The store begins at an offset of its file.
    StoreCheck(const SetView &view, const char *file, size_t begin, const FcsStore &store,
               Findings &findings);
    void run();

  private:
    using EntryInRow = std::pair<const FtblRow *, const FtblEntry *>;

    static std::string subject_of(const FcsRecord &record) { return "record " + hex(record.at); }

    // In check_stores.cpp.
    std::string place(const FcsRecord &record, size_t field, const char *name) const;
    size_t index_of(const FcsRecord &record) const;
    std::string name_of(const FcsRecord &record) const;
    Finding &error(const FcsRecord &record, size_t field, const char *name, std::string text);
    void tell_opaque();

    // In store_bytes.cpp.
    bool check_count();
    std::optional<uint64_t> count_by_payloads() const;
    bool is_cut_short();
    bool is_last_too_long() const;
    void check_payloads();
    void tell_overrun(const FcsRecord &record);
    void check_packing();
    void tell_rest(const FcsRecord &last);

    // In store_names.cpp.
    void check_numbers();
    void tell_unknown(const FcsRecord &record);
    std::optional<EntryInRow> only_orphan() const;
    bool has_value(uint32_t number) const;
    void check_order();
    const FcsRecord &likelier_stray(const FcsRecord &record) const;
    std::vector<EntryInRow> entries_of(const FcsRecord &record) const;
    void tell_stray(const FcsRecord &record);
    void check_limits();
    void tell_limit(const FtblRow &row, const FtblEntry &entry, const FcsRecord &record);

    const SetView &view_;
    const char *file_;
    const size_t begin_;
    const FcsStore &store_;
    Findings &findings_;
    std::vector<std::pair<const FcsRecord *, const FcsRecord *>> duplicates_;
};

} // namespace dolm
