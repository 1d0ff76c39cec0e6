// AFS for the proofs.
#pragma once

#include <optional>

#include "image/afs_image.h"
#include "proof/afs_build.h"
#include "proof/flash_store.h"

namespace dolm::proof {

class AfsStore : public FlashStore {
  public:
    // A page cache of few lines has to write pages back in the middle of a change.
    explicit AfsStore(uint32_t cache_lines = afs_cache_lines) : cache_lines_(cache_lines) {}

    uint32_t mount(std::span<uint8_t> image) override;
    void unmount() override;
    Files read_files() override;
    Files files_on(std::span<const uint8_t> image) const override;
    std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) override;
    std::vector<Change> further_changes(uint32_t choice, const Files &files) override;
    std::vector<uint32_t> boundaries(const DeviceEvent &event) const override;
    std::vector<std::vector<uint8_t>> torn_values(const DeviceEvent &event) const override;
    const Limit *limit(std::span<const DeviceEvent> events, size_t k, const Tear &tear,
                       std::span<const uint8_t> torn_image) const override;
    bool leaves_unclaimed_bytes(std::span<const DeviceEvent> events, size_t k) const override;

    // Takes a store for the mounted one that someone else has mounted.
    void use(afs_context *context) { context_ = context; }

    // Of the mounted store.
    afs_context *context() { return context_; }
    const afs_ftl_state &ftl() { return *context()->ftl; }

    // Changes; each runs on whatever image is mounted by then.
    Change write(uint32_t file, uint32_t offset, const std::vector<uint8_t> &bytes,
                 uint32_t flags = 0);
    Change remove(uint32_t file);
    Change mark_zombie(uint32_t file);
    // What file operations are not allowed to change. A status of "nothing gained" or "call again"
    // counts as done.
    Change maintain(std::string name, std::function<uint32_t(afs_context *)> run);
    Change reclaim_log();        // the log EU that has most to give, the head if none has
    Change reclaim_data();       // the data EU that has most to give
    Change reclaim(uint32_t eu); // nothing if it is the spare

  private:
    const AfsImage &view_of(std::span<const uint8_t> image) const;

    uint32_t cache_lines_;
    std::optional<AfsMount> mount_;
    afs_context *context_ = nullptr;
    mutable Image viewed_; // the image of view_
    mutable AfsImage view_;
};

} // namespace dolm::proof
