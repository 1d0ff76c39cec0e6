// What a check says: causes, each with what follows from it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "host/counted.h"

namespace dolm {

// Something that is wrong, or worth knowing, and where.
struct Remark {
    std::string file;  // of the set, such as "qfs.img"
    std::string place; // in the file: offset, unit, entry; empty if it is the file as a whole
    std::string text;
    std::string nvar = {}; // whose value or file it is, if it is one's
};

struct Finding {
    enum class Severity : uint8_t { error, note };

    Severity severity = Severity::error;
    Remark cause;
    std::string advice = {};
    std::vector<Remark> consequences = {};
    // What the finding is about, inside its file. A later error about the same follows from it.
    std::string subject = {};
};

const char *to_string(Finding::Severity severity);

class Findings {
  public:
    // A new cause, or a consequence of the error that stands for the same subject.
    Finding &error(Remark remark, const std::string &subject = {});

    // A consequence of the first error in any of the files; a cause of its own if there is none.
    void follow(std::initializer_list<const char *> files, Remark remark);

    void note(Remark remark);

    // A new error before all others; the findings so far for which that is so follow from it.
    Finding &explain(Remark cause, const std::function<bool(const Finding &)> &follows);

    const std::deque<Finding> &all() const { return found_; }

    bool has_error_in(const std::string &file) const;
    bool has_error_about(const std::string &file, const std::string &subject);
    bool has_errors() const;

    // Errors before notes, each in the order in which they were found, and no remark twice.
    std::vector<Finding> sorted() &&;

  private:
    Finding *find(const std::string &file, const std::string &subject);

    std::deque<Finding> found_; // references to its elements stay good
};

// "0x1A4" and what lies there.
std::string at_offset(uint64_t offset, const std::string &what = {});

std::string hex(uint64_t value);

// What to do about an image that is damaged.
std::string how_to_restore(const std::string &image);

// "a, b, c and 7 more".
std::string listed(const std::vector<std::string> &items, size_t most = 12);

} // namespace dolm
