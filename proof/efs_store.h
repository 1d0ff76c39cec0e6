// EFS for the proofs.
#pragma once

#include "image/efs_image.h"
#include "proof/flash_store.h"

namespace dolm::proof {

// Everything that counts is under a checksum, and every target is erased or checked before it is
// written, so that the format has no limits here.
class EfsStore : public FlashStore {
  public:
    // The library's file table says how the store works; the layout tells the readers the same.
    explicit EfsStore(EfsLayout layout) : layout_(std::move(layout)) {}

    uint32_t mount(std::span<uint8_t> image) override;
    void unmount() override {}
    Files read_files() override;
    Files files_on(std::span<const uint8_t> image) const override;
    std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) override;
    std::vector<Change> further_changes(uint32_t choice, const Files &files) override;
    std::vector<uint32_t> boundaries(const DeviceEvent &event) const override;

    // Changes; each runs on whatever image is mounted by then.
    static Change write(uint32_t file, uint32_t length, uint32_t seed);
    static Change remove(uint32_t file);
    static Change idle_reclaim();
    static Change switch_bm();
    static Change dirty_erase();

  private:
    const EfsImage &view_of(std::span<const uint8_t> image) const;
    uint32_t entry_size() const;

    EfsLayout layout_;
    mutable Image viewed_; // the image of view_
    mutable EfsImage view_;
};

} // namespace dolm::proof
