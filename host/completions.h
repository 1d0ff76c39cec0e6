// Completions for shells, out of what the parser of the command line knows.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace dolm {

// A script for "bash", "zsh" or "fish".
std::string completion_script(const CLI::App &app, const std::string &shell);

} // namespace dolm
