#include "host/journal.h"

#include <sstream>

#include "host/set_members.h"
#include "host/system.h"

namespace dolm {

namespace {

constexpr const char *first_line = "dolm-change 1";
constexpr const char *last_line = "end";

constexpr struct {
    JournalStep::Kind kind;
    const char *word;
} kinds[] = {
    {JournalStep::Kind::replace, "replace"},
    {JournalStep::Kind::overwrite, "overwrite"},
    {JournalStep::Kind::remove, "remove"},
};

const char *word_of(JournalStep::Kind kind) {
    for (const auto &known : kinds) {
        if (known.kind == kind) {
            return known.word;
        }
    }
    return "";
}

// A journal can touch nothing but the members of its set, wherever it comes from.
bool is_fresh_name(const std::string &name, const std::string &member) {
    return name.starts_with("." + member + ".") && name.ends_with(".new") &&
           name.find('/') == std::string::npos;
}

std::optional<JournalStep> read_step(const std::string &line) {
    std::istringstream words(line);
    std::string word;
    JournalStep step{};
    words >> word >> step.member >> step.fresh;
    for (const auto &known : kinds) {
        if (word == known.word) {
            step.kind = known.kind;
            const bool removes = step.kind == JournalStep::Kind::remove;
            const bool is_good =
                is_member_name(step.member) &&
                (removes ? step.fresh.empty() : is_fresh_name(step.fresh, step.member));
            return is_good ? std::optional(step) : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace

Bytes to_bytes(const Journal &journal) {
    std::ostringstream text;
    text << first_line << '\n';
    for (const JournalStep &step : journal) {
        text << word_of(step.kind) << ' ' << step.member << (step.fresh.empty() ? "" : " ")
             << step.fresh << '\n';
    }
    text << last_line << '\n';
    const std::string bytes = text.str();
    return Bytes(bytes.begin(), bytes.end());
}

std::optional<Journal> read_journal(const Bytes &bytes) {
    std::istringstream text(std::string(bytes.begin(), bytes.end()));
    std::string line;
    if (!std::getline(text, line) || line != first_line) {
        return std::nullopt;
    }
    Journal journal;
    while (std::getline(text, line) && line != last_line) {
        const auto step = read_step(line);
        if (!step) {
            return std::nullopt;
        }
        journal.push_back(*step);
    }
    return line == last_line ? std::optional(journal) : std::nullopt;
}

std::string fresh_name(const std::string &member, int attempt) {
    return "." + member + "." + system::process_number() + "-" + std::to_string(attempt) + ".new";
}

} // namespace dolm
