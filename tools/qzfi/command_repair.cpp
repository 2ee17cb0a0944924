// qzfi repair: removes what a crash left in the stores, and tells what is damaged there.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/stores.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::string store, forgotten;
    bool json = false;
};

void print_text(const qfi_report &report, const std::vector<Store> &stores) {
    std::cout << (report.changed == 0 ? "no debris was removed"
                                      : grouped(report.changed) + " half-made image" +
                                            (report.changed == 1 ? " was removed" : "s were removed"))
              << '\n';
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        std::cout << "damaged: image " << item.path << " in store " << printable(item.object) << ": "
                  << printable(item.detail) << "; `qzfi rm` forgets it\n";
    }
    for (const Store &store : stores)
        if (store.debris > 0)
            std::cout << "left: " << grouped(store.debris) << " half-made in store " << printable(store.path)
                      << ": still being made, or could not be removed\n";
}

Json damaged_json(const qfi_report &report) {
    Json damaged = Json::array();
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        damaged.push_back(
            {{"id", json_text(item.path)}, {"store", json_text(item.object)}, {"detail", json_text(item.detail)}});
    }
    return damaged;
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    if (!options.forgotten.empty()) {
        check(qfi_op_objctl(nullptr, QFI_OBJCTL_FORGET, options.forgotten.c_str(), nullptr),
              "forget store " + options.forgotten);
        return exit_done;
    }
    const Interruptible interruptible;
    Report report;
    const std::string action = options.store.empty() ? "repair the known stores" : "repair store " + options.store;
    check(qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, or_null(options.store), Out(report)), action);
    check_interrupted(action);
    const std::vector<Store> stores = find_stores(options.store);
    if (options.json) {
        Json list = Json::array();
        for (const Store &store : stores)
            list.push_back(json_of(store));
        print(Json{{"removed", report->changed}, {"damaged", damaged_json(*report)}, {"stores", std::move(list)}});
    } else {
        print_text(*report, stores);
    }
    const int code = tell_unusable(stores);
    return report->count > 0 ? exit_differs : code;
}

} // namespace

void add_repair(CommandLine &line) {
    add_command<Options>(line, "repair", "Remove what a crash left in the stores, and tell what is damaged", run,
                         [](Arguments &command, Options &options) {
                             add_store(command, options.store, "Only this store; else all known ones");
                             add_json(command, options.json);
                             command
                                 .add_directory("--forget", options.forgotten,
                                                "Only this: know a store no longer; what lies in it stays")
                                 .excludes("--store")
                                 .excludes("--json");
                         });
}

} // namespace qzfi::tool
