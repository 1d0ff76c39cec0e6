// What is wrong with a manifest, all of it rather than the first find; of very many, the first
// ones.
#pragma once

#include <string>
#include <vector>

namespace dolm {

class Problems {
  public:
    // place is a JSON pointer.
    void add(const std::string &place, const std::string &message) {
        if (lines.size() < most_told) {
            lines.push_back((place.empty() ? "/" : place) + ": " + message);
        } else {
            ++untold;
        }
    }
    bool empty() const { return lines.empty(); }
    std::string text(const std::string &source) const {
        std::string joined;
        for (const std::string &line : lines) {
            joined += (joined.empty() ? "" : "\n") + source + ": " + line;
        }
        if (untold != 0) {
            joined += "\n" + source + ": and " + std::to_string(untold) + " more problems";
        }
        return joined;
    }

  private:
    static constexpr size_t most_told = 1000;

    std::vector<std::string> lines;
    size_t untold = 0;
};

} // namespace dolm
