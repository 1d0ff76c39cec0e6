// Blocks of operations on configuration stores and the file table.
#include <algorithm>
#include <memory>

#include "FCS.h"
#include "device.h"
#include "inputs.h"

namespace recorder {
namespace {

constexpr uint32_t sku = 1;
constexpr uint32_t name_size = 49;

class StoreBlock : public Block {
  public:
    explicit StoreBlock(uint64_t seed) : random_(seed), out_(0x20000) {
        const uint32_t names =
            random_.one_in(3) ? random_.from_to(500, 3000) : random_.from_to(3, 60);
        std::vector<TableEntry> entries;
        for (uint32_t i = 0; i < names; ++i) {
            entries.push_back({.name = any_new_name(i),
                               .fileno = i * 3 + 1,
                               .attributes = random_.below(0x80),
                               .file_id = i,
                               .store = random_.below(4),
                               .max_size = random_.one_in(5) ? random_.below(50) : 0xFFFF});
            names_.push_back(entries.back().name);
        }
        table_ = make_file_table(sku, entries, {});
    }
    ~StoreBlock() override { closeHandle(&handle_); }

    void step() override {
        if (handle_ == nullptr || random_.one_in(100)) {
            return open();
        }
        switch (random_.below(10)) {
        case 0:
        case 1:
        case 2:
            return add();
        case 3:
        case 4:
            return remove();
        case 5:
            return get();
        case 6:
            return look_up();
        case 7:
            return random_.one_in(10) ? walk() : look_up();
        case 8:
            return random_.one_in(10) ? load() : get();
        default:
            return random_.one_in(5) ? flush_store() : get();
        }
    }

  private:
    std::string any_new_name(uint32_t number) {
        static constexpr const char *folders[] = {"/home/a/", "/home/b", "/", "", "zz"};
        std::string name = folders[random_.below(5)] + std::to_string(number);
        if (random_.one_in(8)) {
            name.resize(48, 'x'); // fills the field
        }
        return random_.one_in(40) && !names_.empty() ? names_.back() : name;
    }

    const std::string &any_name() {
        static const std::string unknown = "/home/unknown";
        return random_.one_in(20) ? unknown
                                  : names_[random_.below(static_cast<uint32_t>(names_.size()))];
    }
    uint32_t any_fileno() {
        return random_.below(static_cast<uint32_t>(names_.size())) * 3 +
               (random_.one_in(20) ? 2 : 1);
    }

    Bytes any_payload() {
        Bytes payload(random_.one_in(100) ? random_.below(0xFFF4) : random_.skewed(200));
        random_.fill(payload);
        return payload;
    }

    Bytes any_store() {
        std::vector<StoreFile> files;
        uint32_t number = random_.below(3);
        const uint32_t most = random_.below(static_cast<uint32_t>(names_.size()) + 1);
        while (files.size() < most && number < names_.size()) {
            files.push_back({number * 3 + 1, any_payload()});
            number += random_.from_to(random_.one_in(200) ? 0 : 1, 3);
        }
        Bytes bytes = make_store(files);
        if (random_.one_in(6)) {
            damage(random_, bytes);
        }
        if (random_.one_in(10)) {
            bytes.resize(random_.below(static_cast<uint32_t>(bytes.size())) + 1);
        }
        return bytes;
    }

    void open() {
        closeHandle(&handle_);
        record->operation("load_file_table");
        record->status(load_file_table(table_.data(), sku, static_cast<uint32_t>(table_.size())));
        if (random_.one_in(3)) {
            record->operation("createHandle");
            record->status(createHandle(&handle_));
            return;
        }
        const Bytes bytes = any_store();
        record->operation("createHandleFromStructure", {{"length", bytes.size()}});
        record->status(
            createHandleFromStructure(&handle_, bytes.data(), static_cast<uint32_t>(bytes.size())));
        flush_store();
    }

    void load() {
        const Bytes bytes = any_store();
        record->operation("loadDataFromFcsBuffer", {{"length", bytes.size()}});
        record->result("done", loadDataFromFcsBuffer(handle_, bytes.data(),
                                                     static_cast<uint32_t>(bytes.size())));
        flush_store();
    }

    void add() {
        const std::string &name = any_name();
        const StoreFile file = {random_.one_in(2) ? 0 : any_fileno(), any_payload()};
        Bytes block = make_record(file, random_.below(100), random_.below(0x10000));
        append(block, file.payload);
        const auto length = static_cast<uint16_t>(
            random_.one_in(30) ? random_.below(static_cast<uint32_t>(block.size())) : block.size());
        const bool check = random_.one_in(2);
        record->operation("addNewFile",
                          {{"fileno", file.fileno}, {"length", length}, {"check", check}});
        record->status(addNewFile(handle_, "/", random_.one_in(50) ? nullptr : name.c_str(),
                                  block.data(), length, check));
        record->bytes(Column::results, "record", std::span(block).first(12));
    }

    void remove() {
        const std::string name = any_name() + (random_.one_in(4) ? "/" : "");
        record->operation("deleteFile");
        record->status(deleteFile(handle_, name.c_str()));
    }

    void get() {
        const std::string &name = any_name();
        uint32_t length =
            random_.one_in(10) ? random_.below(40) : static_cast<uint32_t>(out_.size());
        record->operation("getFileData", {{"capacity", length}});
        if (record->status(getFileData(handle_, name.c_str(), out_.data(), &length)) == FCS_OK) {
            record->bytes(Column::results, "bytes", std::span(out_).first(length));
        }
        record->result("length", length);
        record->operation("getFileAttributes");
        if (record->status(getFileAttributes(handle_, name.c_str(), out_.data())) == FCS_OK) {
            record->bytes(Column::results, "bytes", std::span(out_).first(18));
        }
    }

    void walk() {
        char name[name_size] = {};
        record->operation("walk");
        uint32_t status = getFirstFileInRoot(handle_, name);
        while (record->status(status) == FCS_OK) {
            record->text(Column::results, "name", name);
            status = getNextFile(handle_, name);
        }
    }

    void flush_store() {
        uint32_t length = 0;
        record->operation("flush");
        record->status(flush(handle_, nullptr, &length));
        record->result("length", length);
        Bytes bytes(length);
        if (record->status(flush(handle_, bytes.data(), &length)) == FCS_OK) {
            record->bytes(Column::results, "bytes", bytes);
        }
    }

    void look_up() {
        const std::string &name = any_name();
        fileno_t number = any_fileno();
        file_attributes_t attributes = 0;
        uint32_t max_size = 0;
        char found[48] = {};
        record->operation("look-ups", {{"fileno", number}});
        record_entry(get_file_entry_by_fileno(&number));
        record->status(static_cast<uint32_t>(get_file_name_by_fileno(&number, found)));
        record->bytes(Column::results, "name", {reinterpret_cast<uint8_t *>(found), 48});
        record_entry(get_file_entry_by_file_name(name.c_str()));
        record->status(static_cast<uint32_t>(get_fileno_by_file_name(name.c_str(), &number)));
        record->result("fileno", number);
        record->status(static_cast<uint32_t>(
            get_file_attributes_by_file_name(name.c_str(), &attributes, &max_size)));
        record->result("attributes", attributes);
        record->result("max_size", max_size);
    }

    static void record_entry(const file_table_entry_t *entry) {
        record->result("row",
                       entry == nullptr ? UINT64_MAX : static_cast<uint64_t>(entry - g_table_buf));
    }

    Random random_;
    Bytes out_;
    std::vector<std::string> names_;
    Bytes table_;
    void *handle_ = nullptr;
};

} // namespace

std::unique_ptr<Block> make_store_block(uint64_t seed) {
    return std::make_unique<StoreBlock>(seed);
}

} // namespace recorder
