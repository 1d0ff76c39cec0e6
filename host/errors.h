// How a command of dolm ends other than well.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace dolm {

// One of many things that are wrong with an input.
struct Problem {
    std::string source; // the file; empty where it is about a name alone
    std::string place;  // in it: a JSON pointer; empty where it is about the whole
    std::string name;   // of the file or NVAR that it is about, if it is about one
    std::string text;

    std::string line() const {
        if (source.empty()) {
            return name + ": " + text;
        }
        return source + ": " + (place.empty() ? "" : place + ": ") + text +
               (name.empty() ? "" : " (" + name + ")");
    }
};

// Bad data, an input or output failure, or a failure that the library reported: exit code 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;

    explicit Failure(std::vector<Problem> all)
        : std::runtime_error(lines(all)), problems(std::move(all)) {}

    std::vector<Problem> problems; // if there are several

  private:
    static std::string lines(const std::vector<Problem> &all) {
        std::string text;
        for (const Problem &problem : all) {
            text += (text.empty() ? "" : "\n") + problem.line();
        }
        return text;
    }
};

// What the library did not do, by its status: anything but 0 is a Failure.
inline void require_done(uint32_t status, const std::string &what) {
    if (status != 0) {
        throw Failure(what + " failed with status " + std::to_string(status));
    }
}

// The command line asks for something that makes no sense: exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace dolm
