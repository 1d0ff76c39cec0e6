// What is wrong with a manifest, all of it rather than the first find; of very many, the first
// ones.
#pragma once

#include <string>
#include <vector>

#include "host/errors.h"

namespace dolm {

class Problems {
  public:
    // Whether what only foresees trouble is a problem too.
    enum class Doubts { count, pass };

    explicit Problems(Doubts doubts = Doubts::count) : doubts_(doubts) {}

    // What can be built, but may not be what the writer of the manifest wants.
    void doubt(const std::string &place, const std::string &text) {
        if (doubts_ == Doubts::count) {
            add(place, text);
        }
    }
    void let_doubts_pass() { doubts_ = Doubts::pass; }

    // place is a JSON pointer.
    void add(const std::string &place, const std::string &text) {
        if (found_.size() < most_told) {
            found_.push_back({"", place.empty() ? "/" : place, "", text});
        } else {
            ++untold_;
        }
    }
    bool empty() const { return found_.empty(); }

    // The problems of the source. name_at gives the name of the file that a place is about.
    std::vector<Problem> list(const std::string &source, auto &&name_at) const {
        std::vector<Problem> all = found_;
        for (Problem &problem : all) {
            problem.source = source;
            problem.name = name_at(problem.place);
        }
        if (untold_ != 0) {
            all.push_back({source, "", "", "and " + std::to_string(untold_) + " more problems"});
        }
        return all;
    }

  private:
    static constexpr size_t most_told = 1000;

    Doubts doubts_;
    std::vector<Problem> found_;
    size_t untold_ = 0;
};

} // namespace dolm
