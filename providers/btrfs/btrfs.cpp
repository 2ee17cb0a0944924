// The provider "btrfs": an image is a read-only snapshot of the subvolume that holds the object.
//
// The snapshot is all of the subvolume; the object's place in it is looked up in the snapshot, where nothing moves.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "providers/btrfs/subvolume.h"
#include "providers/engine/engine_provider.h"

namespace {

using namespace qzfi;
using btrfs::Subvolume;
using provider::Descriptor;
using provider::fail_read;
using provider::fail_write;
using provider::remark;

// A commit of the file system, and what it writes of metadata.
constexpr uint64_t snapshot_bytes = 65536;
constexpr uint64_t snapshot_ms = 20;

void probe_subvolume(int source, int store, uint32_t flags, qfi_probe &out) {
    if (!btrfs::is_btrfs(source))
        return provider::refuse(out, "it is not on a Btrfs file system");
    const Descriptor root = btrfs::open_root(source);
    if (!root)
        return provider::refuse(out, errno == EXDEV ? "the root of its subvolume is not mounted above it"
                                                    : "its subvolume cannot be opened: " + provider::words_of(errno));
    if (const std::string obstacle = provider::store_obstacle(source, store); !obstacle.empty())
        return provider::refuse(out, obstacle);
    if (store >= 0 && !provider::same_file_system(source, store))
        return provider::refuse(out, "the store is on another file system than the object, and snapshots are not");
    if (!btrfs::may_snapshot(root.get()))
        return provider::refuse(out, "only root and the owner of a subvolume may make a snapshot of it");
    std::vector<Subvolume> nested;
    const bool several =
        (flags & QFI_JOB_NESTED) != 0 && (btrfs::nested_in(root.get(), nested) != 0 || !nested.empty());
    out.combo_class = several ? QFI_SERIAL_FS : QFI_ATOMIC_FS;
    out.consistency = several ? QFI_CONSISTENCY_PER_FILE : QFI_CONSISTENCY_ATOMIC;
    out.cost_bytes = snapshot_bytes;
    out.cost_ms = snapshot_ms;
    out.same_instant = several ? 0 : 1;
    // A snapshot takes no time, but all of it is read for digests.
    if ((flags & QFI_JOB_DIGEST) != 0)
        provider::foretell(out, provider::estimate(source, store, flags), flags, true);
}

int32_t probe(int source, int store, const char *, uint32_t flags, qfi_probe *result) {
    return provider::fenced_probe(source, result, [&](qfi_probe &out) { probe_subvolume(source, store, flags, out); });
}

/// Empties subvolumes and removes the empty ones, the innermost first, which needs no right but to write.
int32_t empty_all(const qfi_provider_job &job, int image) {
    std::vector<Subvolume> nested;
    if (const int error = btrfs::nested_in(image, nested); error != 0)
        return fail_read(job, "listing subvolumes", "", error);
    for (auto one = nested.rbegin(); one != nested.rend(); ++one) {
        const auto [parent, name] = btrfs::split_path(one->path);
        const Descriptor directory = provider::open_directory(image, parent);
        if (!directory)
            return fail_read(job, "openat2", one->path, errno);
        const auto result = engine::remove_tree(directory.get(), name.c_str(), engine::Options(), *job.host);
        if (result.status != QFI_STATUS_OK)
            return result.status;
    }
    return provider::remove_tree(job);
}

/// Removes `name`, a subvolume with others in it or an ordinary tree. A user who may not delete subvolumes may empty
/// one and remove the empty one.
int32_t remove_any(const qfi_provider_job &job) {
    const Descriptor image(openat(job.target, job.name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!image || !btrfs::is_subvolume(image.get()))
        return provider::remove_tree(job);
    std::string failed;
    int error = btrfs::delete_subvolumes(image.get(), job.target, job.name, failed);
    if (error == EPERM || error == EACCES)
        return empty_all(job, image.get());
    if (error != 0)
        return fail_write(job, "BTRFS_IOC_SNAP_DESTROY", failed, error);
    if ((job.flags & QFI_JOB_SYNC) != 0)
        error = btrfs::sync(job.target);
    return error == 0 ? QFI_STATUS_OK : fail_write(job, "BTRFS_IOC_WAIT_SYNC", "", error);
}

void discard(const qfi_provider_job &job) {
    const qfi_provider_host host = provider::quiet(*job.host);
    qfi_provider_job removal = job;
    removal.host = &host;
    remove_any(removal);
}

/// The job's host behind one that says nothing twice: the engine too meets the nested subvolumes that were skipped.
struct Listener {
    const qfi_provider_host *host;
    const std::set<std::string> &said;

    qfi_provider_host record() {
        return {sizeof(qfi_provider_host), this, take_entry, take_remark, take_progress, take_failure};
    }

private:
    static const Listener &self(void *context) { return *static_cast<const Listener *>(context); }
    static int32_t take_entry(void *context, const qfi_entry *entry) {
        return self(context).host->entry(self(context).host->context, entry);
    }
    static void take_remark(void *context, const qfi_remark *remark) {
        if (remark->kind != QFI_REMARK_SKIPPED || !self(context).said.contains(remark->path))
            self(context).host->remark(self(context).host->context, remark);
    }
    static int32_t take_progress(void *context, uint64_t entries, uint64_t bytes) {
        return self(context).host->progress(self(context).host->context, entries, bytes);
    }
    static void take_failure(void *context, const char *operation, const char *object, int32_t error) {
        self(context).host->fail(self(context).host->context, operation, object, error);
    }
};

/// A snapshot in place of the empty directory that stands there; the directory around it keeps its times. Not 0: the
/// errno.
int fill_in(int frozen, int directory, const char *name) {
    struct stat before {};
    if (fstat(directory, &before) != 0 || unlinkat(directory, name, AT_REMOVEDIR) != 0)
        return errno;
    const int error = btrfs::snapshot(frozen, directory, name, false);
    const timespec times[] = {before.st_atim, before.st_mtim};
    return error == 0 && futimens(directory, times) != 0 ? errno : error;
}

/// Making a snapshot of one object: of its subvolume, and of those nested in the object.
class Freezing {
public:
    explicit Freezing(const qfi_provider_job &job) : job_(job) {}

    int32_t run(std::string &place) {
        if (const int32_t status = open(); status != QFI_STATUS_OK)
            return status;
        const int earlier = earlier_ ? earlier_.get() : root_.get();
        if (const int error = btrfs::snapshot(earlier, job_.target, job_.name, !to_be_changed()); error != 0)
            return fail_write(job_, "BTRFS_IOC_SNAP_CREATE_V2", "", error);
        image_ = provider::open_directory(job_.target, job_.name);
        if (!image_)
            return fail_read(job_, "openat2", "", errno);
        const auto found = btrfs::place_of(job_.source, root_.get(), image_.get());
        if (!found)
            return fail_read(job_, "looking the object up in its snapshot", "", errno);
        place = *found;
        if (const int32_t status = complete(place); status != QFI_STATUS_OK)
            return status;
        return walk(place);
    }

    /// Once it ran: nested subvolumes, if any, are of instants of their own.
    bool is_of_same_instant() const { return earlier_ && nested_included_ == 0; }

private:
    bool with_nested() const { return (job_.flags & QFI_JOB_NESTED) != 0; }
    bool to_be_changed() const { return !stores_inside_.empty() || (with_nested() && !nested_.empty()); }

    int32_t open() {
        root_ = btrfs::open_root(job_.source);
        if (!root_)
            return fail_read(job_, "opening the subvolume", "", errno);
        if (const int error = btrfs::nested_in(root_.get(), nested_); error != 0)
            remark(job_, QFI_REMARK_WARNING, "", "nested subvolumes cannot be listed; they are not included", error);
        struct stat object {};
        if (fstat(job_.source, &object) != 0)
            return fail_read(job_, "fstat", "", errno);
        open_earlier();
        for (uint32_t index = 0; index < job_.excluded_count; ++index)
            if (btrfs::open_above(job_.excluded[index].directory, object.st_dev, object.st_ino))
                stores_inside_.push_back(job_.excluded[index]);
        return QFI_STATUS_OK;
    }

    /// A snapshot of an earlier object's image is of that one's instant. It holds this object unless that came since.
    void open_earlier() {
        if (job_.earlier == nullptr)
            return;
        earlier_ = provider::open_directory(job_.target, job_.earlier);
        if (!earlier_ || !btrfs::is_snapshot_of(earlier_.get(), root_.get()) ||
            !btrfs::place_of(job_.source, root_.get(), earlier_.get()))
            earlier_ = Descriptor();
    }

    /// Nested subvolumes of the object, and the stores out of it; then nothing changes any more.
    int32_t complete(const std::string &place) {
        if (const int32_t status = leave_out_stores(root_.get(), image_.get()); status != QFI_STATUS_OK)
            return status;
        std::vector<std::string> included = {""};
        for (const Subvolume &one : nested_) {
            const auto path = btrfs::below(place, one.path);
            if (!path || in_store(one.path))
                continue;
            if (!with_nested())
                skip(*path);
            else if (const int32_t status = include(one, *path, included); status != QFI_STATUS_OK)
                return status;
        }
        if (included.size() > 1)
            remark(job_, QFI_REMARK_WARNING, "", "nested subvolumes were frozen one after the other");
        return to_be_changed() ? close_all(included) : QFI_STATUS_OK;
    }

    void skip(const std::string &path) {
        remark(job_, QFI_REMARK_SKIPPED, path, "nested subvolume not included");
        skipped_.insert(path);
    }

    int32_t include(const Subvolume &nested, const std::string &path, std::vector<std::string> &included) {
        const Descriptor live = provider::open_directory(root_.get(), nested.path);
        if (!live || btrfs::id_of(live.get()) != nested.id) {
            remark(job_, QFI_REMARK_VANISHED, path, "nested subvolume is gone or cannot be opened", live ? 0 : errno);
            return QFI_STATUS_OK;
        }
        const auto [parent, name] = btrfs::split_path(nested.path);
        const Descriptor directory = provider::open_directory(image_.get(), parent);
        struct stat before {}; // the directory around it keeps its times
        // In a snapshot an empty directory stands where a nested subvolume is.
        if (!directory || fstat(directory.get(), &before) != 0 ||
            unlinkat(directory.get(), name.c_str(), AT_REMOVEDIR) != 0) {
            remark(job_, QFI_REMARK_SKIPPED, path, "nested subvolume came or moved after the instant", errno);
            return QFI_STATUS_OK;
        }
        if (const int error = btrfs::snapshot(live.get(), directory.get(), name.c_str(), false); error != 0)
            return fail_write(job_, "BTRFS_IOC_SNAP_CREATE_V2", path, error);
        const timespec times[] = {before.st_atim, before.st_mtim};
        if (futimens(directory.get(), times) != 0)
            return fail_write(job_, "futimens", path, errno);
        included.push_back(nested.path);
        ++nested_included_;
        const Descriptor made = provider::open_directory(directory.get(), name);
        if (!made)
            return fail_read(job_, "openat2", path, errno);
        return leave_out_stores(live.get(), made.get());
    }

    int32_t leave_out_stores(int live, int snapshot) {
        struct stat status {};
        if (fstat(live, &status) != 0)
            return fail_read(job_, "fstat", "", errno);
        for (const qfi_excluded &store : stores_inside_)
            if (store.device == status.st_dev)
                if (const int32_t left = leave_out_store(store, live, snapshot); left != QFI_STATUS_OK)
                    return left;
        return QFI_STATUS_OK;
    }

    /// Removes a store's directory from a snapshot of the subvolume that holds it.
    int32_t leave_out_store(const qfi_excluded &store, int live, int snapshot) {
        const auto place = btrfs::place_of(store.directory, live, snapshot);
        if (!place && errno != ENOENT)
            return fail_read(job_, "looking a store up in the snapshot", "", errno);
        if (!place || place->empty())
            return QFI_STATUS_OK;
        const auto [parent, name] = btrfs::split_path(*place);
        const Descriptor directory = provider::open_directory(snapshot, parent);
        if (!directory)
            return fail_read(job_, "openat2", *place, errno);
        remove_stand_ins(live, snapshot, *place);
        return engine::remove_tree(directory.get(), name.c_str(), engine::Options(), provider::failing_only(*job_.host))
            .status;
    }

    /// Removes the empty directories that stand for the store's images; to the engine they are another file system.
    /// Those of images that came or went since the instant are among those listed before it or now.
    void remove_stand_ins(int live, int snapshot, const std::string &store) {
        std::vector<Subvolume> images;
        btrfs::nested_in(live, images); // what is missed fails the removal of the store
        images.insert(images.end(), nested_.begin(), nested_.end());
        for (const Subvolume &image : images) {
            if (!btrfs::below(store, image.path))
                continue;
            const auto [parent, name] = btrfs::split_path(image.path);
            const Descriptor directory = provider::open_directory(snapshot, parent);
            if (directory)
                unlinkat(directory.get(), name.c_str(), AT_REMOVEDIR);
        }
    }

    bool is_store(const struct stat &status) const {
        for (uint32_t index = 0; index < job_.excluded_count; ++index)
            if (job_.excluded[index].inode == status.st_ino && job_.excluded[index].device == status.st_dev)
                return true;
        return false;
    }

    /// A subvolume below a store is an image, not a part of the object.
    bool in_store(const std::string &path) {
        if (job_.excluded_count == 0)
            return false;
        for (const std::string &store : store_paths_)
            if (btrfs::below(store, path))
                return true;
        for (std::size_t end = path.find('/');; end = path.find('/', end + 1)) {
            const std::string part = path.substr(0, end);
            const Descriptor directory = provider::open_directory(root_.get(), part);
            struct stat status {};
            if (!directory || fstat(directory.get(), &status) != 0)
                return false;
            if (is_store(status)) {
                store_paths_.push_back(part);
                return true;
            }
            if (end == std::string::npos)
                return false;
        }
    }

    /// The innermost first: a subvolume in a read-only one could not be opened for the change.
    int32_t close_all(const std::vector<std::string> &included) {
        for (auto path = included.rbegin(); path != included.rend(); ++path) {
            const Descriptor one = provider::open_directory(image_.get(), *path);
            const int error = one ? btrfs::set_read_only(one.get(), true) : errno;
            if (error != 0)
                return fail_write(job_, "BTRFS_IOC_SUBVOL_SETFLAGS", *path, error);
        }
        return QFI_STATUS_OK;
    }

    int32_t walk(const std::string &place) {
        if ((job_.flags & (QFI_JOB_DIGEST | QFI_JOB_MANIFEST)) == 0)
            return QFI_STATUS_OK;
        const Descriptor object = provider::open_directory(image_.get(), place);
        if (!object)
            return fail_read(job_, "openat2", "", errno);
        engine::Options options = provider::options_of(job_, engine::Data::copy);
        options.excluded_count = 0; // the frozen tree does not hold the stores
        Listener listener{job_.host, skipped_};
        const qfi_provider_host host = listener.record();
        return engine::walk_tree(object.get(), options, host).status;
    }

    const qfi_provider_job &job_;
    std::set<std::string> skipped_;
    Descriptor root_, image_, earlier_;
    std::vector<qfi_excluded> stores_inside_;
    std::vector<Subvolume> nested_;
    std::vector<std::string> store_paths_;
    std::size_t nested_included_ = 0;
};

int32_t sync_if_asked(const qfi_provider_job &job) {
    if ((job.flags & QFI_JOB_SYNC) == 0)
        return QFI_STATUS_OK;
    const int error = btrfs::sync(job.target);
    return error == 0 ? QFI_STATUS_OK : fail_write(job, "BTRFS_IOC_WAIT_SYNC", "", error);
}

int32_t freeze(qfi_provider_job &job) {
    if (const int error = provider::taken(job); error != 0)
        return fail_write(job, "fstatat", "", error);
    if (job.host->progress(job.host->context, 0, 0) != 0)
        return QFI_FI_CANCELLED;
    std::string place;
    Freezing freezing(job);
    int32_t status = freezing.run(place);
    job.same_instant = freezing.is_of_same_instant() ? 1 : 0;
    if (status == QFI_STATUS_OK)
        status = sync_if_asked(job);
    if (status == QFI_STATUS_OK && !place.empty()) {
        job.subpath = strdup(place.c_str());
        status = job.subpath != nullptr ? QFI_STATUS_OK : provider::fail_no_memory(job);
    }
    if (status != QFI_STATUS_OK)
        discard(job);
    return status;
}

int32_t split(qfi_provider_job *job) {
    return provider::fenced(job, freeze);
}

/// A frozen tree that is a subvolume itself was one before, and becomes one again, with those nested in it: a writable
/// snapshot. Not 0: the errno.
int snapshot_out(const qfi_provider_job &job, std::string &failed) {
    failed.clear();
    int error = btrfs::snapshot(job.source, job.target, job.name, false);
    if (error != 0)
        return error;
    const Descriptor made = provider::open_directory(job.target, job.name);
    if (!made)
        return errno;
    std::vector<Subvolume> nested;
    error = btrfs::nested_in(job.source, nested);
    if (error != 0)
        return error;
    for (const Subvolume &one : nested) {
        failed = one.path;
        const auto [parent, name] = btrfs::split_path(one.path);
        const Descriptor frozen = provider::open_directory(job.source, one.path);
        const Descriptor directory = provider::open_directory(made.get(), parent);
        if (!frozen || !directory)
            return errno;
        error = fill_in(frozen.get(), directory.get(), name.c_str());
        if (error != 0)
            return error;
    }
    return 0;
}

int32_t copy_out_as_subvolume(const qfi_provider_job &job) {
    std::string failed;
    const int error = snapshot_out(job, failed);
    const int32_t status = error == 0 ? sync_if_asked(job) : fail_write(job, "BTRFS_IOC_SNAP_CREATE_V2", failed, error);
    if (status != QFI_STATUS_OK)
        discard(job);
    return status;
}

int32_t give_out(qfi_provider_job &job) {
    if (const int error = provider::taken(job); error != 0)
        return fail_write(job, "fstatat", "", error);
    const bool entries_wanted = (job.flags & (QFI_JOB_DIGEST | QFI_JOB_MANIFEST)) != 0;
    if (entries_wanted || !btrfs::is_subvolume(job.source) || !provider::same_file_system(job.source, job.target) ||
        !btrfs::may_snapshot(job.source))
        return provider::make_tree(job, engine::Data::clone_or_copy);
    if (job.host->progress(job.host->context, 0, 0) != 0)
        return QFI_FI_CANCELLED;
    return copy_out_as_subvolume(job);
}

int32_t copy_out(qfi_provider_job *job) {
    return provider::fenced(job, give_out);
}

int32_t remove_image(qfi_provider_job *job) {
    return provider::fenced(job, [](const qfi_provider_job &one) { return remove_any(one); });
}

const qfi_provider_ops operations = [] {
    qfi_provider_ops all = provider::operations_of(
        {"btrfs", "Read-only snapshots of Btrfs subvolumes; all of a subvolume is of one moment", 300,
         QFI_CONSISTENCY_ATOMIC, QFI_TECHNOLOGY_SNAPSHOT},
        probe, split);
    all.copy_out = copy_out;
    all.remove = remove_image;
    return all;
}();

} // namespace

extern "C" QZFI_API const qfi_provider_ops *qfi_provider_entry(void);

const qfi_provider_ops *qfi_provider_entry(void) {
    return &operations;
}
