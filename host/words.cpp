#include "host/words.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "host/set_files.h"

namespace dolm {

namespace {

constexpr const char *default_set_variable = "DOLM_SET";

std::vector<std::string>::const_iterator find_command(const std::vector<std::string> &words) {
    return std::find_if(words.begin(), words.end(),
                        [](const std::string &word) { return !word.starts_with('-'); });
}

bool takes_value(const CLI::App &command, const std::string &option_word) {
    const CLI::Option *option = command.get_option_no_throw(option_word);
    return option != nullptr && option->get_items_expected_max() > 0;
}

// The words of a command that are neither options nor their values.
std::vector<std::string> arguments_of(const CLI::App &command,
                                      std::vector<std::string>::const_iterator word,
                                      std::vector<std::string>::const_iterator end) {
    std::vector<std::string> arguments;
    for (; word != end; ++word) {
        if (*word == "--") {
            arguments.insert(arguments.end(), word + 1, end);
            break;
        }
        if (!word->starts_with('-') || *word == "-") {
            arguments.push_back(*word);
        } else if (takes_value(command, *word) && word + 1 != end) {
            ++word;
        }
    }
    return arguments;
}

// True if the first thing that a command needs is a set and its arguments do not begin with one.
bool lacks_set(const CLI::App &command, const std::vector<std::string> &arguments) {
    const auto positional =
        command.get_options([](const CLI::Option *option) { return option->get_positional(); });
    std::vector<const CLI::Option *> required;
    std::copy_if(positional.begin(), positional.end(), std::back_inserter(required),
                 [](const CLI::Option *option) { return option->get_required(); });
    const std::string first = required.empty() ? "" : required.front()->get_single_name();
    if (first != "SET" && first != "PATH") {
        return false;
    }
    if (arguments.size() < required.size()) {
        return true;
    }
    const std::string &argument = arguments.front();
    if (first == "SET") {
        return !holds_set(argument);
    }
    // Names may follow a path, or stand alone.
    return positional.size() > required.size() && argument != "-" &&
           !std::filesystem::exists(argument);
}

} // namespace

std::string command_of(const std::vector<std::string> &words) {
    const auto command = find_command(words);
    return command == words.end() ? "" : *command;
}

bool asks_for_json(const std::vector<std::string> &words) {
    const auto end = std::find(words.begin(), words.end(), "--");
    return std::find(words.begin(), end, "--json") != end;
}

std::vector<std::string> with_default_set(const CLI::App &app, std::vector<std::string> words) {
    const char *set = std::getenv(default_set_variable);
    const auto word = find_command(words);
    if (set == nullptr || *set == '\0' || word == words.end()) {
        return words;
    }
    const CLI::App &command = *app.get_subcommand(*word);
    if (lacks_set(command, arguments_of(command, word + 1, words.end()))) {
        words.insert(word + 1, set);
    }
    return words;
}

} // namespace dolm
