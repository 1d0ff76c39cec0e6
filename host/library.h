// The shared library between start-up and final termination, on the files of a set.
#pragma once

#include <string>
#include <vector>

#include "host/set_files.h"
#include "qoqfs.h"

namespace dolm {

// Where the current value of an NVAR comes from.
enum class Origin { base, override_value, flash };

const char *to_string(Origin origin);

struct Nvar {
    std::string name;
    Bytes value;
    uint32_t max_size = 0;
    uint16_t attributes = 0;
    Origin origin = Origin::base;
    bool writable = true;
    bool differs_from_base = false;
};

// The name with "/home/" in front, which may be left out where a name is looked up.
std::string full_name(const std::string &name);

// While it lives the library is up; one at a time. Everything that the library reports goes to
// standard error at once, so that a Failure thrown here says only what was being tried.
class Library {
  public:
    // The flash images of the set are used in place: the store writes into them.
    Library(SetFiles &set, uint32_t sku);
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    // Every name of the file table that has a current value, in the table's order.
    std::vector<std::string> names() const;

    // Names that have an overriding value only, so that no current value comes of it.
    std::vector<std::string> override_only_names() const;

    Nvar nvar(const std::string &given_name) const;

    // The value in one of the three tables.
    Bytes value(const std::string &name, FcsFileName table) const;

    void set_value(const std::string &name, const Bytes &value);

    // Writes everything back, into the flash images too, and gives the rebuilt store, without a
    // head.
    Bytes terminate();
};

} // namespace dolm
