// The command line, and what a subcommand declares of it. The library that takes it apart stays behind this: it is all
// headers, and each file that saw them took three times as long to compile.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/qzfi/tool.h"

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace qzfi::tool {

/// An option, a flag or an argument by its place.
class Argument {
public:
    explicit Argument(CLI::Option *option) : option_(option) {}

    Argument &required(bool is_required = true);
    /// What its value is, as in "DIR"; completion goes by it.
    Argument &type_name(const std::string &name);
    /// Numbers from `least` to `most`.
    template <typename Number>
    Argument &within(Number least, Number most);
    /// An empty value, as of a variable that is not set, would count for none; it is refused instead.
    Argument &not_empty();
    /// Not together with another one that was declared before.
    Argument &excludes(const std::string &other);

private:
    CLI::Option *option_;
};

/// Those of a subcommand. What the values are read into must live as long as the command line.
class Arguments {
public:
    explicit Arguments(CLI::App *command) : command_(command) {}

    /// `names` is "-y,--yes", or "PATH" for an argument by its place.
    template <typename Value>
    Argument add_option(const std::string &names, Value &value, const std::string &description);
    Argument add_flag(const std::string &names, bool &value, const std::string &description);
    /// A directory's path, never empty, made absolute: the library keeps it, and may be asked from elsewhere.
    Argument add_directory(const std::string &names, std::string &value, const std::string &description);
    /// What the help says below the options.
    void footer(const std::string &text);

private:
    CLI::App *command_;
};

/// The command line. `add` functions keep references to it; it outlives the action.
class CommandLine {
public:
    CommandLine();
    ~CommandLine();
    CommandLine(const CommandLine &) = delete;
    CommandLine &operator=(const CommandLine &) = delete;

    /// `action` is what the subcommand does once the whole command line is known to be right. It returns an exit code
    /// and throws Failure.
    Arguments add_command(const std::string &name, const std::string &description, std::function<int()> action);
    CLI::App &app() { return *app_; }
    /// Of the subcommand that was chosen.
    int act() const { return action_(); }

    Settings settings;

private:
    std::unique_ptr<CLI::App> app_;
    std::function<int()> action_;
};

} // namespace qzfi::tool
