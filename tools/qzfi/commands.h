// The subcommands. Each adds itself to the command line, and says what it does when it was chosen.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "tools/qzfi/images.h"
#include "tools/qzfi/tool.h"

namespace qzfi::tool {

/// The command line, while it is taken apart. `add` functions keep references to it; it outlives the action.
struct CommandLine {
    CLI::App app;
    Settings settings;
    /// What the chosen subcommand does, once the whole command line is known to be right. Returns an exit code; throws
    /// Failure.
    std::function<int()> action;
};

#define QZFI_COMMAND(name) void add_##name(CommandLine &line);
#include "tools/qzfi/commands.def"
#undef QZFI_COMMAND

/// Adds a subcommand. `Options` is what its options are read into; `run(settings, options)` does its work:
///
///     struct Options { bool json = false; };
///     int run(const Settings &settings, const Options &options);
///     void add_list(CommandLine &line) {
///         add_command<Options>(line, "list", "List images", run, [](CLI::App &command, Options &options) {
///             add_json(command, options.json);
///         });
///     }
template <typename Options, typename Declare>
void add_command(CommandLine &line, const std::string &name, const std::string &description,
                 int (*run)(const Settings &, const Options &), Declare declare) {
    CLI::App *const command = line.app.add_subcommand(name, description);
    const auto options = std::make_shared<Options>();
    declare(*command, *options);
    command->callback(
        [&line, run, options] { line.action = [&line, run, options] { return run(line.settings, *options); }; });
}

inline void add_json(CLI::App &command, bool &json) {
    command.add_flag("--json", json, "Print JSON, for programs");
}

inline void add_yes(CLI::App &command, bool &yes) {
    command.add_flag("-y,--yes", yes, "Do not ask before deleting");
}

/// The option --store. The library keeps the path, and may be asked from elsewhere: it is made a whole one here.
inline void add_store(CLI::App &command, std::string &store, const std::string &description) {
    command
        .add_option_function<std::string>(
            "--store",
            [&store](const std::string &given) { store = given.empty() ? "" : std::filesystem::absolute(given); },
            description)
        ->type_name("DIR");
}

/// The argument ID and the option --store.
inline void add_image(CLI::App &command, ImageName &image, bool is_required = true) {
    command.add_option("ID", image.id, "An image's id, a unique beginning of it, or \"latest\"")->required(is_required);
    add_store(command, image.store, "Look in this store instead of the known ones");
}

} // namespace qzfi::tool
