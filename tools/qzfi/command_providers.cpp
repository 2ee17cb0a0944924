// qzfi providers: the providers that are loaded, and the plugins that were refused, with the reason.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/providers.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    bool json = false;
};

Json json_of(const std::vector<Provider> &providers) {
    Json loaded = Json::array();
    std::vector<Provider> refused;
    for (const Provider &provider : providers) {
        if (provider.is_loaded)
            loaded.push_back({{"id", provider.id},
                              {"method", provider.method},
                              {"technology", technology_name(provider.technology)},
                              {"consistency", consistency_name(provider.consistency)},
                              {"preference", provider.preference},
                              {"description", json_text(provider.description)}});
        else
            refused.push_back(provider);
    }
    return {{"providers", std::move(loaded)}, {"refused", json_of_refused(refused)}};
}

void print_table(const std::vector<Provider> &providers) {
    Table table({{"PROVIDER", Align::left, true},
                 {"STATE"},
                 {"METHOD"},
                 {"CONSISTENCY"},
                 {"DESCRIPTION, OR WHY REFUSED", Align::left, true, true}});
    for (const Provider &provider : providers)
        table.add({printable(provider.id), provider.is_loaded ? "loaded" : "refused",
                   provider.is_loaded ? printable(provider.method) : "-",
                   provider.is_loaded ? consistency_name(provider.consistency) : "-", printable(provider.description)});
    table.print();
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const std::vector<Provider> providers = find_providers();
    if (options.json)
        print(json_of(providers));
    else if (!providers.empty())
        print_table(providers);
    else if (!settings.quiet)
        std::cerr << "no providers; `qzfi doctor` tells more\n";
    return exit_done;
}

} // namespace

void add_providers(CommandLine &line) {
    add_command<Options>(line, "providers", "List providers, and plugins that were refused", run,
                         [](Arguments &command, Options &options) { add_json(command, options.json); });
}

} // namespace qzfi::tool
