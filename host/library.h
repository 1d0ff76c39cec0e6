// The shared library between start-up and final termination, on the files of a set.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/table_entries.h"
#include "qoqfs.h"

namespace dolm {

// Where the current value of an NVAR comes from. A value of "vync.cfg" that is the base value again
// overrides nothing: every NVAR has one once the store has been rebuilt.
enum class Origin { none, base, override_value, flash };

const char *to_string(Origin origin);

struct Nvar {
    std::string name;
    Bytes value;                    // in the table that was asked for
    TableEntry entry;               // of the file table
    Origin origin = Origin::none;   // of the current value; none without one
    bool writable = true;           // false if a termination passes by its file in flash
    bool differs_from_base = false; // its current value
    std::optional<Bytes> base;
    std::optional<Bytes> override_value;
};

// The library failed, and said why.
struct LibraryFailure : Failure {
    LibraryFailure(const std::string &what, std::vector<Report> all)
        : Failure(what), reports(std::move(all)) {}

    std::vector<Report> reports; // which have been told
};

// While it lives the library is up; one at a time. What the library reports is told before a
// Failure is thrown here, which says only what was being tried.
class Library {
  public:
    // The flash images of the set are used in place: the store writes into them.
    Library(SetFiles &set, uint32_t sku);
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    // What it was started up with.
    const SetFiles &set() const { return set_; }
    uint32_t sku() const { return sku_; }

    // Every name of the file table that has a value in the table, in the file table's order.
    std::vector<std::string> names(FcsFileName table = FCS_FILE_CURRENT_VALUES) const;

    // True if the name has a current value.
    bool has(const std::string &given_name) const;

    // Names that have an overriding value only, so that no current value comes of it.
    std::vector<std::string> override_only_names() const;

    Nvar nvar(const std::string &given_name, FcsFileName table = FCS_FILE_CURRENT_VALUES) const;

    // The value in one of the three tables.
    Bytes value(const std::string &name, FcsFileName table) const;

    void set_value(const std::string &name, const Bytes &value);

    // Writes everything back, into the flash images too, and gives the rebuilt store, without a
    // head.
    Bytes terminate();

  private:
    void release();
    std::vector<Report> tell_reports() const;
    void require(bool success, const std::string &otherwise) const;

    const SetFiles &set_;
    const uint32_t sku_;
};

} // namespace dolm
