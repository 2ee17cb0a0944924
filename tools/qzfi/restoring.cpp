#include "tools/qzfi/restoring.h"

#include <iostream>
#include <optional>

#include "tools/qzfi/done.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Kind {
    const char *name, *asked, *asked_with; // "Replace PATH by IMAGE"
    int32_t (*operation)(qfi_domain *, const qfi_restore_options *, qfi_report **);
};
constexpr Kind restoring = {"restore", "Replace ", " by image ", qfi_op_restore},
               resyncing = {"resync", "Make ", " equal to image ", qfi_op_resync};

// What would be changed, one line each: a dry run's report says nothing else.
void print_plan(const qfi_report &report) {
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        std::cout << printable(path_below(item.object, item.path) + ": " + item.detail) << '\n';
    }
    if (report.count > report.shown)
        std::cout << "and " << grouped(report.count - report.shown) << " more\n";
    if (report.count == 0)
        std::cout << "nothing would be changed\n";
}

std::string question(const Kind &kind, const std::string &what, const ImageName &name) {
    const ImageList images = find_images(name);
    return kind.asked + what + kind.asked_with + name.id + " of " + time_text(images->image.time) +
           host_text(images->image) + "? What was changed there since is lost.";
}

int run(const Settings &settings, const RestoreOptions &options, const Kind &kind) {
    const Session session(settings);
    const ImageName name{whole_id(options.image), options.image.store};
    const Tree tree = open_tree(name);
    std::optional<Place> part;
    if (!options.only.file.empty() || options.only.object > 0)
        part = find_place(tree.get(), options.only);
    const std::string only = part ? part_name(tree.get(), *part) : "";
    const std::string to =
        options.to.empty() ? "" : absolute_path(options.to, "restore image " + name.id + " to " + options.to);
    const std::string what = part ? path_in_original(*part) : objects_text(tree.get());
    const std::string action =
        std::string(kind.name) + " " + what + (to.empty() ? "" : " to " + to) + " from image " + name.id;
    if (!options.dry_run && to.empty() && !confirm(question(kind, what, name), options.yes))
        throw Failure(action + ": not confirmed, nothing was changed");
    qfi_restore_options how;
    QFI_INIT(how);
    how.workers = options.workers;
    how.to = or_null(to);
    how.only = or_null(only);
    how.digest = options.digest;
    how.dry_run = options.dry_run;
    Report report;
    {
        const Interruptible interruptible;
        const ShownProgress progress(settings.quiet, kind.name);
        check(kind.operation(tree.get(), &how, Out(report)), action);
    }
    if (options.json) {
        print(Json{{"id", name.id},
                   {"to", to.empty() ? Json() : Json(json_text(to))},
                   {"object", part ? Json(json_text(node_text(part->object, "path"))) : Json()},
                   {"only", part && !part->below.empty() ? Json(json_text(part->below)) : Json()},
                   {"dry_run", options.dry_run},
                   {"report", json_of(*report)}});
    } else if (options.dry_run) {
        print_plan(*report);
    } else if (!settings.quiet) {
        std::cout << printable(to.empty() ? what : to) << ": " << counted(report->changed, "entry", "entries")
                  << " changed\n";
    }
    if (!options.json && !options.dry_run && !settings.quiet)
        print_remarks(*report);
    if (!options.dry_run)
        tell_unheard((to.empty() ? what : to) + (to.empty() ? " was made equal to" : " was made from") + " image " +
                     name.id);
    return exit_done;
}

} // namespace

int run_restore(const Settings &settings, const RestoreOptions &options) {
    return run(settings, options, restoring);
}

int run_resync(const Settings &settings, const RestoreOptions &options) {
    return run(settings, options, resyncing);
}

void add_restoring(Arguments &command, RestoreOptions &options) {
    add_image(command, options.image);
    command.add_option("--only", options.only.file, "Only what lies there: below the object, or the original's path")
        .type_name("SUB")
        .not_empty();
    add_object(command, options.only.object);
    command.add_flag("--dry-run", options.dry_run, "Only list what would be changed");
    command.add_flag("--digest", options.digest, "Compare data too where sizes and times agree");
    add_workers(command, options.workers);
    add_yes(command, options.yes);
    add_json(command, options.json);
}

} // namespace qzfi::tool
