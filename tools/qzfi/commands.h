// The subcommands. Each adds itself to the command line, and says what it does when it was chosen.
#pragma once

#include <memory>
#include <string>

#include "tools/qzfi/command_line.h"
#include "tools/qzfi/images.h"
#include "tools/qzfi/tool.h"

namespace qzfi::tool {

#define QZFI_COMMAND(name) void add_##name(CommandLine &line);
#include "tools/qzfi/commands.def"
#undef QZFI_COMMAND

/// Adds a subcommand. `Options` is what its options are read into; `run(settings, options)` does its work:
///
///     struct Options { bool json = false; };
///     int run(const Settings &settings, const Options &options);
///     void add_list(CommandLine &line) {
///         add_command<Options>(line, "list", "List images", run, [](Arguments &command, Options &options) {
///             add_json(command, options.json);
///         });
///     }
template <typename Options, typename Declare>
void add_command(CommandLine &line, const std::string &name, const std::string &description,
                 int (*run)(const Settings &, const Options &), Declare declare) {
    const auto options = std::make_shared<Options>();
    Arguments arguments =
        line.add_command(name, description, [&line, run, options] { return run(line.settings, *options); });
    declare(arguments, *options);
}

inline void add_json(Arguments &command, bool &json) {
    command.add_flag("--json", json, "Print JSON, for programs");
}

inline void add_yes(Arguments &command, bool &yes) {
    command.add_flag("-y,--yes", yes, "Do not ask first");
}

/// The option --store.
inline void add_store(Arguments &command, std::string &store, const std::string &description) {
    command.add_directory("--store", store, description);
}

inline void add_workers(Arguments &command, uint32_t &workers) {
    command.add_option("--workers", workers, "Threads that copy; 2 unless given").type_name("N").within(1, 64);
}

/// The argument ID and the option --store.
inline void add_image(Arguments &command, ImageName &image, bool is_required = true) {
    command.add_option("ID", image.id, "An image's id, a unique beginning of it, or \"latest\"")
        .required(is_required)
        .not_empty();
    add_store(command, image.store, "Look in this store instead of the known ones");
}

} // namespace qzfi::tool
