// What is wrong with a manifest, all of it rather than the first find.
#pragma once

#include <string>
#include <vector>

namespace dolm {

class Problems {
  public:
    // place is a JSON pointer.
    void add(const std::string &place, const std::string &message) {
        lines.push_back((place.empty() ? "/" : place) + ": " + message);
    }
    bool empty() const { return lines.empty(); }
    std::string text(const std::string &source) const {
        std::string joined;
        for (const std::string &line : lines) {
            joined += (joined.empty() ? "" : "\n") + source + ": " + line;
        }
        return joined;
    }

  private:
    std::vector<std::string> lines;
};

} // namespace dolm
