// Tables against flash: what the file table expects in the stores, and what lies there.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/check/flash_files.h"
#include "host/check/set_view.h"

namespace dolm {

class DeploymentCheck {
  public:
    DeploymentCheck(const SetView &view, Findings &findings);
    void run();

  private:
    bool has_value(const FtblEntry &entry) const { return base_.contains(entry.number); }

    template <typename Wanted>
    std::vector<std::string> names_where(Wanted wanted) const {
        std::set<std::string> names;
        for (const uint32_t sku : view_.skus) {
            for (const FtblEntry &entry : view_.table.row_of(sku)->entries) {
                if (has_value(entry) && wanted(entry)) {
                    names.insert(std::string(entry.name));
                }
            }
        }
        return {names.begin(), names.end()};
    }

    // In check_deployment.cpp.
    void error(const FtblRow &row, const FtblEntry &entry, size_t field, const char *image,
               std::string text);
    void check_absent_images();
    void check_absent_image(const char *image, const char *other, bool other_is_there,
                            const std::vector<std::string> &names);
    bool is_any_deployed() const;
    void check_row(const FtblRow &row);
    void check_not_deployed(const FtblRow &row);
    void tell_unread_overrides();
    void tell_strays();
    void tell_strays(const char *image, const std::vector<std::string> &strays);

    // In deployed_values.cpp.
    void check_file(const FtblRow &row, const FtblEntry &entry);
    void tell_missing(const FtblRow &row, const FtblEntry &entry, const char *image);
    std::optional<uint32_t> only_stray(const FtblEntry &entry) const;
    const FcsStore &store_of(const FtblEntry &entry) const;
    const FcsRecord &value_of(const FtblEntry &entry) const;
    bool differs(const FtblEntry &entry) const;
    const FtblEntry *owner_of_value(const FtblRow &row, const FtblEntry &entry) const;
    void compare_value(const FtblRow &row, const FtblEntry &entry);
    std::optional<uint32_t> stray_with_value(const FtblEntry &entry) const;
    void tell_swapped(const FtblEntry &entry, const FtblEntry &owner);

    // In efs_list.cpp.
    void check_efs_list(const FtblRow &row);
    void tell_unlisted(const FtblRow &row, const EfstRow &efst, const FtblEntry &entry);
    void tell_small_place(const FtblRow &row, const EfstRow &efst, const FtblEntry &entry,
                          const EfstRecord &record);

    static constexpr size_t least_telling = 3; // shorter values may be equal by chance
    const SetView &view_;
    Findings &findings_;
    const FlashFiles flash_;
    std::map<uint32_t, const FcsRecord *> base_; // by number
    std::map<uint32_t, const FcsRecord *> overrides_;
    std::set<uint32_t> afs_ids_; // that any SKU's entries have
    std::set<uint32_t> efs_ids_;
    std::map<const char *, std::set<std::string>> lost_; // names, by the damaged image
};

} // namespace dolm
