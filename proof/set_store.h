// Both flash stores behind the front end, as one store for the proofs: a mount is a whole start-up
// of the library, and a change is what a host does, down to the termination.
#pragma once

#include <optional>
#include <string>

#include "proof/afs_store.h"
#include "proof/efs_store.h"

namespace dolm::proof {

// What one start-up takes beside the two images. An absent "vync.cfg" is empty.
struct SetTables {
    std::vector<uint8_t> orvel;
    std::vector<uint8_t> vync;
    std::vector<uint8_t> ftbl;
    uint32_t sku = 0;
};

// A new value for an NVAR.
struct NewValue {
    std::string name; // in full
    std::vector<uint8_t> value;
};

// An image of it is that of AFS with that of EFS behind it. Its files go by their number for the
// dispatch layer without the class nibble. One lives at a time, and nobody else uses the library
// meanwhile.
class SetStore : public FlashStore {
  public:
    // The EFS layout is that of the tables; none if the set has no image of EFS.
    SetStore(SetTables tables, size_t afs_size, const std::optional<EfsLayout> &layout);
    ~SetStore() override;
    SetStore(const SetStore &) = delete;
    SetStore &operator=(const SetStore &) = delete;

    // Throws std::runtime_error with the library's reports if it fails, and if it brings up no
    // deployed VFS.
    uint32_t mount(std::span<uint8_t> image) override;
    void unmount() override { afs_.use(nullptr); }
    size_t efs_at() const override { return afs_size_; }
    Files read_files() override;
    Files files_on(std::span<const uint8_t> image) const override;
    std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) override;
    std::vector<Change> further_changes(uint32_t choice, const Files &files) override;
    std::vector<uint32_t> boundaries(const DeviceEvent &event) const override;
    std::vector<std::vector<uint8_t>> torn_values(const DeviceEvent &event) const override;
    const Limit *limit(std::span<const DeviceEvent> events, size_t k, const Tear &tear,
                       std::span<const uint8_t> torn_image) const override;
    bool leaves_unclaimed_bytes(std::span<const DeviceEvent> events, size_t k) const override;

    // New values and the termination that writes them, and all others with them, to flash. The
    // image, a mounted one or not, is left as it is. Throws std::runtime_error for a name that the
    // set does not have.
    Change termination(const Image &image, const std::vector<NewValue> &values);

  private:
    bool is_of_efs(const DeviceEvent &event) const { return event.address >= afs_size_; }
    Change afs_overwrite(uint32_t choice, const Files &files);
    Change efs_overwrite(uint32_t choice, const Files &files);

    SetTables tables_;
    size_t afs_size_;
    AfsStore afs_;
    std::optional<EfsStore> efs_;
};

} // namespace dolm::proof
