#include "tools/qzfi/completion.h"

#include <functional>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

namespace qzfi::tool {

namespace {

std::string replaced(std::string text, std::string_view from, std::string_view to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

std::vector<const CLI::App *> commands_of(const CLI::App &app) {
    return app.get_subcommands([](const CLI::App *command) { return !command->get_group().empty(); });
}

// "-y" and "--yes"; empty for a positional argument.
std::vector<std::string> names_of(const CLI::Option &option) {
    std::vector<std::string> names;
    for (const std::string &name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string &name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

std::vector<const CLI::Option *> options_of(const CLI::App &app, bool positional) {
    return app.get_options([positional](const CLI::Option *option) {
        return names_of(*option).empty() == positional && !option->get_group().empty();
    });
}

// What a value is: "DIR", "ID", ...; empty for a flag. Of the type's name what stands before the checks.
std::string kind_of(const CLI::Option &option) {
    if (option.get_items_expected_max() == 0)
        return {};
    const std::string type = option.get_type_name();
    const std::string kind = type.substr(0, type.find(':'));
    const bool is_any = kind == "TEXT" || kind == "UINT";
    return option.get_positional() && is_any ? option.get_single_name() : kind;
}

bool is_list(const CLI::Option &option) {
    return option.get_items_expected_max() > 1;
}

// bash

constexpr std::string_view bash_end = R"sh(
# The command's own answers, of the root and store that the line names.
_qzfi_ask() {
    "${words[0]/#\~/$HOME}" "${where[@]}" "$@" 2>/dev/null </dev/null
}

_qzfi_complete() { # KIND CURRENT
    local IFS=$'\n' base
    case $1 in
    DIR) compopt -o filenames; COMPREPLY=($(compgen -d -- "$2")) ;;
    PATH) compopt -o filenames; COMPREPLY=($(compgen -f -- "$2")) ;;
    ID) COMPREPLY=($(compgen -W "$(_qzfi_ask list "${store[@]}" | awk 'NR > 1 { print $1 } END { print "latest" }')" \
        -- "$2")) ;;
    "ID|PATH") _qzfi_complete PATH "$2"; local files=("${COMPREPLY[@]}"); _qzfi_complete ID "$2"
        COMPREPLY+=("${files[@]}") ;;
    SUB) # the original's path, or as FILE
        if [[ $2 == /* ]]; then _qzfi_complete PATH "$2"; else _qzfi_complete FILE "$2"; fi ;;
    FILE) # within the image that was named before
        base=$(_qzfi_ask path "${store[@]}" "${part[@]}" "$id") && [[ $base != *$'\n'* ]] || return
        compopt -o filenames -o nospace
        COMPREPLY=($(compgen -f -- "$base/$2"))
        local index
        for index in "${!COMPREPLY[@]}"; do
            [[ -d ${COMPREPLY[index]} ]] && COMPREPLY[index]+=/
            COMPREPLY[index]=${COMPREPLY[index]#"$base/"}
        done ;;
    NAME) COMPREPLY=($(compgen -W "$(_qzfi_ask providers | awk '$2 == "loaded" { print $3 }')" -- "$2")) ;;
    LEVEL) COMPREPLY=($(compgen -W "$(printf '%s\n' INFO WARN TRC_TOP TRC_LOW PARAM_IN PARAM_OUT PARAM_FULL)" -- "$2")) ;;
    COMMAND) compopt -o filenames; COMPREPLY=($(compgen -c -f -- "$2")) ;;
    esac
}

_qzfi() {
    # A "=" is a word of its own there; "--store=DIR" is "--store", "DIR" here.
    local words=() word
    for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        [[ $word == "=" ]] || words+=("$word")
    done
    [[ ${COMP_WORDS[COMP_CWORD]} == "=" ]] && words+=("")
    local current=${words[-1]} command="" kind index position=0 id="" is_rest="" where=() store=() part=()
    COMPREPLY=()
    for ((index = 1; index < ${#words[@]} - 1; ++index)); do
        word=${words[index]}
        if [[ $word == -- ]]; then
            is_rest=yes
        elif [[ -z $is_rest && $word == -* ]]; then
            kind=$(_qzfi_kind "$command" "$word")
            [[ -n $kind ]] || continue
            if ((index + 2 == ${#words[@]})); then
                _qzfi_complete "$kind" "$current"
                return
            fi
            [[ $word == --root ]] && where=(--root "${words[index + 1]/#\~/$HOME}")
            [[ $word == --object ]] && part=(--object "${words[index + 1]}")
            [[ $word == --store ]] && store=(--store "${words[index + 1]/#\~/$HOME}")
            ((++index))
        elif [[ -z $command ]]; then
            command=$word
        else
            [[ $position -eq 0 ]] && id=$word
            ((++position))
        fi
    done
    if [[ -z $is_rest && $current == -* ]]; then
        COMPREPLY=($(compgen -W "$(_qzfi_options "$command")" -- "$current"))
    elif [[ -z $command ]]; then
        COMPREPLY=($(compgen -W "$_qzfi_commands" -- "$current"))
    else
        local kinds=($(_qzfi_arguments "$command"))
        kind=${kinds[position]}
        [[ -z $kind && ${kinds[-1]} == *... ]] && kind=${kinds[-1]}
        _qzfi_complete "${kind%...}" "$current"
    fi
} 2>/dev/null

complete -F _qzfi qzfi
)sh";

using Line = std::function<std::string(const CLI::App &)>;

// A function that prints a line for each command; the first is that of the options before the command.
std::string bash_table(const CLI::App &app, const std::string &name, const Line &line) {
    std::string text = name + "() {\n    case $1 in\n";
    for (const CLI::App *const command : commands_of(app))
        text += "    " + command->get_name() + ") echo \"" + line(*command) + "\" ;;\n";
    return text + "    *) echo \"" + line(app) + "\" ;;\n    esac\n}\n";
}

std::string bash_options(const CLI::App &app) {
    std::string text;
    for (const CLI::Option *const option : options_of(app, false))
        for (const std::string &name : names_of(*option))
            text += (text.empty() ? "" : " ") + name;
    return text;
}

std::string bash_kinds(const CLI::App &app, const std::string &command) {
    std::string text;
    for (const CLI::Option *const option : options_of(app, false))
        for (const std::string &name : names_of(*option))
            if (!kind_of(*option).empty())
                text += "    \"" + command + " " + name + "\") echo \"" + kind_of(*option) + "\" ;;\n";
    return text;
}

std::string bash_script(const CLI::App &app) {
    std::string text = "# bash completion for qzfi; \"qzfi --completion bash\" prints it.\n\n_qzfi_commands=\"";
    for (const CLI::App *const command : commands_of(app))
        text += (text.ends_with('"') ? "" : " ") + command->get_name();
    text += "\"\n\n" + bash_table(app, "_qzfi_options", [&](const CLI::App &command) {
                return (&command == &app ? "" : bash_options(command) + " ") + bash_options(app);
            });
    text += "\n# What stands where: the arguments that are no options.\n" +
            bash_table(app, "_qzfi_arguments", [](const CLI::App &command) {
                std::string kinds;
                for (const CLI::Option *const option : options_of(command, true))
                    kinds += (kinds.empty() ? "" : " ") + kind_of(*option) + (is_list(*option) ? "..." : "");
                return kinds;
            });
    text += "\n# The kind of an option's value; nothing for a flag.\n_qzfi_kind() { # COMMAND OPTION\n    case \"$1 "
            "$2\" in\n";
    for (const CLI::App *const command : commands_of(app))
        text += bash_kinds(*command, command->get_name());
    // Those of the whole may stand behind the command too.
    text += replaced(bash_kinds(app, "*"), "\"* ", "*\" ");
    return text + "    esac\n}\n" + std::string(bash_end);
}

// zsh

constexpr std::string_view zsh_begin = R"sh(#compdef qzfi
# zsh completion for qzfi; "qzfi --completion zsh" prints it.

# The command's own answers, of the root and store that the line names.
_qzfi_ask() {
    local -a where store
    local index
    for ((index = 2; index < $#_qzfi_line; ++index)); do
        case $_qzfi_line[index] in
        --root) where=(--root ${(Q)~_qzfi_line[index + 1]}) ;;
        --root=*) where=(--root ${(Q)~${_qzfi_line[index]#--root=}}) ;;
        --store) store=(--store ${(Q)~_qzfi_line[index + 1]}) ;;
        --store=*) store=(--store ${(Q)~${_qzfi_line[index]#--store=}}) ;;
        esac
    done
    [[ $1 == providers ]] && store=()
    ${(Q)~_qzfi_line[1]} $where "$@" $store 2>/dev/null </dev/null
}

_qzfi_id() {
    local -a ids
    ids=(${(f)"$(_qzfi_ask list | awk 'NR > 1 { print $1 }')"} latest)
    _wanted ids expl image compadd -a ids
}

_qzfi_id_or_path() {
    _alternative 'ids:image:_qzfi_id' 'files:path:_files'
}

# Within the image that was named before.
_qzfi_file() {
    local base
    base=$(_qzfi_ask path $line[1]) && [[ -d $base ]] && _files -W $base
}

# The original's path, or a file within the image.
_qzfi_part() {
    if [[ $PREFIX == /* ]]; then _files; else _qzfi_file; fi
}

_qzfi_method() {
    local -a methods
    methods=(${(f)"$(_qzfi_ask providers | awk '$2 == "loaded" { print $3 }')"})
    _wanted methods expl method compadd -a methods
}

_qzfi() {
    local curcontext=$curcontext state line
    local -a _qzfi_line
    local -A opt_args
    _qzfi_line=($words)
)sh";

std::string zsh_text(const std::string &text) {
    std::string result = replaced(replaced(text, "\\", "\\\\"), "'", "'\\''");
    for (const char *const special : {"[", "]", ":"})
        result = replaced(result, special, std::string("\\") + special);
    return result;
}

std::string zsh_action(const std::string &kind) {
    constexpr std::pair<std::string_view, std::string_view> actions[] = {
        {"DIR", "_directories"},  {"PATH", "_files"},
        {"ID", "_qzfi_id"},       {"ID|PATH", "_qzfi_id_or_path"},
        {"FILE", "_qzfi_file"},   {"SUB", "_qzfi_part"},
        {"NAME", "_qzfi_method"}, {"LEVEL", "(INFO WARN TRC_TOP TRC_LOW PARAM_IN PARAM_OUT PARAM_FULL)"}};
    for (const auto &[name, action] : actions)
        if (kind == name)
            return std::string(action);
    return " ";
}

std::string zsh_options(const CLI::App &app, const std::string &indent) {
    std::string text;
    for (const CLI::Option *const option : options_of(app, false)) {
        const std::string kind = kind_of(*option);
        for (const std::string &name : names_of(*option)) {
            text += indent + "'" + (is_list(*option) ? "*" : "") + name;
            if (!kind.empty())
                text += name.starts_with("--") ? "=" : "+";
            text += "[" + zsh_text(option->get_description()) + "]";
            if (!kind.empty())
                text += ":" + zsh_text(kind) + ":" + zsh_action(kind);
            text += "' \\\n";
        }
    }
    return text;
}

std::string zsh_arguments(const CLI::App &command, const std::string &indent) {
    if (command.get_name() == "run")
        return indent + "'*::COMMAND:_normal' \\\n";
    std::string text;
    for (const CLI::Option *const option : options_of(command, true)) {
        const std::string kind = kind_of(*option);
        text += indent + "'" +
                (is_list(*option)         ? "*"
                 : option->get_required() ? ""
                                          : ":") +
                ":" + zsh_text(kind) + ":" + zsh_action(kind) + "' \\\n";
    }
    return text;
}

std::string zsh_script(const CLI::App &app) {
    std::string text(zsh_begin);
    text += "    _arguments -C \\\n" + zsh_options(app, "        ") +
            "        '1: :->command' \\\n        '*:: :->arguments' && return\n    case $state in\n    command)\n"
            "        local -a commands\n        commands=(\n";
    for (const CLI::App *const command : commands_of(app))
        text += "            '" + command->get_name() + ":" + zsh_text(command->get_description()) + "'\n";
    text += "        )\n        _describe -t commands command commands\n        ;;\n    arguments)\n"
            "        case $words[1] in\n";
    for (const CLI::App *const command : commands_of(app)) {
        const std::string indent = "                ";
        text += "        " + command->get_name() + ")\n            _arguments \\\n" + zsh_options(*command, indent) +
                zsh_options(app, indent) + zsh_arguments(*command, indent);
        text.erase(text.size() - 3); // the last continuation
        text += "\n            ;;\n";
    }
    return text + "        esac\n        ;;\n    esac\n}\n\n_qzfi \"$@\"\n";
}

} // namespace

std::string completion_script(const CLI::App &app, const std::string &shell) {
    return shell == "zsh" ? zsh_script(app) : bash_script(app);
}

} // namespace qzfi::tool
