// Restoring: the new tree is made beside its place, then both are exchanged.
#include <algorithm>
#include <fcntl.h>
#include <optional>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_compare.h"
#include "fi/fi_engine_host.h"
#include "fi/fi_place.h"
#include "fi/fi_report.h"
#include "fi/fi_restore_copy.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr uint32_t most_workers = 64;

struct Plan {
    const char *operation;
    std::vector<ObjectRef> objects;
    std::vector<std::string> stores;
    std::string to, only;
    CopyOut how;
    bool digest = false;     // contents are compared, too
    bool is_restore = false; // objects may have places to be restored to; a resynchronisation looks at none
};

std::string base_name(const std::string &path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.empty() ? "root" : name;
}

std::string joined(const std::string &path, const std::string &below) {
    return below.empty() ? path : (path == "/" ? "" : path) + "/" + below;
}

// A whole path tells the object that it lies in: the one with the longest path, as they may lie within each other on
// different file systems.
void choose_part(Plan &plan, const std::string &only) {
    if (!only.starts_with('/')) {
        require(plan.objects.size() == 1, plan.operation, "a path below the object needs a tree of one object");
        plan.only = checked_subpath(only, plan.operation);
        return;
    }
    const ObjectRef *found = nullptr;
    for (const ObjectRef &one : plan.objects)
        if (lies_at_or_below(only, one.object().path) &&
            (found == nullptr || one.object().path.size() > found->object().path.size()))
            found = &one;
    require(found != nullptr, plan.operation, "the whole path of a part must lie in an object of the tree");
    const std::size_t above = found->object().path == "/" ? 0 : found->object().path.size();
    if (const std::size_t begin = only.find_first_not_of('/', above); begin != std::string::npos)
        plan.only = checked_subpath(only.substr(begin), plan.operation);
    plan.objects = {ObjectRef(*found)};
}

Plan plan_of(TreeLock &tree, const qfi_restore_options &options, Findings &report, const char *operation) {
    Plan plan{operation, objects_of(*tree), stores_of(*tree), {}, {}, {}, options.digest != 0, false};
    require(options.workers <= most_workers, operation, "at most 64 workers");
    const uint32_t workers = options.workers != 0 ? options.workers : 2;
    plan.how = {operation, workers, &tree.progress(), &report};
    if (options.to != nullptr)
        plan.to = canonical_text(options.to, operation);
    if (options.only != nullptr)
        choose_part(plan, options.only);
    uint64_t entries = 0, bytes = 0;
    for (const TreeFilesystem &filesystem : tree->filesystems) {
        const bool is_concerned = std::any_of(plan.objects.begin(), plan.objects.end(),
                                              [&](const ObjectRef &one) { return one.filesystem == &filesystem; });
        entries += is_concerned ? filesystem.record.entries : 0;
        bytes += is_concerned ? filesystem.record.bytes : 0;
    }
    tree.progress().totals(entries, bytes);
    return plan;
}

// The place is as it should be already; that the old tree lingers is told, and the next restore removes it.
void clear(Workshop &workshop, const Place &place, Findings &report) {
    KeptFailure failure;
    try {
        const Keep keep(failure);
        workshop.clear();
    } catch (const Failure &) {
        report.add({QFI_REMARK_WARNING, 0, place.path, "",
                    "what was replaced could not be removed altogether: " + failure.cause()});
    }
}

// What is there of what the image could not read, or left out as another file system that is none now: the folder
// below a mount point, say.
bool is_there(int original, const JobHost::Remark &remark) {
    const char *const below = remark.path.empty() ? "." : remark.path.c_str();
    const Descriptor entry(open_beneath(original, below, O_PATH | O_NOFOLLOW));
    const bool was_skipped = remark.kind == QFI_REMARK_SKIPPED;
    if (!entry)
        return errno != ENOENT && errno != ENOTDIR && errno != ELOOP && (errno != EXDEV || !was_skipped);
    struct stat status {};
    return !was_skipped || fstat(entry.get(), &status) != 0 ||
           (!S_ISSOCK(status.st_mode) && !is_subvolume(entry.get()) && !is_stand_in(entry.get()));
}

// What is missing in the image, or was changed there, as far as its manifest tells.
template <class Damaged>
void look_for_damage(const Plan &plan, const ObjectRef &one, Damaged &&damaged) {
    const HeldImage image(*one.filesystem, plan.operation);
    WalkOptions options;
    options.workers = plan.how.workers;
    options.digest = plan.digest && image.record().has_digests;
    options.cancelled_by = plan.how.progress;
    compare_image(image, one.index, plan.only, options, damaged, plan.operation);
}

// Nothing sound is replaced by what is damaged.
void refuse_damaged(const Plan &plan, const ObjectRef &one) {
    look_for_damage(plan, one, [&](const std::string &path, const char *how) {
        fail(message::damaged, QFI_FI_DAMAGED, plan.operation,
             {one.filesystem->record.id, joined(one.object().path, path), how});
    });
}

// Elsewhere the rest of it may be all that there is.
void remark_damage(const Plan &plan, const ObjectRef &one, Findings &report) {
    KeptFailure failure;
    try {
        const Keep keep(failure);
        look_for_damage(plan, one, [&](const std::string &path, const char *how) {
            report.add({QFI_REMARK_WARNING, 0, one.object().path, path, std::string("the image is damaged: ") + how});
        });
        return;
    } catch (const Failure &thrown) {
        if (thrown.status != QFI_FI_NO_SPACE) { // where the comparison is made, which is not where the restore is
            failure.raise_here();
            throw;
        }
    }
    report.add({QFI_REMARK_WARNING, 0, one.object().path, "",
                "the image could not be looked at for damage: " + failure.cause()});
}

// What could not be read when the image was made may be there still, and nowhere else.
void refuse_unread(const Plan &plan, const ObjectRef &one) {
    const HeldImage image(*one.filesystem, plan.operation);
    const Provider *const provider = find_provider(image.record().provider_id);
    const bool is_snapshot = provider != nullptr && provider->ops->technology == QFI_TECHNOLOGY_SNAPSHOT;
    struct stat status {};
    if (image.record().remarks == 0 && fstatat(image.directory(), report_name, &status, AT_SYMLINK_NOFOLLOW) != 0 &&
        errno == ENOENT)
        return;
    const std::string &object = one.object().path;
    const Descriptor original(open(object.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!original)
        return;
    const std::optional<StoredReport> report =
        sound_report(image.directory(), plan.operation, image.record().id, image.path());
    if (!report || !report->has_all_losses())
        fail(message::losses_unknown, QFI_STATUS_NOT_SUPPORTED, plan.operation,
             {joined(object, plan.only), image.record().id});
    for (const JobHost::Remark &remark : report->remarks) {
        if (!decides(remark) || remark.kind == QFI_REMARK_TORN || remark.kind == QFI_REMARK_VANISHED ||
            remark.object != object || !lies_at_or_below(remark.path, plan.only))
            continue;
        if (is_snapshot && remark.kind == QFI_REMARK_UNREADABLE)
            continue; // it holds what its digests could not be made of
        if (is_there(original.get(), remark))
            fail(message::would_be_lost, QFI_STATUS_NOT_SUPPORTED, plan.operation,
                 {joined(object, remark.path), image.record().id});
    }
}

void restore_in_place(const Plan &plan, const ObjectRef &one, Findings &report) {
    const HeldImage image(*one.filesystem, plan.operation);
    const Place place = open_place_below(one.object().path, plan.only, plan.operation);
    Workshop workshop(place, plan.operation);
    copy_out(image, one.index, plan.only, workshop.directory(), Workshop::tree, plan.how);
    // Looked at again, for the copy took its time.
    if (refuse_irreplaceable(place, plan.stores, plan.operation, plan.how.progress))
        workshop.exchange();
    else
        workshop.put(false);
    clear(workshop, place, report);
}

void refuse_in_store(const Place &place, const Plan &plan) {
    refuse_in_stores(place, plan.stores, "nothing is restored into a store", plan.operation);
}

void make_folder(int directory, const char *name, const std::string &path, const char *operation) {
    if (mkdirat(directory, name, 0700) != 0)
        fail_call(operation, "mkdir", path, errno, false);
}

void restore_to_new(const Plan &plan, const std::vector<ObjectRef> &objects, const std::string &path,
                    Findings &report) {
    const Place place = open_place(path, plan.operation);
    refuse_in_store(place, plan);
    const bool over_empty = refuse_existing(place, plan.operation);
    for (const ObjectRef &one : objects)
        remark_damage(plan, one, report);
    Workshop workshop(place, plan.operation);
    const HeldImage first(*objects.front().filesystem, plan.operation);
    const bool is_whole = objects.size() == 1 && is_directory(first, objects.front().index, plan.only, plan.operation);
    if (is_whole) {
        copy_out(first, objects.front().index, plan.only, workshop.directory(), Workshop::tree, plan.how);
    } else {
        make_folder(workshop.directory(), Workshop::tree, place.path, plan.operation);
        const Descriptor folder(open_beneath(workshop.directory(), Workshop::tree, O_RDONLY | O_DIRECTORY));
        if (!folder)
            fail_call(plan.operation, "open", place.path, errno, false);
        for (const ObjectRef &one : objects) {
            const HeldImage image(*one.filesystem, plan.operation);
            const std::string name = base_name(joined(one.object().path, plan.only));
            copy_out(image, one.index, plan.only, folder.get(), name.c_str(), plan.how);
        }
        if (fchmod(folder.get(), 0755) != 0)
            fail_call(plan.operation, "fchmod", place.path, errno, false);
        sync_file(folder.get(), place.path, plan.operation);
    }
    workshop.put(over_empty);
    clear(workshop, place, report);
}

void refuse_same_names(const Plan &plan) {
    std::set<std::string> names;
    for (const ObjectRef &one : plan.objects)
        if (!names.insert(base_name(one.object().path)).second)
            fail(message::already_exists, QFI_FI_EXISTS, plan.operation,
                 {plan.to + "/" + base_name(one.object().path)});
}

// Everything is looked at before anything is changed.
void refuse_in_place(const Plan &plan, bool is_dry) {
    for (const ObjectRef &one : plan.objects) {
        const std::string &to = one.object().restore_to;
        if (!to.empty()) {
            const Place place = open_place(to, plan.operation);
            refuse_in_store(place, plan);
            refuse_existing(place, plan.operation);
            if (!is_dry)
                require_changeable(place, plan.operation);
            continue;
        }
        const Place place = open_place_below(one.object().path, plan.only, plan.operation);
        refuse_in_store(place, plan); // where an id document says it was, which is anybody's
        if (!is_dry)
            require_changeable(place, plan.operation);
        refuse_irreplaceable(place, plan.stores, plan.operation, plan.how.progress);
        refuse_unread(plan, one);
        refuse_damaged(plan, one);
    }
}

const char *in_words(uint32_t change) {
    switch (change) {
    case QFI_CHANGE_ADDED: // by the original since: a restore takes it away
        return "would be removed";
    case QFI_CHANGE_REMOVED:
        return "would be made";
    case QFI_CHANGE_ATTRIBUTE:
        return "would get other owner or mode";
    default:
        return "would be replaced";
    }
}

// What becomes of sockets: none is made, a restore takes all away, and a resynchronisation leaves those alone whose
// directory stays. Differences come in order of path.
class Sockets {
public:
    explicit Sockets(const Plan &plan) : stay_(!plan.is_restore) {}
    // The change as it would be done; QFI_CHANGE_NONE for nothing.
    uint32_t change_of(const Difference &one) {
        const bool was_socket = one.old_type == QFI_ENTRY_SOCKET, is_socket = one.type == QFI_ENTRY_SOCKET;
        if (one.type == QFI_ENTRY_DIRECTORY && (one.change == QFI_CHANGE_ADDED || one.change == QFI_CHANGE_TYPE))
            going_.insert(one.path);
        if (!was_socket && !is_socket)
            return one.change;
        if (one.change == QFI_CHANGE_REMOVED)
            return QFI_CHANGE_NONE;
        if (one.change == QFI_CHANGE_TYPE)
            return was_socket ? QFI_CHANGE_ADDED : QFI_CHANGE_TYPE;
        return stay_ && !is_going(one.path) ? QFI_CHANGE_NONE : QFI_CHANGE_ADDED;
    }

private:
    bool is_going(const std::string &path) const {
        for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
            if (going_.count(path.substr(0, slash)) != 0)
                return true;
        return false;
    }
    const bool stay_;
    std::set<std::string> going_; // directories
};

// Subvolumes that the image does not have: a resynchronisation leaves them alone, with all in them. Differences come in
// order of path.
class LaterVolumes {
public:
    explicit LaterVolumes(const std::string &object)
        : original_(open(object.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {}
    bool holds(const Difference &one) {
        if (one.change != QFI_CHANGE_ADDED)
            return false;
        for (std::size_t slash = one.path.find('/'); slash != std::string::npos; slash = one.path.find('/', slash + 1))
            if (paths_.count(one.path.substr(0, slash)) != 0)
                return true;
        if (one.type != QFI_ENTRY_DIRECTORY || one.path.empty())
            return false;
        const Descriptor entry(open_beneath(original_.get(), one.path.c_str(), O_PATH | O_NOFOLLOW));
        if (!entry || !is_subvolume(entry.get()))
            return false;
        paths_.insert(one.path);
        return true;
    }

private:
    const Descriptor original_;
    std::set<std::string> paths_;
};

// Stores that this root does not know, and that must stay as the known ones do.
std::vector<std::string> found_stores(const ObjectRef &one, const std::string &path, const char *operation,
                                      Progress *progress) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 && errno == ENOENT)
        return {};
    const std::string &object = one.object().path;
    for (std::size_t end = object.size(); end < path.size(); end = std::min(path.find('/', end + 1), path.size())) {
        const std::string above = path.substr(0, end);
        require(!is_store(open_without_links(above, O_RDONLY | O_DIRECTORY, operation).get()), operation,
                "nothing is restored into a store");
    }
    const Descriptor directory = open_without_links(path, O_RDONLY | O_DIRECTORY, operation);
    std::vector<std::string> found =
        stores_within(directory.get(), path, LeftOut(*one.filesystem, path), operation, progress);
    for (const std::string &store : found)
        require(store != path, operation, "the object is a store now");
    return found;
}

void report_changes(const Plan &plan, const ObjectRef &one, Findings &report) {
    const HeldImage image(*one.filesystem, plan.operation);
    if (!plan.only.empty())
        is_directory(image, one.index, plan.only, plan.operation);
    WalkOptions options;
    options.workers = plan.how.workers;
    options.digest = plan.digest;
    options.progress = plan.how.progress;
    const std::string &object = one.object().path;
    const LeftOut left_out(*one.filesystem, object, found_stores(one, object, plan.operation, plan.how.progress));
    options.exclude = &left_out;
    Sockets sockets(plan);
    LaterVolumes volumes(object);
    compare_with_original(
        image, one.index, options,
        [&](Difference &&difference) {
            if (volumes.holds(difference)) // in the way of a restore in place
                return;
            const uint32_t change = sockets.change_of(difference);
            if (change == QFI_CHANGE_NONE || !lies_at_or_below(difference.path, plan.only))
                return;
            ++report.changed;
            report.add({QFI_REMARK_WARNING, 0, object, difference.path, in_words(change)});
        },
        plan.operation);
}

// What a restore to a new place would make there, all of it.
void report_made(const Plan &plan, const std::vector<ObjectRef> &objects, const std::string &to, Findings &report) {
    const Place place = open_place(to, plan.operation);
    refuse_in_store(place, plan);
    refuse_existing(place, plan.operation);
    for (const ObjectRef &one : objects) {
        remark_damage(plan, one, report);
        const HeldImage image(*one.filesystem, plan.operation);
        const bool is_folder = is_directory(image, one.index, plan.only, plan.operation);
        const bool is_whole = objects.size() == 1 && is_folder;
        const std::string made = is_whole ? to : to + "/" + base_name(joined(one.object().path, plan.only));
        WalkOptions options;
        options.workers = plan.how.workers;
        options.progress = plan.how.progress;
        ManifestReader entries = entries_of(image, one.index, options, plan.operation);
        ManifestEntry entry;
        while (entries.next(entry)) {
            if (!lies_at_or_below(entry.path, plan.only) || entry.type == QFI_ENTRY_SOCKET)
                continue;
            const std::size_t above = plan.only.empty() ? 0 : std::min(plan.only.size() + 1, entry.path.size());
            ++report.changed;
            report.add({QFI_REMARK_WARNING, 0, made, entry.path.substr(above), "would be made"});
        }
    }
}

void report_all_changes(const Plan &plan, Findings &report) {
    if (!plan.to.empty())
        report_made(plan, plan.objects, plan.to, report);
    for (const ObjectRef &one : plan.objects) {
        if (!plan.to.empty())
            break;
        if (one.object().restore_to.empty() || !plan.is_restore)
            report_changes(plan, one, report);
        else
            report_made(plan, {one}, one.object().restore_to, report);
    }
    report.entries = plan.how.progress->counts().entries_done;
    report.bytes = plan.how.progress->counts().bytes_done;
}

} // namespace

namespace {

// What is in the way is told when the place is looked at.
Descriptor open_original(const std::string &path, const char *operation) {
    try {
        const Hush hush;
        return open_without_links(path, O_RDONLY | O_DIRECTORY, operation);
    } catch (const Failure &) {
        return {};
    }
}

// Two that change one original would remove each other's files in the making. The lock is the directory's own, for
// there may be no right to make one beside it; where the file system has none, as over a network, there is none. Of an
// original that is not there is nothing to lock.
std::optional<FileLock> lock_original(const std::string &path, const char *operation) {
    for (int tries = 0; tries < 100; ++tries) {
        struct stat locked {
        }, present{};
        if (lstat(path.c_str(), &present) != 0 || !S_ISDIR(present.st_mode))
            return std::nullopt;
        Descriptor directory = open_original(path, operation);
        if (!directory)
            return std::nullopt;
        while (flock(directory.get(), LOCK_EX | LOCK_NB) != 0 && errno != EBADF && errno != ENOLCK &&
               errno != EOPNOTSUPP) {
            if (errno == EWOULDBLOCK)
                fail(message::busy, QFI_FI_BUSY, operation, {path});
            if (errno != EINTR)
                fail_call(operation, "flock", path, errno, false);
        }
        FileLock lock(std::move(directory));
        // A restore may have put another one in its place meanwhile.
        if (lock.status(locked) && lstat(path.c_str(), &present) == 0 && locked.st_dev == present.st_dev &&
            locked.st_ino == present.st_ino)
            return lock;
    }
    fail(message::busy, QFI_FI_BUSY, operation, {path});
}

// Of a dry run none; nor of what is restored elsewhere.
std::vector<FileLock> lock_originals(const Plan &plan, const qfi_restore_options &options) {
    std::vector<FileLock> locks;
    if (options.dry_run != 0 || !plan.to.empty())
        return locks;
    for (const ObjectRef &one : plan.objects)
        if (one.object().restore_to.empty() || !plan.is_restore)
            if (std::optional<FileLock> lock = lock_original(one.object().path, plan.operation))
                locks.push_back(std::move(*lock));
    return locks;
}

} // namespace

void restore(TreeLock &tree, const qfi_restore_options &options, Findings &report, const char *operation) {
    Plan plan = plan_of(tree, options, report, operation);
    plan.is_restore = true;
    const std::vector<FileLock> locks = lock_originals(plan, options);
    if (plan.to.empty())
        refuse_in_place(plan, options.dry_run != 0);
    else if (plan.objects.size() > 1)
        refuse_same_names(plan);
    if (options.dry_run != 0) {
        report_all_changes(plan, report);
    } else if (!plan.to.empty()) {
        restore_to_new(plan, plan.objects, plan.to, report);
    } else {
        for (const ObjectRef &one : plan.objects) {
            const std::string &to = one.object().restore_to;
            if (to.empty())
                restore_in_place(plan, one, report);
            else
                restore_to_new(plan, {one}, to, report);
        }
    }
    if (options.dry_run == 0) {
        report.changed += report.entries;
        for (const ObjectRef &one : objects_of(*tree))
            one.object().restore_to.clear(); // it was said of this restore, whatever part it was of
    }
    tree.progress().finish();
}

namespace {

// Ways to bring an existing directory up to date.
struct Update {
    const Plan &plan;
    const HeldImage &image;
    const std::string &path;
    Findings &report;
    const LeftOut &left_out;

    void through_provider(int source, const Place &place) const {
        const TreeFilesystem &filesystem = image.filesystem();
        const Provider &provider = provider_of(filesystem, plan.operation);
        if (provider.ops->resync == nullptr)
            fail(message::not_supported, QFI_STATUS_NOT_SUPPORTED, plan.operation, {provider.ops->provider_id, path});
        JobHost host(plan.operation, path, plan.how.progress);
        qfi_provider_job job{};
        job.size = sizeof job;
        job.host = host.record();
        job.object = path.c_str();
        job.source = source;
        job.target = place.parent.get();
        job.name = place.name.c_str();
        job.flags = static_cast<uint32_t>(QFI_JOB_SYNC | (plan.digest ? QFI_JOB_DIGEST : 0) |
                                          (image.includes_nested() ? QFI_JOB_NESTED : 0));
        job.workers = plan.how.workers;
        left_out.put(job);
        host.check(provider.ops->resync(&job), provider);
        report.add(host);
        report.changed += job.changed;
    }

    // A mount point, or "/", is no entry that can be reached from the directory above without leaving that one's file
    // system: the engine works on the directory itself.
    void itself(int source, int directory) const {
        EngineHost host(plan.operation, path, plan.how.progress);
        host.on_remark([&](const qfi_remark &remark) {
            report.add({remark.kind, remark.error, path, remark.path, remark.detail});
        });
        engine::Options options;
        options.data = engine::Data::clone_or_copy;
        options.workers = plan.how.workers;
        options.digest = plan.digest;
        options.nested_volumes = image.includes_nested();
        options.sync = true;
        left_out.put(options);
        const engine::Result result = engine::bring_up_to_date(source, directory, ".", options, host.record());
        host.check(result, false);
        report.entries += result.entries;
        report.bytes += result.bytes;
        report.changed += result.changed;
    }
};

bool is_mount_point(const Place &place) {
    struct statx status {};
    return statx(place.parent.get(), place.name.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS,
                 &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

void resync_directory(const Plan &plan, const ObjectRef &one, const HeldImage &image, Findings &report) {
    const std::string path = joined(one.object().path, plan.only);
    const Descriptor object = image.object(one.index);
    const Descriptor source(
        open_beneath(object.get(), plan.only.empty() ? "." : plan.only.c_str(), O_RDONLY | O_DIRECTORY));
    if (!source)
        fail_call(plan.operation, "open", path, errno, true);
    const LeftOut left_out(image.filesystem(), path, found_stores(one, path, plan.operation, plan.how.progress));
    const Update update{plan, image, path, report, left_out};
    // Opened without links, and there: what is missing is for a restore to make.
    const Descriptor original = open_without_links(path, O_RDONLY | O_DIRECTORY, plan.operation);
    if (path == "/")
        return update.itself(source.get(), original.get());
    const Place place = open_place_below(one.object().path, plan.only, plan.operation);
    if (plan.only.empty() && is_mount_point(place))
        return update.itself(source.get(), original.get());
    update.through_provider(source.get(), place);
}

} // namespace

void resync(TreeLock &tree, const qfi_restore_options &options, Findings &report, const char *operation) {
    require(options.to == nullptr, operation, "the originals are resynchronised where they are");
    const Plan plan = plan_of(tree, options, report, operation);
    const std::vector<FileLock> locks = lock_originals(plan, options);
    for (const ObjectRef &one : plan.objects) {
        if (one.object().path != "/" || !plan.only.empty()) {
            const Place place = open_place_below(one.object().path, plan.only, operation);
            if (!plan.only.empty() && is_mount_point(place))
                fail(message::irreplaceable, QFI_STATUS_NOT_SUPPORTED, operation, {place.path, "it is a mount point"});
            refuse_in_store(place, plan);
        }
        refuse_unread(plan, one);
        refuse_damaged(plan, one);
    }
    if (options.dry_run != 0) {
        report_all_changes(plan, report);
    } else {
        for (const ObjectRef &one : plan.objects) {
            const HeldImage image(*one.filesystem, operation);
            if (is_directory(image, one.index, plan.only, operation)) {
                resync_directory(plan, one, image, report);
                continue;
            }
            const Place place = open_place_below(one.object().path, plan.only, operation);
            struct stat status {};
            if (fstatat(place.parent.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                !S_ISLNK(status.st_mode))
                refuse_irreplaceable(place, plan.stores, operation, plan.how.progress);
            update_entry(image, one.index, plan.only, place.parent.get(), plan.digest, plan.how);
        }
    }
    tree.progress().finish();
}

} // namespace qzfi::fi
