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

// What is said of an image.
struct Finding {
    uint32_t kind;
    const char *word, *cure;
};
constexpr Finding damaged{QFI_REMARK_WARNING, "damaged", "; `qzfi rm` forgets it"};
constexpr Finding waiting{QFI_REMARK_SKIPPED, "waiting", ""}; // for another store of its set
constexpr Finding unknown{QFI_REMARK_UNREADABLE, "unknown", ""};

bool is_well(const qfi_report_item &item) {
    return item.kind == waiting.kind;
}

std::string counted(uint64_t count, const char *kind, const char *what) {
    return grouped(count) + kind + (count == 1 ? "image was " : "images were ") + what + "\n";
}

void print_text(const qfi_report &report, const std::vector<Store> &stores) {
    std::cout << (report.changed == 0 ? "no debris was removed\n" : counted(report.changed, " half-made ", "removed"));
    if (report.entries != 0)
        std::cout << counted(report.entries, " ", "not in the catalog, and taken in again");
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        const Finding &finding = item.kind == waiting.kind ? waiting : item.kind == unknown.kind ? unknown : damaged;
        std::cout << finding.word << ": image " << item.path << " in store " << printable(item.object) << ": "
                  << printable(item.detail) << finding.cure << '\n';
    }
    if (report.count > report.shown)
        std::cout << "and " << grouped(report.count - report.shown) << " more\n";
    for (const Store &store : stores)
        if (store.debris > 0)
            std::cout << "left: " << grouped(store.debris) << " half-made in store " << printable(store.path)
                      << ": still being made, or could not be removed\n";
}

Json images_json(const qfi_report &report, const Finding &finding) {
    Json images = Json::array();
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        if (item.kind == finding.kind)
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
                   {"taken_in", report->entries},
                   {"damaged", images_json(*report, damaged)},
                   {"waiting", images_json(*report, waiting)},
                   {"unknown", images_json(*report, unknown)},
                   {"stores", json_of(stores)}});
    } else if (has_usable) {
        print_text(*report, stores);
    }
    int code = tell_unusable(stores);
    if (status != QFI_STATUS_OK) {
        code = exit_failed;
        tell_further(failure, stores);
    }
    return std::all_of(report->items, report->items + report->shown, is_well) ? code : exit_differs;
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
