#include "host/completions.h"

#include <vector>

namespace dolm {

namespace {

// What can stand in the place of a value or an argument.
enum class Kind { flag, choice, nvar, path, other };

struct Word {
    std::vector<std::string> forms; // "-o" and "--output"; none of an argument
    std::string description;
    Kind kind = Kind::flag;
    std::string choices; // with blanks between
};

struct Command {
    std::string name; // empty for what stands before a command
    std::string description;
    std::vector<Word> options;
    Kind arguments = Kind::path;
    std::string choices; // of the arguments
};

// The parser shows the words to choose from as "TEXT:{one,other}".
std::string choices_of(const CLI::Option &option) {
    const std::string type = option.get_type_name();
    const size_t begin = type.find('{');
    if (begin == type.npos) {
        return "";
    }
    std::string choices = type.substr(begin + 1, type.rfind('}') - begin - 1);
    for (char &character : choices) {
        character = character == ',' ? ' ' : character;
    }
    return choices;
}

Kind kind_of(const CLI::Option &option) {
    const std::string &name = option.get_single_name();
    return option.get_items_expected_max() == 0       ? Kind::flag
           : !choices_of(option).empty()              ? Kind::choice
           : name == "NAME" || name == "unset"        ? Kind::nvar
           : option.get_type_name().find("TEXT") == 0 ? Kind::path
                                                      : Kind::other;
}

std::string first_line(const std::string &text) {
    return text.substr(0, text.find('\n'));
}

// Those of a command beside those of its groups, which are commands without a name.
std::vector<const CLI::Option *> options_of(const CLI::App &app) {
    std::vector<const CLI::Option *> options = app.get_options();
    for (const CLI::App *group : app.get_subcommands([](const CLI::App *) { return true; })) {
        if (group->get_name().empty()) {
            const auto grouped = group->get_options();
            options.insert(options.end(), grouped.begin(), grouped.end());
        }
    }
    return options;
}

Word describe(const CLI::Option &option) {
    Word word{{}, first_line(option.get_description()), kind_of(option), choices_of(option)};
    for (const std::string &name : option.get_snames()) {
        word.forms.push_back("-" + name);
    }
    for (const std::string &name : option.get_lnames()) {
        word.forms.push_back("--" + name);
    }
    return word;
}

Command describe(const CLI::App &app) {
    // Commands with NAME VALUE behind a SET take what is left over.
    Command command{app.get_name(),
                    first_line(app.get_description()),
                    {},
                    app.get_allow_extras() ? Kind::nvar : Kind::path,
                    ""};
    for (const CLI::Option *option : options_of(app)) {
        if (!option->get_positional()) {
            command.options.push_back(describe(*option));
            continue;
        }
        const Kind kind = kind_of(*option);
        if (kind == Kind::nvar || kind == Kind::choice) {
            command.arguments = kind;
            command.choices = choices_of(*option);
        }
    }
    return command;
}

std::vector<Command> describe_all(const CLI::App &app) {
    std::vector<Command> commands{describe(app)};
    commands.front().name.clear();
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
        commands.push_back(describe(*command));
    }
    return commands;
}

std::string joined(const std::vector<std::string> &words, const std::string &between) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : between) + word;
    }
    return text;
}

// A word of a shell that it leaves as it is.
std::string shell_quoted(const std::string &text) {
    std::string result = "'";
    for (const char character : text) {
        result += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return result + "'";
}

// The names of NVARs come from the set at hand, the one on the command line or that of DOLM_SET.
constexpr const char *bash_head = R"(# bash completion of dolm, printed by "dolm completions bash"
_dolm_names() {
    local set=$1 begin=$2 name
    while IFS= read -r name; do
        [[ $name == "$begin"* ]] && COMPREPLY+=("$name")
    done < <(dolm get "$set" '*' --hex 2>/dev/null | cut -d= -f1)
}

_dolm() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' set=${DOLM_SET-} words='' choices='' i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then
            if [[ -z $command ]]; then
                command=${COMP_WORDS[i]}
            elif [[ -d ${COMP_WORDS[i]} ]]; then
                set=${COMP_WORDS[i]}
                break
            fi
        fi
    done
)";
constexpr const char *bash_tail =
    R"(    [[ -z $command || $current == -* ]] || words=$choices
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o default -o filenames -F _dolm dolm
)";

// For each option with a value what the value can be, then what each command takes.
std::string bash_script(const std::vector<Command> &commands) {
    std::string script = std::string(bash_head) + "    case \"$command $previous\" in\n";
    for (const Command &command : commands) {
        for (const Word &word : command.options) {
            if (word.kind == Kind::flag) {
                continue;
            }
            std::vector<std::string> patterns;
            for (const std::string &form : word.forms) {
                patterns.push_back(shell_quoted(command.name + " " + form));
            }
            script += "    " + joined(patterns, " | ") + ")\n";
            if (word.kind == Kind::choice) {
                script += "        mapfile -t COMPREPLY < <(compgen -W " +
                          shell_quoted(word.choices) + " -- \"$current\")\n";
            } else if (word.kind == Kind::nvar) {
                script += "        [[ -z $set ]] || _dolm_names \"$set\" \"$current\"\n";
            }
            script += "        return ;;\n";
        }
    }
    script += "    esac\n    case $command in\n";
    for (const Command &command : commands) {
        std::vector<std::string> options;
        for (const Word &word : command.options) {
            options.insert(options.end(), word.forms.begin(), word.forms.end());
        }
        script += "    " + shell_quoted(command.name) +
                  ")\n        words=" + shell_quoted(joined(options, " "));
        if (command.name.empty()) {
            for (const Command &other : commands) {
                script += other.name.empty() ? "" : shell_quoted(" " + other.name);
            }
        }
        script += "\n";
        if (command.arguments == Kind::choice) {
            script += "        choices=" + shell_quoted(command.choices) + "\n";
        } else if (command.arguments == Kind::nvar) {
            script += "        [[ $current == -* || -z $set ]] || "
                      "{ _dolm_names \"$set\" \"$current\"; return; }\n";
        }
        script += "        ;;\n";
    }
    return script + "    esac\n" + bash_tail;
}

constexpr const char *zsh_head = R"zsh(#compdef dolm
# zsh completion of dolm, printed by "dolm completions zsh"
_dolm_names() {
    local set=${DOLM_SET-} word
    local -a names
    for word in ${words[2,CURRENT-1]}; do
        [[ -d $word ]] && { set=$word; break }
    done
    if [[ -n $set ]]; then
        names=(${(f)"$(dolm get $set '*' --hex 2>/dev/null | cut -d= -f1)"})
        compadd -a names
    fi
    [[ -n $set && -z ${DOLM_SET-} ]] || _files
}

_dolm() {
    local context state state_descr line
    typeset -A opt_args
)zsh";

std::string zsh_text(const std::string &text) {
    std::string result;
    for (const char character : text) {
        result += std::string(character == '[' || character == ']' || character == ':' ? "\\" : "");
        result += character;
    }
    return result;
}

std::string zsh_action(Kind kind, const std::string &choices) {
    return kind == Kind::choice ? "(" + choices + ")"
           : kind == Kind::nvar ? "_dolm_names"
           : kind == Kind::path ? "_files"
                                : " ";
}

std::string zsh_options(const Command &command, const std::string &indent) {
    std::string text;
    for (const Word &word : command.options) {
        for (const std::string &form : word.forms) {
            std::string option = "*" + form + "[" + zsh_text(word.description) + "]";
            if (word.kind != Kind::flag) {
                option += ":value:" + zsh_action(word.kind, word.choices);
            }
            text += " \\\n" + indent + shell_quoted(option);
        }
    }
    return text;
}

std::string zsh_script(const std::vector<Command> &commands) {
    std::string script = zsh_head;
    script += "    _arguments -C" + zsh_options(commands.front(), "        ") +
              " \\\n        '1: :->command' '*:: :->arguments'\n"
              "    case $state in\n    command)\n        local -a commands=(\n";
    for (const Command &command : commands) {
        if (!command.name.empty()) {
            script += "            " +
                      shell_quoted(command.name + ":" + zsh_text(command.description)) + "\n";
        }
    }
    script += "        )\n        _describe command commands ;;\n    arguments)\n"
              "        case $words[1] in\n";
    for (const Command &command : commands) {
        if (!command.name.empty()) {
            script += "        " + command.name + ")\n            _arguments" +
                      zsh_options(command, "                ") + " \\\n                " +
                      shell_quoted("*:argument:" + zsh_action(command.arguments, command.choices)) +
                      " ;;\n";
        }
    }
    return script + "        esac ;;\n    esac\n}\n"
                    "if [[ $funcstack[1] == _dolm ]]; then\n    _dolm\nelse\n"
                    "    compdef _dolm dolm\nfi\n";
}

constexpr const char *fish_head =
    R"(# fish completion of dolm, printed by "dolm completions fish"
function __dolm_names
    set -l set $DOLM_SET
    for word in (commandline -opc)[3..]
        if test -d "$word"
            set set $word
            break
        end
    end
    test -n "$set"; and dolm get $set '*' --hex 2>/dev/null | cut -d= -f1
end
)";

std::string fish_text(const std::string &text) {
    std::string result = "'";
    for (const char character : text) {
        result += std::string(character == '\'' || character == '\\' ? "\\" : "") + character;
    }
    return result + "'";
}

std::string fish_option(const Word &word) {
    std::string text;
    for (const std::string &form : word.forms) {
        const bool is_long = form.starts_with("--");
        text += (is_long ? " -l " : " -s ") + form.substr(is_long ? 2 : 1);
    }
    switch (word.kind) {
    case Kind::flag:
        break;
    case Kind::choice:
        text += " -xa " + fish_text(word.choices);
        break;
    case Kind::nvar:
        text += " -xa '(__dolm_names)'";
        break;
    case Kind::path:
        text += " -rF";
        break;
    case Kind::other:
        text += " -x";
        break;
    }
    return text + " -d " + fish_text(word.description);
}

std::string fish_script(const std::vector<Command> &commands) {
    std::string script = fish_head;
    for (const Command &command : commands) {
        const std::string condition =
            command.name.empty()
                ? "complete -c dolm -n __fish_use_subcommand"
                : "complete -c dolm -n '__fish_seen_subcommand_from " + command.name + "'";
        if (!command.name.empty()) {
            script += "complete -c dolm -n __fish_use_subcommand -xa " + command.name + " -d " +
                      fish_text(command.description) + "\n";
        }
        for (const Word &word : command.options) {
            script += condition + fish_option(word) + "\n";
        }
        if (command.arguments == Kind::choice) {
            script += condition + " -xa " + fish_text(command.choices) + "\n";
        } else if (command.arguments == Kind::nvar) {
            script += condition + " -a '(__dolm_names)'\n";
        }
    }
    return script;
}

} // namespace

std::string completion_script(const CLI::App &app, const std::string &shell) {
    const std::vector<Command> commands = describe_all(app);
    return shell == "bash"  ? bash_script(commands)
           : shell == "zsh" ? zsh_script(commands)
                            : fish_script(commands);
}

} // namespace dolm
