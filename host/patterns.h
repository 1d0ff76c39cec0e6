// Names of NVARs and files as a user gives them: in full, without "/home/" in front, or as a
// pattern. In a pattern * stands for any characters, also for "/" and for none, ? for one
// character, and [abc], [a-z] or [!a-z] for one of these or one of all others. A name that exists
// is meant as it stands, whatever it holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dolm {

// The name with "/home/" in front, which may be left out.
std::string full_name(const std::string &name);

// The name without "/home/" in front.
std::string_view short_name(std::string_view name);

bool is_pattern(std::string_view word);

// True if a pattern fits a name, in full or without "/home/" in front.
bool fits(std::string_view pattern, std::string_view name);

// What a user's words mean among the names that there are.
struct NamesMeant {
    std::vector<std::string> names;   // in the order of the words, and of a pattern in that of the
                                      // names; each once
    std::vector<std::string> unknown; // words that mean none
};
NamesMeant names_meant(const std::vector<std::string> &words,
                       const std::vector<std::string> &names);

} // namespace dolm
