// Blocks of EFS operations on a store of random geometry.
#include <algorithm>
#include <cstring>
#include <memory>

#include "EFS.h"
#include "device.h"
#include "inputs.h"

namespace recorder {
namespace {

constexpr uint32_t block_size = 4096;
constexpr uint32_t data_area = 4076;
constexpr uint32_t sku = 1;

class EfsBlock : public Block {
  public:
    explicit EfsBlock(uint64_t seed)
        : random_(seed), faults_(random_.one_in(3)), cuts_(random_.one_in(2)),
          damage_(random_.one_in(4)), raw_(random_.one_in(3)), bytes_(0x10001) {}

    void step() override {
        if (faults_ && random_.one_in(8)) {
            plan_faults(random_);
        }
        if (image_.empty() || random_.one_in(damage_ ? 150 : 500)) {
            make_store();
        } else if (!is_mounted_ || random_.one_in(40)) {
            mount();
        }
        const bool cut = cuts_ && random_.one_in(12);
        if (cut) {
            device.cut_after(random_.skewed(40), random_.skewed(block_size));
        }
        if (raw_ && random_.one_in(3)) {
            run_raw();
        } else {
            run_file();
        }
        device.clear_faults();
        record_state();
        if (cut && device.restore_power()) {
            mount();
        }
        if (damage_ && random_.one_in(50)) {
            damage(random_, image_);
            is_mounted_ = false;
        }
    }

  private:
    void load_geometry() {
        table_ = make_file_table(sku, {}, geometry_);
        record->status(load_autogen_data(table_.data(), sku, static_cast<uint32_t>(table_.size())));
    }

    void make_store() {
        record->operation("make a store");
        geometry_ = random_efs_geometry(random_);
        load_geometry();
        image_.assign(EFS_get_efs_size(), 0xFF);
        record->status(EFS_init_tools(image_.data()));
        record->status(EFS_do_format());
        // Worn blocks, so that wear levelling has something to do.
        good_image_ = image_;
        mount();
    }

    // After a failure the next one begins with an image that mounted before.
    void mount() {
        record->operation("EFS_init_tools");
        is_mounted_ = record->status(EFS_init_tools(image_.data())) == EFS_OK;
        if (is_mounted_) {
            good_image_ = random_.one_in(4) ? image_ : good_image_;
        }
        record_state();
        if (!is_mounted_) {
            std::ranges::copy(good_image_, image_.begin());
        }
    }

    uint32_t any_file() {
        return random_.one_in(50) ? static_cast<uint32_t>(random_.next())
                                  : random_.below(geometry_.files_num + 1);
    }

    uint32_t any_length(uint32_t file) {
        uint32_t limit = 2000;
        if (EFS_files != nullptr && file < g_efs_files_num) {
            limit = EFS_files[file].max_size;
        }
        return random_.one_in(8) ? limit + random_.below(2) : random_.below(limit + 1);
    }

    void run_file() {
        const uint32_t file = any_file();
        switch (random_.below(16)) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
            return write(file);
        case 6:
        case 7:
        case 8:
            return read(file);
        case 9: {
            uint32_t size = 0;
            record->operation("EFS_get_file_size", {{"file", file}});
            record->status(EFS_get_file_size(file, &size));
            return record->result("size", size);
        }
        case 10:
        case 11:
            record->operation("EFS_delete", {{"file", file}});
            record->status(EFS_delete(file));
            return;
        case 12:
        case 13:
            record->operation("EFS_idle_reclaim");
            record->status(EFS_idle_reclaim());
            return;
        case 14:
            record->operation("EFS_scan_for_Data_Blocks_status_and_EC");
            record->status(EFS_scan_for_Data_Blocks_status_and_EC());
            return;
        default:
            return run_rare();
        }
    }

    void write(uint32_t file) {
        const uint32_t length = std::min(any_length(file), 0x10000U);
        const uint32_t offset = random_.one_in(30) ? 1 : 0;
        random_.fill(std::span(bytes_).first(std::min<size_t>(length, 64)));
        const auto rest = static_cast<uint8_t>(random_.next());
        for (size_t i = 64; i < length; ++i) {
            bytes_[i] = static_cast<uint8_t>(rest + i * 31 + (i >> 8));
        }
        record->operation("EFS_write", {{"file", file}, {"offset", offset}, {"length", length}});
        record->status(EFS_write(file, offset, length, bytes_.data()));
    }

    void read(uint32_t file) {
        uint32_t length = random_.one_in(3) ? random_.below(6000) : 0x10000;
        const uint32_t offset = random_.one_in(2) ? 0 : random_.skewed(6000);
        record->operation("EFS_read", {{"file", file}, {"offset", offset}, {"length", length}});
        const uint32_t status = record->status(EFS_read(file, offset, &length, bytes_.data()));
        record->result("length", length);
        if (status == EFS_OK) {
            record->bytes(Column::results, "bytes", std::span(bytes_).first(length));
        }
    }

    void run_rare() {
        uint32_t length = 1;
        switch (random_.below(5)) {
        case 0:
            record->operation("EFS_wear_leveling");
            record->status(EFS_wear_leveling(1, 2));
            return;
        case 1:
            record->operation("EFS_erase_dirty_block");
            record->status(EFS_erase_dirty_block());
            return;
        case 2:
            record->operation("refused arguments");
            record->status(EFS_write(0, 0, 1, nullptr));
            record->status(EFS_read(0, 0, nullptr, bytes_.data()));
            record->status(EFS_read(0, 0, &length, nullptr));
            record->status(EFS_get_file_size(0, nullptr));
            record->status(EFS_init_tools(nullptr));
            record->status(EFS_get_file_size(0, &length));
            record->status(EFS_erase_dirty_block());
            record->status(EFS_erase_next_BM(0));
            is_mounted_ = false;
            return;
        case 3: {
            record->operation("another geometry");
            const EfsGeometry mounted = geometry_;
            geometry_.spare_blocks += 1;
            load_geometry();
            record->status(EFS_write(0, 0, 1, bytes_.data()));
            record->status(EFS_idle_reclaim());
            geometry_ = mounted;
            load_geometry();
            is_mounted_ = false;
            return;
        }
        default:
            record->operation("read all files");
            for (uint32_t file = 0; file < geometry_.files_num; ++file) {
                length = 0x10000;
                if (record->status(EFS_read(file, 0, &length, bytes_.data())) == EFS_OK) {
                    record->bytes(Column::results, "bytes", std::span(bytes_).first(length));
                }
            }
        }
    }

    // Operations below the files. Those that harm the store leave it to be mounted again.
    void run_raw() {
        if (!is_mounted_) {
            return run_rare();
        }
        const uint32_t blocks = geometry_.valid_blocks + geometry_.spare_blocks;
        const uint32_t block = random_.below(blocks + 1);
        const uint32_t bm = random_.below(geometry_.bm_num + 1);
        uint32_t slot = 0;
        random_.fill(std::span(bytes_).first(data_area));
        switch (random_.below(14)) {
        case 0:
        case 1:
            return commit(random_.one_in(3));
        case 2:
        case 3:
        case 4:
            return swap_block();
        case 5:
            record->operation("EFS_check_next_BM_state", {{"bm", bm}});
            record->status(EFS_check_next_BM_state(bm));
            return;
        case 6:
            record->operation("EFS_erase_next_BM", {{"bm", bm}});
            record->status(EFS_erase_next_BM(bm));
            return;
        case 7:
            record->operation("EFS_write_RTFD_marker");
            record->status(EFS_write_RTFD_marker());
            return;
        case 8:
            record->operation("EFS_select_free_page_for_write");
            record->status(EFS_select_free_page_for_write(&slot));
            return record->result("slot", slot);
        case 9:
            record->operation("EFS_write_data_block", {{"block", block}});
            record->status(EFS_write_data_block(block, bytes_.data()));
            break;
        case 10:
            record->operation("EFS_write_data_footer", {{"block", block}});
            record->status(EFS_write_data_footer(block, bytes_.data()));
            break;
        case 11:
            record->operation("EFS_erase_data_block", {{"block", block}});
            record->status(EFS_erase_data_block(block, random_.below(300)));
            break;
        case 12: {
            const uint32_t length = random_.below(300);
            const auto address = random_.below(static_cast<uint32_t>(image_.size()) + 10);
            record->operation("EFS_write_with_read_check",
                              {{"address", address}, {"length", length}});
            record->status(EFS_write_with_read_check(address, length, bytes_.data(),
                                                     static_cast<uint8_t>(random_.below(2))));
            break;
        }
        default:
            record->operation("EFS_erase");
            record->status(EFS_erase());
        }
        record_state();
        mount();
    }

    // Maps of the mapping in force, to be handed to the library.
    struct Maps {
        explicit Maps(const EFS_bme &source, const EfsGeometry &geometry)
            : valid(source.valid_map, source.valid_map + geometry.valid_blocks),
              spare(source.non_valid_map, source.non_valid_map + geometry.spare_blocks),
              bme(source) {
            bme.valid_map = valid.data();
            bme.non_valid_map = spare.data();
        }
        Bytes valid;
        Bytes spare;
        EFS_bme bme;
    };

    void record_bme(const EFS_bme &bme) {
        record->bytes(Column::fields, "valid_map", {bme.valid_map, geometry_.valid_blocks});
        record->bytes(Column::fields, "non_valid_map", {bme.non_valid_map, geometry_.spare_blocks});
        record->field("aux0", bme.aux0);
        record->field("aux1", bme.aux1);
        record->field("crc32", bme.crc32);
    }

    void commit(bool by_switch) {
        Maps maps(efs_ctx.current_bme, geometry_);
        if (random_.one_in(10)) {
            maps.valid[0] = 0xFF;
        }
        record->operation(by_switch ? "EFS_switch_BM" : "EFS_commit_BME");
        record->status(by_switch ? EFS_switch_BM(&maps.bme)
                                 : EFS_commit_BME(&maps.bme, random_.below(3), 7));
        record_bme(maps.bme);
    }

    void swap_block() {
        Maps maps(efs_ctx.current_bme, geometry_);
        const uint32_t logical = random_.below(geometry_.valid_blocks + 1);
        record->operation("EFS_bme_swap_and_write_new_block", {{"logical", logical}});
        const uint32_t status =
            record->status(EFS_bme_swap_and_write_new_block(&maps.bme, logical, bytes_.data()));
        if (status == EFS_OK) {
            record->operation("EFS_commit_BME");
            record->status(EFS_commit_BME(&maps.bme, 0, 0));
        }
        record_bme(maps.bme);
    }

    void record_state() {
        record->bytes(Column::image, "efs", image_);
        record->field("efs_size", efs_size);
        record->field("initialized", EFS_is_initialized());
        record->bytes(Column::fields, "page_buffer", efs_ctx.page_buffer);
        record->bytes(Column::fields, "verify_buffer", efs_ctx.verify_buffer);
        record->field("retry_count", efs_ctx.retry_count);
        record->field("bm_switch_pending", efs_ctx.bm_switch_pending);
        record->field("current_bm", efs_ctx.current_bm);
        record->field("bm_sequence", efs_ctx.bm_sequence);
        record->field("next_bm_state", efs_ctx.next_bm_state);
        record->field("bme_offset", efs_ctx.bme_offset);
        record->field("free_block_count", efs_ctx.free_block_count);
        record->field("scan_done", efs_ctx.scan_done);
        if (efs_ctx.initialized == 0) {
            return;
        }
        record_bme(efs_ctx.current_bme);
        if (efs_ctx.scan_done != 0) {
            const size_t blocks = geometry_.valid_blocks + geometry_.spare_blocks;
            record->bytes(Column::fields, "erase_counts",
                          {reinterpret_cast<uint8_t *>(efs_ctx.erase_counts), blocks * 4});
            record->bytes(Column::fields, "block_status",
                          {efs_ctx.block_status, geometry_.spare_blocks});
        }
    }

    Random random_;
    bool faults_;
    bool cuts_;
    bool damage_;
    bool raw_;
    EfsGeometry geometry_;
    Bytes table_;
    Bytes image_;
    Bytes good_image_;
    Bytes bytes_;
    bool is_mounted_ = false;
};

} // namespace

// Files that do not overlap: one or two in a block, some over several blocks.
EfsGeometry random_efs_geometry(Random &random) {
    EfsGeometry geometry;
    geometry.bm_num = random.one_in(6) ? 1 : random.from_to(2, 4);
    geometry.valid_blocks = random.one_in(8) ? random.from_to(20, 60) : random.from_to(1, 9);
    geometry.spare_blocks = random.one_in(8) ? 1 : random.from_to(2, 5);
    geometry.wear_threshold = random.one_in(2) ? random.from_to(1, 10) : 100;
    geometry.layout_id = random.below(3);
    uint32_t block = 0;
    uint32_t file = 0;
    while (block < geometry.valid_blocks && file < 14) {
        const uint32_t first = random.below(4000);
        const uint32_t more = random.one_in(3) ? random.from_to(1, 2) : 0;
        geometry.records.push_back({file++, block, 0, first});
        geometry.records.push_back({file++, block, first + 4, 4072 - (first + 4) + more * 4072});
        block += 1 + more; // the last one may run past the last block
    }
    geometry.files_num = file + 2;
    return geometry;
}

std::unique_ptr<Block> make_efs_block(uint64_t seed) {
    return std::make_unique<EfsBlock>(seed);
}

} // namespace recorder
