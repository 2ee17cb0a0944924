// qzfi: the command. It takes the command line apart, runs one subcommand and tells how it ended.
#include <clocale>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <string_view>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/completion.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

// Where in a line of help the description begins, behind a name and blanks.
std::size_t description_column(const std::string &line) {
    if (!line.starts_with("  "))
        return 0;
    const std::size_t gap = line.find("  ", line.find_first_not_of(' '));
    return line.find_first_not_of(' ', gap == std::string::npos ? 0 : gap);
}

// Help that fits a terminal of the usual width; what is broken goes on where descriptions begin.
class Help : public CLI::Formatter {
public:
    Help() {
        column_width(26);
        label("SUBCOMMAND", "COMMAND");
    }
    std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override {
        std::istringstream lines(Formatter::make_help(app, std::move(name), mode));
        std::string text;
        for (std::string line; std::getline(lines, line);)
            text += wrapped(line, 80, description_column(line)) + "\n";
        return text;
    }

protected:
    std::string make_subcommand(const CLI::App *command) const override {
        std::ostringstream text;
        CLI::detail::format_help(text, command->get_name(), command->get_description(), 13);
        return text.str();
    }
    // What must be given stands in the line above them all; what a value must be is told when it is not.
    std::string make_option_opts(const CLI::Option *option) const override {
        const std::string type = option->get_type_name();
        const bool has_value = !option->get_positional() && option->get_items_expected_max() > 0;
        return has_value ? " " + type.substr(0, type.find(':')) : "";
    }
};

constexpr const char *default_root = "/usr/lumen";

void declare(CommandLine &line) {
    CLI::App &app = line.app();
    app.name("qzfi");
    app.description("Frozen images: point-in-time copies of directory trees");
    app.set_help_flag("-h,--help", "Print this help");
    app.set_version_flag("--version", "qzfi " QZFI_VERSION, "Print the version");
    app.require_subcommand(1);
    // Options of all commands may stand behind the subcommand too.
    app.fallthrough();
    app.formatter(std::make_shared<Help>());
    const char *const root = std::getenv("QFI_ROOT");
    line.settings.root = root != nullptr && *root != '\0' ? root : default_root;
    app.add_option("--root", line.settings.root, "The installation root; else QFI_ROOT, else /usr/lumen")
        ->type_name("DIR")
        ->check(CLI::Validator([](const std::string &given) { return given.empty() ? "its value is empty" : ""; }, ""))
        ->check(CLI::Validator(CLI::ExistingDirectory).description(""));
    app.add_flag("-q,--quiet", line.settings.quiet, "No progress, no remarks, no word of what was done");
    app.add_flag("--trace", line.settings.trace, "Show trace lines on standard error; `qzfi log` chooses which");
    // Not in the help: whoever installs needs it, once.
    app.add_option_function<std::string>(
           "--completion",
           [&app](const std::string &shell) {
               if (shell != "bash" && shell != "zsh")
                   throw CLI::ValidationError("--completion", shell + " is neither bash nor zsh");
               std::cout << completion_script(app, shell);
               throw CLI::Success();
           },
           "Print the completion script of a shell: bash or zsh")
        ->group("")
        ->trigger_on_parse();
#define QZFI_COMMAND(name) add_##name(line);
#include "tools/qzfi/commands.def"
#undef QZFI_COMMAND
    // Last, as commands take over the one that is there.
    app.footer("qzfi COMMAND --help tells more. Exit codes: 0 done, 1 failed, 2 wrong usage, 3 differs or damaged, "
               "4 post command failed, 130 interrupted, 141 nobody reads on.");
}

// Where a standard stream was closed, the next file that is opened would take its place, and its text with it: a file
// of a store, perhaps. What cannot be written to takes it instead, so that the loss of what is said is noticed.
void occupy_closed_streams() {
    int descriptor = -1;
    do
        descriptor = open("/dev/null", O_RDONLY);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0)
        close(descriptor);
}

// Help and version, or what is wrong with the command line.
int told_usage(const CLI::App &app, const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) {
        app.exit(error);
        return exit_done;
    }
    std::string text = error.what();
    if (text == "A subcommand is required")
        text = "no command";
    const std::vector<std::string> unknown = app.remaining();
    if (app.get_subcommands().empty() && !unknown.empty())
        text = (unknown.front().starts_with('-') ? "no option " : "no command ") + unknown.front();
    const std::string command = app.get_subcommands().empty() ? "" : app.get_subcommands().front()->get_name();
    std::cerr << "qzfi: " << command << (command.empty() ? "" : ": ") << printable(text) << "; `qzfi " << command
              << (command.empty() ? "" : " ") << "--help` tells more\n";
    return exit_usage;
}

bool has_no_reader(int descriptor) {
    pollfd output{descriptor, POLLOUT, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

// "help COMMAND", as many type it, is "COMMAND --help".
std::vector<const char *> with_help(int argc, char **argv) {
    std::vector<const char *> words(argv, argv + argc);
    std::size_t place = 1;
    while (place < words.size() && *words[place] == '-')
        place += std::string_view(words[place]) == "--root" ? 2 : 1;
    if (place < words.size() && std::string_view(words[place]) == "help") {
        words.erase(words.begin() + static_cast<std::ptrdiff_t>(place));
        words.push_back("--help");
    }
    return words;
}

int run(int argc, char **argv) {
    CommandLine line;
    declare(line);
    int code = exit_done;
    try {
        const std::vector<const char *> words = with_help(argc, argv);
        line.app().parse(static_cast<int>(words.size()), words.data());
        // The framework, and what it starts, may be elsewhere.
        std::string &root = line.settings.root;
        root = std::filesystem::path(absolute_path(root, "find the root " + root)).lexically_normal();
        if (root.size() > 1 && root.ends_with('/'))
            root.pop_back();
        code = line.act();
    } catch (const CLI::ParseError &error) {
        return told_usage(line.app(), error);
    } catch (const Failure &failure) {
        tell(failure);
        return failure.code();
    }
    // What did not get out was not said: a full disk must not look like success.
    if (!std::cout.flush()) {
        if (has_no_reader(STDOUT_FILENO)) // has had enough, as `head` has
            return code == exit_done ? exit_unread : code;
        std::cerr << "qzfi: cannot write to standard output\n";
        return code == exit_done ? exit_failed : code;
    }
    return code;
}

} // namespace

} // namespace qzfi::tool

int main(int argc, char **argv) {
    qzfi::tool::occupy_closed_streams();
    (void)std::setlocale(LC_ALL, "");
    try {
        return qzfi::tool::run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << "qzfi: " << error.what() << '\n';
        return qzfi::tool::exit_failed;
    }
}
