// The AFS image: which record is damaged, and what follows from that.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/check/set_view.h"
#include "image/afs_survey.h"

namespace dolm {

class AfsCheck {
  public:
    AfsCheck(const SetView &view, Findings &findings);
    void run();

  private:
    using Rule = AfsDamage::Rule;

    static std::string eu_name(uint32_t eu) { return "EU " + std::to_string(eu); }
    static std::string eu_subject(uint32_t eu) { return "eu " + std::to_string(eu); }

    template <typename Wanted>
    std::vector<const AfsDamage *> damages(Wanted wanted) const {
        std::vector<const AfsDamage *> found;
        for (const AfsDamage &damage : image_.damages) {
            if (wanted(damage)) {
                found.push_back(&damage);
            }
        }
        return found;
    }

    template <typename Wanted>
    std::vector<uint32_t> eus_in(Wanted wanted) const {
        std::vector<uint32_t> found;
        for (uint32_t eu = 0; eu < image_.eu_count; ++eu) {
            if (wanted(eu)) {
                found.push_back(eu);
            }
        }
        return found;
    }

    // In check_afs.cpp.
    Finding &error(std::string place, std::string text, const std::string &subject = {});
    static void follow(Finding &cause, std::string text);
    std::vector<const AfsDamage *> damages_of(Rule rule) const;
    std::string file_name(uint32_t file) const;
    void follow_with_files(Finding &cause, const std::set<uint32_t> &files, const char *text);
    void tell_size();
    bool takes_files_back(const AfsTrace &trace);
    void tell_traces();
    void tell_use();

    // In afs_headers.cpp.
    void tell_headers();
    std::span<const uint8_t> header(uint32_t eu) const;
    bool is_erased(uint32_t eu) const;
    std::optional<uint32_t> likely_spare(const std::vector<uint32_t> &invalid) const;
    std::optional<uint32_t> newest_named_among(const std::vector<uint32_t> &eus) const;
    std::optional<uint32_t> newest_named() const;
    const char *state_of_header(uint32_t eu) const;
    void tell_headers(uint32_t first, uint32_t last, size_t invalid);
    bool chunk_lies_in(uint32_t chunk, uint16_t va_base) const;
    void tell_spare();

    // In afs_pages.cpp.
    void tell_log();
    uint32_t wrong_entry(uint32_t eu, uint32_t slot) const;
    Finding *metadata_cause();
    void tell_pages();
    static uint32_t page_of_entry(uint32_t id);
    bool touches(const AfsFile &file, uint32_t page) const;
    std::set<uint32_t> files_on(uint32_t page) const;
    void tell_rest();
    void tell_chain(const AfsDamage &damage);
    std::string place_of_page(uint32_t page) const;
    void tell_chunks();
    Finding *cause_of_chunk(const AfsDamage &damage);
    void tell_chunks_of(uint32_t eu, const std::vector<const AfsDamage *> &damages);

    const Bytes &bytes_;
    const AfsImage &image_;
    const std::map<uint32_t, std::string> &names_;
    Findings &findings_;
    const std::vector<AfsTrace> traces_;
    size_t rest_ = 0; // bytes behind the last whole EU
    Finding *header_cause_ = nullptr;
    bool lost_log_ = false; // one of them held the log
    Finding *log_cause_ = nullptr;
    std::map<uint32_t, Finding *> bad_pages_;
};

} // namespace dolm
