// Blocks of front end operations: start-ups on random sets, NVAR access, terminations, reports.
#include <algorithm>
#include <list>
#include <memory>

#include "EFS.h"
#include "afs_image.h"
#include "device.h"
#include "dfs.h"
#include "inputs.h"
#include "miniVfs.h"
#include "qoqfs.h"

namespace recorder {
namespace {

constexpr uint32_t sku = 7;
constexpr uint32_t afs = 1;
constexpr uint32_t efs = 2;

void on_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
               const char *message) {
    record->result("level", static_cast<uint64_t>(level));
    record->result("report", static_cast<uint64_t>(number));
    record->text(Column::results, "text", text);
    record->text(Column::results, "message", message);
}

class FrontEndBlock : public Block {
  public:
    explicit FrontEndBlock(uint64_t seed)
        : random_(seed), faults_(random_.one_in(3)), damage_(random_.one_in(3)) {}
    ~FrontEndBlock() override { qoQfsNvarTerm(false); }

    void step() override {
        if (names_.empty() || random_.one_in(200)) {
            make_set();
        }
        if (faults_ && random_.one_in(10)) {
            plan_faults(random_);
        }
        if (!is_up_ || random_.one_in(100)) {
            start();
        } else if (random_.one_in(15)) {
            terminate(!random_.one_in(6));
        } else {
            access();
        }
        device.clear_faults();
        record->bytes(Column::image, "afs", *qfs_);
        record->bytes(Column::image, "efs", *efs_);
        record->result("is up", qoQfsIsInitialized() + 2U * qoFcsIsInitialized() +
                                    4U * qoQfsIsVfsDeployed());
    }

  private:
    void make_set() {
        record->operation("make a set");
        qoQfsNvarTerm(false);
        is_up_ = false;
        names_.clear();
        make_tables();
        make_afs();
        make_efs();
        if (damage_ && random_.one_in(2)) {
            Bytes *const parts[] = {&orvel_, &vync_, &table_, qfs_, efs_};
            Bytes &part = *parts[random_.below(5)];
            if (!part.empty()) {
                damage(random_, part);
            }
        }
    }

    Bytes any_value(uint32_t limit) {
        Bytes value(random_.one_in(6) ? 0 : random_.skewed(limit + (random_.one_in(40) ? 10 : 0)));
        random_.fill(value);
        return value;
    }

    void make_tables() {
        static constexpr uint32_t trailers[] = {0, 0, 0, 1, 0x41, 2};
        const uint32_t count =
            random_.one_in(5) ? random_.from_to(100, 400) : random_.from_to(1, 40);
        geometry_ = random_efs_geometry(random_);
        entries_.clear();
        std::vector<StoreFile> base;
        std::vector<StoreFile> over;
        uint32_t next_efs = 0;
        for (uint32_t i = 0; i < count; ++i) {
            const bool in_efs = random_.one_in(3) && next_efs < geometry_.records.size();
            const uint32_t id = in_efs ? next_efs++ : i + 1;
            TableEntry entry = {
                .name = "/home/" + std::to_string(random_.below(5)) + "/" + std::to_string(i),
                .fileno = i + 1,
                .attributes = trailers[random_.below(6)],
                .file_id = id,
                .store = in_efs ? efs : afs,
                .max_size = in_efs ? geometry_.records[id].max_size : random_.from_to(10, 600)};
            entry.name = i == 0 ? "/home/mca/deploy" : entry.name;
            base.push_back({entry.fileno, any_value(entry.max_size)});
            if (random_.one_in(3)) {
                over.push_back({entry.fileno, any_value(entry.max_size)});
            }
            names_.push_back(entry.name);
            entries_.push_back(std::move(entry));
        }
        table_ = make_file_table(sku, entries_, geometry_);
        orvel_ = make_store(base);
        const Bytes payload = make_store(over);
        vync_.clear();
        if (!random_.one_in(5)) {
            append(vync_, 1);
            append(vync_, 2);
            append(vync_, static_cast<uint32_t>(payload.size()));
            append(vync_, 3);
            append(vync_, payload);
        }
    }

    void make_afs() {
        qfs_ = &images_.emplace_back();
        if (random_.one_in(6)) {
            return;
        }
        AfsGeometry geometry = random_afs_geometry(random_);
        geometry.device_offset = 0;
        geometry.data_eus = std::max(geometry.data_eus, 8U);
        geometry.file_count = 450;
        geometry.device_size = 16 * 8192;
        *qfs_ = make_afs_image(geometry);
        device.attach(*qfs_);
        record->status(dfs_init(qfs_->data(), static_cast<uint32_t>(qfs_->size())));
        for (const TableEntry &entry : entries_) {
            const bool is_marker = &entry == &entries_[0];
            if (entry.store == afs && !random_.one_in(is_marker ? 6 : 10)) {
                const Bytes value = any_value(entry.max_size + 56);
                record->status(dfs_write(entry.file_id, 0, static_cast<uint32_t>(value.size()),
                                         with_data(value), 1));
            }
        }
    }

    void make_efs() {
        efs_ = &images_.emplace_back();
        if (random_.one_in(6)) {
            return;
        }
        record->status(load_file_table(table_.data(), sku, static_cast<uint32_t>(table_.size())));
        efs_->assign(EFS_get_efs_size(), 0xFF);
        record->status(EFS_init_tools(efs_->data()));
        record->status(EFS_do_format());
        record->status(EFS_init_tools(efs_->data()));
        for (const TableEntry &entry : entries_) {
            if (entry.store == efs && !random_.one_in(10)) {
                const Bytes value = any_value(entry.max_size);
                record->status(EFS_write(entry.file_id, 0, static_cast<uint32_t>(value.size()),
                                         with_data(value)));
            }
        }
    }

    // Never null.
    static const uint8_t *with_data(const Bytes &bytes) {
        static const uint8_t nothing = 0;
        return bytes.empty() ? &nothing : bytes.data();
    }

    void start() {
        const auto range = [](Bytes &bytes) {
            return _commonDolmTable{bytes.data(), static_cast<uint32_t>(bytes.size())};
        };
        _commonDolmInputs inputs = {range(orvel_), range(vync_), range(*qfs_),
                                    range(table_), sku,          range(*efs_)};
        if (random_.one_in(12)) {
            _commonDolmTable *const ranges[] = {&inputs.orvelCfg, &inputs.vyncCfg, &inputs.qfsImage,
                                                &inputs.ftbl, &inputs.efsImage};
            _commonDolmTable &left_out = *ranges[random_.below(5)];
            left_out = random_.one_in(2) ? _commonDolmTable{nullptr, 0}
                                         : _commonDolmTable{left_out.data, left_out.size / 2};
        }
        inputs.afsSkuId = random_.one_in(40) ? sku + 1 : sku;
        device.attach(inputs.qfsImage.size != 0 ? std::span(*qfs_) : std::span<uint8_t>());
        record->operation("qoQfsDolmInit");
        is_up_ = qoQfsDolmInit(random_.one_in(60) ? nullptr : &inputs, on_report);
        record->result("done", is_up_);
        record_rebuilt();
    }

    void terminate(bool keep_open) {
        record->operation("qoQfsNvarTerm", {{"keep open", keep_open}});
        const bool done = qoQfsNvarTerm(keep_open);
        record->result("done", done);
        is_up_ = done && keep_open;
        record_rebuilt();
        if (is_up_) {
            record_all();
        }
    }

    void record_rebuilt() {
        uint8_t *bytes = nullptr;
        uint32_t size = 0;
        const bool found = qoQfsGetBuildVynCfgFcsBuffer(&bytes, &size);
        record->result("found", found);
        if (found) {
            record->bytes(Column::results, "rebuilt", {bytes, size});
        }
    }

    void record_all() {
        for (const std::string &name : names_) {
            get(name, FCS_FILE_CURRENT_VALUES);
        }
    }

    void access() {
        const std::string name = any_name();
        switch (random_.below(8)) {
        case 0:
            record->operation("qoqfsCheckNvarExists");
            record->result("found", qoqfsCheckNvarExists(name.c_str(), any_table()));
            return;
        case 1:
            record->operation("qoQfsGetFcsFileNameMapping");
            record->result("table", qoQfsGetFcsFileNameMapping(random_.below(4)));
            return record->result("size", qoQfsGetEfsSize());
        case 2:
        case 3:
            record->operation("qoQfsNvarGet");
            return get(name, any_table());
        case 4:
            return dispatch(name);
        default:
            return resize(name);
        }
    }

    std::string any_name() {
        std::string name = names_[random_.below(static_cast<uint32_t>(names_.size()))];
        if (random_.one_in(30)) {
            name += "x";
        }
        return random_.one_in(3) ? name.substr(6) : name;
    }
    FcsFileName any_table() {
        return static_cast<FcsFileName>(random_.one_in(3) ? FCS_FILE_ORVEL_CFG + random_.below(4)
                                                          : FCS_FILE_CURRENT_VALUES);
    }

    static void get(const std::string &name, FcsFileName table) {
        uint8_t *data = nullptr;
        uint32_t size = 0;
        bool writable = false;
        uint32_t limit = 0;
        const bool found = qoQfsNvarGet(name.c_str(), &data, &size, table, &writable, &limit);
        record->result("found", found);
        if (found) {
            record->bytes(Column::results, "value", {data, size});
            record->result("writable", writable);
            record->result("limit", limit);
        }
    }

    void dispatch(const std::string &name) {
        uint32_t file = random_.below(50) | (random_.below(4) << 11);
        record->operation("pathToFileNumber");
        record->status(pathToFileNumber(name.c_str(), &file));
        file |= random_.one_in(20) ? 0x10000000 : 0;
        Bytes bytes(700);
        random_.fill(bytes);
        uint32_t size = random_.below(700);
        const uint32_t offset = random_.one_in(2) ? 0 : random_.below(300);
        record->operation("dfs", {{"file", file}, {"offset", offset}, {"length", size}});
        switch (random_.below(12)) {
        case 0:
        case 1:
            record->status(dfs_getsize(file, &size));
            return record->result("size", size);
        case 2:
        case 3:
            if (record->status(dfs_read(file, offset, &size, bytes.data())) == DFS_OK) {
                record->bytes(Column::results, "bytes", std::span(bytes).first(size));
            }
            return;
        case 4:
            record->status(dfs_delete_file(file));
            return;
        case 5:
            record->status(dfs_mark_zombie_file(file));
            return;
        case 6:
            record->status(dfs_force_full_reclaim());
            record->status(dfs_idle_reclaim_needed());
            record->status(dfs_idle_reclaim());
            return;
        case 7:
            record->status(dfs_set_page_size(random_.one_in(2) ? 0 : 64));
            return;
        case 8:
            if (record->status(readVfs(name.c_str(), offset, bytes.data(), 100)) == 0) {
                record->bytes(Column::results, "bytes", std::span(bytes).first(100));
            }
            return;
        default:
            record->status(dfs_write(file, offset, size, bytes.data(), random_.below(2)));
        }
    }

    void resize(const std::string &name) {
        const Bytes value = any_value(random_.one_in(50) ? 70000 : 400);
        uint8_t *data = nullptr;
        record->operation("qoQfsNvarResize", {{"size", value.size()}});
        const bool done = qoQfsNvarResize(name.c_str(), &data, static_cast<uint32_t>(value.size()));
        record->result("done", done);
        if (done) {
            std::ranges::copy(value, data);
        }
    }

    Random random_;
    bool faults_;
    bool damage_;
    std::vector<TableEntry> entries_;
    std::vector<std::string> names_;
    EfsGeometry geometry_;
    Bytes orvel_;
    Bytes vync_;
    Bytes table_;
    std::list<Bytes> images_; // none goes before the block ends: the stores may still hold it
    Bytes *qfs_ = nullptr;
    Bytes *efs_ = nullptr;
    bool is_up_ = false;
};

} // namespace

std::unique_ptr<Block> make_front_end_block(uint64_t seed) {
    return std::make_unique<FrontEndBlock>(seed);
}

} // namespace recorder
