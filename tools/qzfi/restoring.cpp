#include "tools/qzfi/restoring.h"

#include <filesystem>
#include <iostream>
#include <optional>
#include <sys/stat.h>

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

// What lies at a path, to tell later whether that was replaced.
struct Occupant {
    std::string path;
    std::optional<std::pair<dev_t, ino_t>> what;
};

Occupant occupant_of(const std::string &path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        return {path, std::nullopt};
    return {path, std::make_pair(status.st_dev, status.st_ino)};
}

bool was_replaced(const Occupant &before) {
    return occupant_of(before.path).what != before.what;
}

// Whoever stands in what is replaced sees the old tree, which is removed; so do the programs that work there.
std::optional<Occupant> working_folder() {
    std::error_code error;
    const std::string path = std::filesystem::current_path(error).string();
    if (error)
        return std::nullopt;
    return occupant_of(path);
}

std::vector<Occupant> originals_of(const qfi_domain *tree) {
    std::vector<Occupant> originals;
    for (const qfi_domain *const object : object_nodes(tree))
        originals.push_back(occupant_of(node_text(object, "path")));
    return originals;
}

// Of several objects each is replaced at once, but one after the other.
Failure with_what_was_done(const Failure &failure, const std::vector<Occupant> &originals) {
    std::vector<std::string> done, left;
    for (const Occupant &original : originals)
        (was_replaced(original) ? done : left).push_back(original.path);
    std::vector<std::string> causes = failure.causes();
    if (!done.empty())
        causes.push_back("replaced before that: " + joined(done) + (left.empty() ? "" : "; not: " + joined(left)));
    return Failure(failure.what(), failure.code(), std::move(causes));
}

// A part goes into the folder that it was in; when that is gone too, more has to come back.
[[noreturn]] void fail_without_folder(const std::string &action, int32_t status, const std::optional<Place> &part,
                                      const std::string &to) {
    std::vector<std::string> causes = take_errors();
    std::error_code error;
    const std::filesystem::path object = part ? node_text(part->object, "path") : "";
    if (part && to.empty() && std::filesystem::is_directory(object, error)) {
        std::filesystem::path gone;
        for (const auto &name : std::filesystem::path(part->below).parent_path())
            if (std::filesystem::exists(object / gone, error))
                gone /= name;
        if (!std::filesystem::exists(object / gone, error))
            causes.push_back("the folder it lies in is gone too: take back all of that by --only " + gone.string() +
                             ", or this alone by `qzfi restore --to`, or `qzfi cat`");
    }
    throw Failure(action + ": " + status_text(status), exit_failed, std::move(causes));
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
    const std::optional<Occupant> folder = working_folder();
    const std::vector<Occupant> originals = originals_of(tree.get());
    Report report;
    {
        const Interruptible interruptible;
        const ShownProgress progress(settings.quiet, kind.name);
        const int32_t status = kind.operation(tree.get(), &how, Out(report));
        if (status == QFI_FI_NO_SUCH_OBJECT)
            fail_without_folder(action, status, part, to);
        try {
            check(status, action);
        } catch (const Failure &failure) {
            throw with_what_was_done(failure, originals);
        }
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
    if (!options.json && !settings.quiet && folder && was_replaced(*folder))
        std::cerr << "you are in a folder that was replaced: cd " << printable(folder->path)
                  << " goes to the new one\n";
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
    command.add_flag("-y,--yes", options.yes, "Do not ask before replacing");
    add_json(command, options.json);
}

} // namespace qzfi::tool
