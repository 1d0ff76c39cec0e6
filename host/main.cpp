// The command line of dolm.

// Behind this, options of the command line that are paths are read by it.
#include "host/path_option.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "host/close_words.h"
#include "host/commands.h"
#include "host/completions.h"
#include "host/errors.h"
#include "host/output.h"
#include "host/system.h"
#include "host/words.h"

namespace {

constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

// How a command ends that returns, and one that throws Failure.
struct ExitStatus {
    int done = 0;
    int failed = exit_failure;
};

constexpr const char *value_help =
    "A VALUE is text, or hex:00ff for bytes, @FILE for the content "
    "of a file, text:... for text that begins like one of these or with a dash.";

void add_lock_timeout(CLI::App &command, double &seconds) {
    command
        .add_option("--lock-timeout", seconds,
                    "Seconds to wait for other commands that work on the set")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
}

void add_build(CLI::App &app) {
    auto *command = app.add_subcommand("build", "Make a set of inputs from a JSON manifest");
    auto options = std::make_shared<dolm::BuildOptions>();
    command->add_option("MANIFEST", options->manifest, "What the set holds (docs/manifest.md)")
        ->required();
    command->add_option("DIR", options->folder, "Folder for the set")->required();
    command->add_flag("--replace", options->replace, "Write over a set that lies there");
    add_lock_timeout(*command, options->lock_timeout);
    command->callback([options] { dolm::build_set(*options); });
}

void add_sample(CLI::App &app) {
    auto *command = app.add_subcommand("sample", "Make the built-in sample set");
    auto options = std::make_shared<dolm::BuildOptions>();
    command->add_option("DIR", options->folder, "Folder for the set")->required();
    command->add_flag("--replace", options->replace, "Write over a set that lies there");
    add_lock_timeout(*command, options->lock_timeout);
    command->callback([options] { dolm::build_set(*options); });
}

void add_set_options(CLI::App &command, dolm::SetOptions &options) {
    command.add_option("SET", options.folder, "Folder of the set")->required();
    command.add_option("--sku", options.sku, "SKU to use instead of the one in set.json");
    add_lock_timeout(command, options.lock_timeout);
}

CLI::Option *add_names(CLI::App &command, std::vector<std::string> &names) {
    return command.add_option("NAME", names,
                              "Name or pattern ('net/*'), with or without /home/ in front");
}

// Its exit statuses are those of every program that compares.
void add_diff(CLI::App &app, ExitStatus &status) {
    auto *command = app.add_subcommand("diff", "Show how two sets differ");
    auto options = std::make_shared<dolm::DiffOptions>();
    add_set_options(*command, *options);
    command->add_option("OTHER", options->other, "Folder of the set to compare it with")
        ->required();
    command->callback([options, &status] {
        status.failed = 2;
        status.done = dolm::diff_sets(*options) ? 0 : 1;
    });
}

void add_list(CLI::App &app) {
    auto *command = app.add_subcommand("list", "Show the NVARs of a set");
    auto options = std::make_shared<dolm::ListOptions>();
    add_set_options(*command, *options);
    add_names(*command, options->names);
    command->add_flag("--changed", options->changed_only,
                      "Only those whose value differs from the base value");
    command->add_option("--against", options->against,
                        "Only those whose value differs from the one in this set");
    command->callback([options] { dolm::list_nvars(*options); });
}

void add_get(CLI::App &app) {
    auto *command = app.add_subcommand("get", "Show the values of NVARs, as set takes them");
    auto options = std::make_shared<dolm::GetOptions>();
    add_set_options(*command, *options);
    add_names(*command, options->names)->required();
    command->add_option("--table", options->table, "Where from: current, base or override")
        ->check(CLI::IsMember({"current", "base", "override"}));
    auto *form = command->add_option_group("form");
    form->add_flag_callback(
        "--text", [options] { options->form = dolm::ValueForm::text; }, "The bytes as text");
    form->add_flag_callback(
        "--hex", [options] { options->form = dolm::ValueForm::hex; }, "The bytes in hexadecimal");
    form->add_option_function<std::string>(
        "--raw",
        [options](const std::string &path) {
            options->form = dolm::ValueForm::raw;
            options->raw_file = path;
        },
        "The bytes as they are, into this file (- for standard output)");
    form->require_option(0, 1);
    command->callback([options] { dolm::get_nvars(*options); });
}

// What stands behind the named arguments.
std::vector<std::string> further_words(const CLI::App &command) {
    std::vector<std::string> words = command.remaining();
    if (!words.empty() && words.front() == "--") {
        words.erase(words.begin());
    }
    return words;
}

void add_set(CLI::App &app) {
    auto *command = app.add_subcommand("set", "Change NVARs and write the set back");
    auto options = std::make_shared<dolm::ChangeOptions>();
    add_set_options(*command, *options);
    // Names and values: an option that takes many words would take a value [a,b] apart.
    command->allow_extras();
    command->add_option("--from", options->from,
                        "File (- for standard input) with new values: a JSON object from names to "
                        "values as in manifests, or lines NAME=VALUE");
    command->add_option("--unset", options->unset, "Give this NVAR its base value back")
        ->allow_extra_args(false);
    auto *dry_run =
        command->add_flag("--dry-run", options->dry_run,
                          "Change nothing; tell what would change and what it costs the flash");
    command
        ->add_option("-o,--output", options->output,
                     "Write the changed set into this folder and leave SET as it is")
        ->excludes(dry_run);
    command->add_flag("--replace", options->replace, "Write over a set that lies there");
    command->footer(std::string("NAME VALUE ... after SET: the new values. ") + value_help);
    command->callback([command, options] {
        options->words = further_words(*command);
        dolm::set_nvars(*options);
    });
}

void add_export(CLI::App &app) {
    auto *command = app.add_subcommand(
        "export", "Write a set as a manifest and a file for each value, which build takes");
    auto options = std::make_shared<dolm::ExportOptions>();
    command->add_option("SET", options->folder, "Folder of the set")->required();
    command->add_option("DIR", options->output, "Folder for manifest.json and the values")
        ->required();
    command->add_flag("--replace", options->replace, "Write over what lies in DIR");
    add_lock_timeout(*command, options->lock_timeout);
    command->callback([options] { dolm::export_set(*options); });
}

void add_extract(CLI::App &app) {
    auto *command = app.add_subcommand("extract", "Write files of the flash stores into a folder");
    auto options = std::make_shared<dolm::ExtractOptions>();
    add_set_options(*command, *options);
    command->add_option("NAME", options->names,
                        "Names, with or without /home/ in front, patterns ('net/*'), or numbers "
                        "with the class on top (0x10000021)");
    command->add_flag("--all", options->all, "Every file of both stores");
    command
        ->add_option("-o,--output", options->output,
                     "Folder for the files (- for one file on standard output)")
        ->required();
    command->add_flag("--trailer", options->with_trailer, "With what follows the value");
    command->callback([options] { dolm::extract_files(*options); });
}

void add_import(CLI::App &app) {
    auto *command = app.add_subcommand("import", "Write files into the flash stores of a set");
    auto options = std::make_shared<dolm::ImportOptions>();
    add_set_options(*command, *options);
    command
        ->add_option("NAME=FILE", options->pairs,
                     "A name or number as for extract, and the file with its content")
        ->required();
    command->add_flag("--trailer", options->with_trailer,
                      "The files hold the trailer too; without it the one in flash stays");
    command->callback([options] { dolm::import_files(*options); });
}

void add_table_options(CLI::App &command, dolm::ImageOptions &options) {
    command.add_option("--ftbl", options.ftbl,
                       "File table with the geometry of an EFS image and the names of files; "
                       "without it the ftbl.bin beside the file");
    command.add_option("--sku", options.sku,
                       "SKU in the file table; without it and --ftbl the "
                       "one in set.json beside the file");
    add_lock_timeout(command, options.lock_timeout);
}

void add_salvage(CLI::App &app) {
    auto *command =
        app.add_subcommand("salvage", "Write what can still be read of a damaged set as an export");
    auto options = std::make_shared<dolm::SalvageOptions>();
    command->add_option("SET", options->folder, "Folder of the set")->required();
    command->add_option("DIR", options->output, "Folder for manifest.json and the values")
        ->required();
    command->add_flag("--replace", options->replace, "Write over what lies in DIR");
    add_lock_timeout(*command, options->lock_timeout);
    command->callback([options] { dolm::salvage_set(*options); });
}

void add_history(CLI::App &app) {
    auto *command =
        app.add_subcommand("history", "Show earlier contents of files that still lie on the flash");
    auto options = std::make_shared<dolm::HistoryOptions>();
    command->add_option("PATH", options->path, "An image, or the folder of a set")->required();
    command->add_option("NAME", options->names,
                        "Files by name, with or without /home/ in front, pattern, or number in "
                        "their store; all without one");
    add_table_options(*command, *options);
    command->callback([options] { dolm::show_history(*options); });
}

void add_inspect(CLI::App &app) {
    auto *command = app.add_subcommand("inspect", "Show what lies in the members of a set");
    auto options = std::make_shared<dolm::InspectOptions>();
    command
        ->add_option("PATH", options->path,
                     "A table, store or image, known by its content, or the folder of a set")
        ->required();
    add_table_options(*command, *options);
    auto *part = command->add_option_group("part");
    part->add_option("--page", options->page, "Show this page of an AFS image with its fields");
    part->add_option("--unit", options->unit,
                     "Show this erase unit of an image with its fields, counted from its start");
    part->add_option("--block", options->block,
                     "Show this data block of an EFS image with its fields");
    part->require_option(0, 1);
    command->callback([options] { dolm::inspect_member(*options); });
}

void add_check(CLI::App &app) {
    auto *command = app.add_subcommand("check", "Say what is wrong with a set");
    auto options = std::make_shared<dolm::CheckOptions>();
    command->add_option("SET", options->folder, "Folder of the set")->required();
    command->add_option("--sku", options->sku, "Check this SKU alone instead of all");
    command->add_flag("--strict", options->strict, "Fail over notes too");
    command->add_flag("--quiet", options->quiet, "Print the counts alone");
    add_lock_timeout(*command, options->lock_timeout);

    command->callback([options] { dolm::check_set(*options); });
}

void add_completions(CLI::App &app) {
    auto *command = app.add_subcommand("completions", "Print the completions for a shell");
    auto shell = std::make_shared<std::string>();
    command->add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    command->callback([&app, shell] {
        const std::string script = dolm::completion_script(app, *shell);
        if (dolm::tells_json()) {
            dolm::print_json({{"shell", *shell}, {"script", script}});
        } else {
            dolm::print_text(script);
        }
    });
}

void add_prove(CLI::App &app) {
    auto *command = app.add_subcommand(
        "prove", "Cut the power at every write of a termination, on a copy in memory");
    auto options = std::make_shared<dolm::ProveOptions>();
    add_set_options(*command, *options);
    command->allow_extras();
    command->add_option("--depth", options->depth, "Cuts behind each other, 1 or 2 (default 2)")
        ->check(CLI::IsMember({1, 2}));
    auto *states = command->add_option("--states", options->states,
                                       "How many states to visit, about (default 20000)");
    states->check([](const std::string &count) {
        const bool is_too_low =
            count.starts_with('-') || count.find_first_not_of('0') == count.npos;
        return is_too_low ? "at least one state is to be visited" : "";
    });
    auto *all = command->add_flag("--all", options->all, "Visit every state")->excludes(states);
    auto *replay = command->add_option("--replay", options->replay, "Visit this state alone")
                       ->excludes(states)
                       ->excludes(all);
    command
        ->add_option("-o,--output", options->output,
                     "Write the set as the cut left it into this folder")
        ->needs(replay);
    command->add_flag("--replace", options->replace, "Write over a set that lies there");
    command->footer(std::string("NAME VALUE ... after SET: the values to write; without any, all "
                                "are written as they are. ") +
                    value_help);
    command->callback([command, options] {
        options->words = further_words(*command);
        dolm::prove_set(*options);
    });
}

void add_report(CLI::App &app) {
    auto *command = app.add_subcommand("report", "Write a page of HTML about a set");
    auto options = std::make_shared<dolm::ReportOptions>();
    add_set_options(*command, *options);
    command->add_option("--against", options->against, "A set to compare the NVARs with");
    command
        ->add_option("-o,--output", options->output, "Where the page goes (- for standard output)")
        ->required();
    command->callback([options] { dolm::report_set(*options); });
}

void refuse_unknown_command(const CLI::App &app, const std::string &word) {
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        names.push_back(command->get_name());
    }
    const std::string nearest = dolm::nearest(word, names, 1).front();
    if (nearest != word) {
        throw dolm::UsageError("there is no command '" + word + "'; the nearest is '" + nearest +
                               "'");
    }
}

// Taken before the command and behind it.
void add_common_flags(CLI::App &command) {
    command.add_flag("--json")->description("Results and errors as JSON");
    command.add_flag_callback("-q", dolm::choose_quiet,
                              "Nothing on standard output but what --json, --raw or - ask for");
    command.add_flag_callback("-v,--verbose", dolm::choose_verbose,
                              "Say on standard error what is done");
}

void add_commands(CLI::App &app, ExitStatus &status) {
    add_build(app);
    add_sample(app);
    add_diff(app, status);
    add_list(app);
    add_get(app);
    add_set(app);
    add_export(app);
    add_extract(app);
    add_import(app);
    add_salvage(app);
    add_history(app);
    add_inspect(app);
    add_check(app);
    add_completions(app);
    add_prove(app);
    add_report(app);
    for (CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        add_common_flags(*command);
    }
}

void run(std::vector<std::string> words, ExitStatus &status) {
    dolm::system::prepare_streams();
    const std::string command = dolm::command_of(words);
    if (dolm::asks_for_json(words)) {
        dolm::choose_json(command);
    }
    CLI::App app("Builds, reads and changes sets of firmware storage inputs: configuration tables "
                 "and flash images.",
                 "dolm");
    app.allow_windows_style_options(false); // a path may begin with a slash
    app.set_version_flag("--version", DOLM_VERSION);
    app.require_subcommand(1);
    add_common_flags(app);
    add_commands(app, status);
    if (!command.empty()) {
        refuse_unknown_command(app, command);
        words = dolm::with_default_set(app, std::move(words));
    }
    std::reverse(words.begin(), words.end()); // as the parser takes them
    try {
        app.parse(std::move(words));
    } catch (const CLI::Success &help) {
        app.exit(help);
    } catch (const CLI::ParseError &error) {
        throw dolm::UsageError(error.what());
    }
    dolm::flush_output();
}

int fail(const std::exception &error, int exit_code,
         const std::vector<dolm::Problem> &problems = {}) {
    dolm::tell_error(error.what(), exit_code, problems);
    return exit_code;
}

} // namespace

int main(int argc, char **argv) {
    ExitStatus status;
    try {
        run(dolm::system::arguments(argc, argv), status);
        return status.done;
    } catch (const dolm::UsageError &error) {
        return fail(error, exit_usage);
    } catch (const dolm::Failure &failure) {
        return fail(failure, status.failed, failure.problems);
    } catch (const std::exception &error) {
        return fail(error, status.failed);
    }
}
