// qzfi repair: removes what a crash left in the stores, and tells what is damaged there.
#include <algorithm>
#include <iostream>
#include <set>
#include <string_view>

#include <qzfi_provider.h>

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

// Else it waits for another store of its set.
bool is_damaged(const qfi_report_item &item) {
    return item.kind != QFI_REMARK_SKIPPED;
}

void print_text(const qfi_report &report, const std::vector<Store> &stores) {
    std::cout << (report.changed == 0 ? "no debris was removed"
                                      : grouped(report.changed) + " half-made image" +
                                            (report.changed == 1 ? " was removed" : "s were removed"))
              << '\n';
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        std::cout << (is_damaged(item) ? "damaged" : "waiting") << ": image " << item.path << " in store "
                  << printable(item.object) << ": " << printable(item.detail)
                  << (is_damaged(item) ? "; `qzfi rm` forgets it\n" : "\n");
    }
    if (report.count > report.shown)
        std::cout << "and " << grouped(report.count - report.shown) << " more\n";
    for (const Store &store : stores)
        if (store.debris > 0)
            std::cout << "left: " << grouped(store.debris) << " half-made in store " << printable(store.path)
                      << ": still being made, or could not be removed\n";
}

Json images_json(const qfi_report &report, bool damaged) {
    Json images = Json::array();
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        if (is_damaged(item) == damaged)
            images.push_back(
                {{"id", json_text(item.path)}, {"store", json_text(item.object)}, {"detail", json_text(item.detail)}});
    }
    return images;
}

bool is_usable(const Store &store) {
    return store.status == QFI_STATUS_OK;
}

// Without the operation, which stands first.
std::string_view bare(const std::string &cause) {
    const std::size_t place = cause.find(": ");
    return std::string_view(cause).substr(place == std::string::npos ? 0 : place + 2);
}

// What failed beyond what is told of the stores that cannot be used.
void tell_further(const Failure &failure, const std::vector<Store> &stores) {
    std::set<std::string_view> told;
    for (const Store &store : stores)
        for (const std::string &cause : store.causes)
            told.insert(bare(cause));
    std::vector<std::string> causes = failure.causes();
    std::erase_if(causes, [&](const std::string &cause) { return told.count(bare(cause)) > 0; });
    if (causes.size() == failure.causes().size())
        tell(failure);
    else if (!causes.empty()) // its status may be that of what is told already
        tell(Failure("repair the known stores: not all could be repaired", exit_failed, std::move(causes)));
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
    // First of all: to look at a store removes debris, too, and says nothing of it.
    const int32_t status = qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, or_null(options.store), Out(report));
    check_interrupted(action);
    const Failure failure = failure_of(status, action);
    const std::vector<Store> stores = find_stores(options.store);
    const bool has_usable = stores.empty() || std::any_of(stores.begin(), stores.end(), is_usable);
    // A store that fails is no reason to keep silent about the others, but for the one that was named.
    if (!report || (status != QFI_STATUS_OK && !has_usable && !options.store.empty()))
        throw Failure(failure);
    if (options.json) {
        print(Json{{"removed", report->changed},
                   {"damaged", images_json(*report, true)},
                   {"waiting", images_json(*report, false)},
                   {"stores", json_of(stores)}});
    } else if (has_usable) {
        print_text(*report, stores);
    }
    int code = tell_unusable(stores);
    if (status != QFI_STATUS_OK) {
        code = exit_failed;
        tell_further(failure, stores);
    }
    const bool has_damaged = std::any_of(report->items, report->items + report->shown, is_damaged);
    return has_damaged ? exit_differs : code;
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
