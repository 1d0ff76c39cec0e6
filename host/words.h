// The words of a command line before they are understood.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace dolm {

// The command among the words, or an empty word: the first that is no option. Options that take a
// value stand behind it.
std::string command_of(const std::vector<std::string> &words);

// Wanted before the command line is understood, so that what is wrong with it is told in JSON too.
bool asks_for_json(const std::vector<std::string> &words);

// Puts the set that DOLM_SET names behind a command that is given none: if it has fewer arguments
// than it needs, or if the first is no set where a SET is needed.
std::vector<std::string> with_default_set(const CLI::App &app, std::vector<std::string> words);

} // namespace dolm
