// qzfi methods: what could freeze directories, how well, at what cost, and why the rest cannot.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/providers.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"
#include "tools/qzfi/trees.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::vector<std::string> paths;
    std::string store;
    bool json = false;
};

using Combos = std::unique_ptr<qfi_qs_combo, Releaser<qzfiapi_free_combos>>;

std::string attribute(const qfi_domain *node, const char *name) {
    Text text;
    check(qfi_op_getattr(node, name, nullptr, Out(text)), std::string("ask for a file system's ") + name);
    return text ? text.get() : "";
}

// The best of a file system stands first.
Json json_of(const qfi_qs_combo *combos) {
    Json methods = Json::array();
    const qfi_domain *earlier = nullptr;
    for (; combos != nullptr; combos = combos->qsc_next) {
        const auto &info = *static_cast<const qfi_combo_info *>(combos->qsc_libpriv);
        const bool can = info.reason == nullptr;
        methods.push_back({{"filesystem", json_text(attribute(info.node, "mountpoint"))},
                           {"type", json_text(attribute(info.node, "filesystem"))},
                           {"method", info.fim_id},
                           {"provider", info.provider_id},
                           {"can", can},
                           {"best", can && info.node != earlier},
                           {"consistency", consistency_name(info.consistency)},
                           {"cost_bytes", info.cost_bytes},
                           {"cost_ms", info.cost_ms},
                           {"store", json_text(info.store)},
                           {"reason", can ? Json() : Json(json_text(info.reason))}});
        earlier = info.node;
    }
    return methods;
}

void print_table(const qfi_qs_combo *combos) {
    Table table({{"METHOD"},
                 {"FILE SYSTEM", Align::left, true},
                 {"CAN"},
                 {"CONSISTENCY"},
                 {"COST", Align::right},
                 {"TIME", Align::right},
                 {"STORE", Align::left, true},
                 {"WHY NOT", Align::left, true, true}});
    for (; combos != nullptr; combos = combos->qsc_next) {
        const auto &info = *static_cast<const qfi_combo_info *>(combos->qsc_libpriv);
        const bool can = info.reason == nullptr;
        const std::string filesystem =
            attribute(info.node, "mountpoint") + " (" + attribute(info.node, "filesystem") + ")";
        table.add({info.fim_id, printable(filesystem), can ? "yes" : "no",
                   can ? consistency_name(info.consistency) : "-", can ? size_text(info.cost_bytes) : "-",
                   can ? duration_text(info.cost_ms * 1000000) : "-", printable(info.store),
                   can ? "" : printable(info.reason)});
    }
    table.print();
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const Tree tree = tree_of(options.paths);
    Combos combos;
    check(qfi_op_analyze(tree.get(), or_null(options.store), Out(combos), 0),
          "find methods for " + joined(options.paths));
    const std::vector<Provider> refused = refused_providers();
    if (options.json)
        print(Json{{"methods", json_of(combos.get())}, {"refused", json_of_refused(refused)}});
    else if (combos)
        print_table(combos.get());
    else if (!settings.quiet)
        std::cerr << "no methods: no provider is loaded; `qzfi doctor` tells more\n";
    if (!options.json && !settings.quiet)
        tell_refused(refused);
    return exit_done;
}

} // namespace

void add_methods(CommandLine &line) {
    add_command<Options>(
        line, "methods", "Tell what could freeze directories, and why the rest cannot", run,
        [](Arguments &command, Options &options) {
            command.add_option("PATH", options.paths, "Directories, as for freeze").required().not_empty();
            add_store(command, options.store, "A store instead of each method's own");
            add_json(command, options.json);
        });
}

} // namespace qzfi::tool
