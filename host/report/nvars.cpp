#include "host/report/nvars.h"

#include "host/check/flash_files.h"
#include "host/errors.h"

namespace dolm {

namespace {

std::vector<Nvar> nvars_of_library(const SetView &view, uint32_t sku) {
    SetFiles copy = view.files;
    const Library library(copy, sku);
    std::vector<Nvar> nvars;
    for (const std::string &name : library.names()) {
        nvars.push_back(library.nvar(name));
    }
    return nvars;
}

class NvarsLeft {
  public:
    NvarsLeft(const SetView &view, uint32_t sku)
        : view_(view), row_(view.table.row_of(sku)), flash_(view),
          takes_part_(row_ != nullptr && (flash_.is_deployed(*row_) || is_unreadable(view.afs))) {
        take_values(view.base, base_);
        take_values(view.overrides, overrides_);
    }

    std::vector<Nvar> read() {
        if (row_ != nullptr) {
            for (const FtblEntry &entry : row_->entries) {
                add(entry, std::string(entry.name));
            }
        }
        for (const Values *values : {&base_, &overrides_}) {
            for (const auto &[number, value] : *values) {
                if (row_ == nullptr || !view_.names.contains(number)) {
                    add_unknown(number); // and not of another SKU
                }
            }
        }
        return std::move(nvars_);
    }

  private:
    using Values = std::map<uint32_t, Bytes>; // by number

    // Then nothing says whether the VFS was a deployed one; an image without a use is rare.
    static bool is_unreadable(const AfsImage &image) {
        return image.eu_count != 0 && !image.has_file_system;
    }

    static void take_values(const FcsStore &store, Values &values) {
        for (const FcsRecord &record : store.records) {
            if (store.has_payload(record)) {
                const auto payload = store.payload(record);
                values.emplace(record.number, Bytes(payload.begin(), payload.end()));
            }
        }
    }

    static std::optional<Bytes> value_in(const Values &values, uint32_t number) {
        const auto found = values.find(number);
        return found == values.end() ? std::nullopt : std::optional(found->second);
    }

    std::optional<Bytes> value_in_flash(const FtblEntry &entry) const {
        const auto pulled = flash_.pulled(entry);
        if (!takes_part_ || !pulled) {
            return std::nullopt;
        }
        return Bytes(pulled->begin(), pulled->end());
    }

    void add_unknown(uint32_t number) {
        FtblEntry entry;
        entry.number = number;
        const std::string name = name_in(view_.names, number);
        add(entry, name.empty() ? "number " + hex(number) : name);
    }

    void add(const FtblEntry &entry, std::string name) {
        const std::optional<Bytes> flash = value_in_flash(entry);
        Nvar nvar;
        nvar.base = value_in(base_, entry.number);
        if (!nvar.base && view_.base.has_all_records()) {
            return; // no NVAR
        }
        nvar.override_value = value_in(overrides_, entry.number);
        if (flash) {
            nvar.value = *flash;
            nvar.origin = Origin::flash;
        } else if (nvar.override_value && nvar.override_value != nvar.base) {
            nvar.value = *nvar.override_value;
            nvar.origin = Origin::override_value;
        } else if (nvar.base) {
            nvar.value = *nvar.base;
            nvar.origin = Origin::base;
        }
        if (nvar.origin != Origin::none && seen_.insert(entry.number).second) {
            nvar.name = std::move(name);
            nvar.entry = {nvar.name, entry.number, entry.attributes,
                          entry.id,  entry.store,  entry.max_size};
            nvar.writable = entry.trailer() == 0;
            nvar.differs_from_base = nvar.base && nvar.value != *nvar.base;
            nvars_.push_back(std::move(nvar));
        }
    }

    const SetView &view_;
    const FtblRow *row_; // null if the table has none for the SKU
    const FlashFiles flash_;
    const bool takes_part_; // the flash, as far as one can tell
    Values base_;
    Values overrides_;
    std::set<uint32_t> seen_;
    std::vector<Nvar> nvars_;
};

} // namespace

SetNvars read_nvars(const SetView &view, uint32_t sku) {
    try {
        return {sku, true, nvars_of_library(view, sku)};
    } catch (const Failure &) {
        return {sku, false, NvarsLeft(view, sku).read()};
    }
}

uint32_t sku_to_show(const SetView &view, std::optional<uint32_t> asked) {
    if (asked || view.files.sku) {
        return asked ? *asked : *view.files.sku;
    }
    return view.table.rows.empty() ? 0 : view.table.rows.front().sku;
}

} // namespace dolm
