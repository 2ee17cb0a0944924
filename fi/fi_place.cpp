#include "fi/fi_place.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <optional>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "fi/fi_engine_host.h"
#include "fi/fi_left_out.h"
#include "fi/fi_mounts.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr char workshop_mark[] = ".qzfi-workshop"; // in a workshop: that it is one
constexpr char beside_note[] = ".qzfi-beside-";
constexpr ino_t subvolume_inode = 256; // of every subvolume's root
constexpr ino_t stand_in_inode = 2;    // no entry of a subvolume's own has it

// The first component of a path that is a symbolic link; empty when there is none (any more).
std::string link_in(const std::string &path) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        std::string above = path.substr(0, end);
        struct stat status {};
        if (lstat(above.c_str(), &status) != 0)
            return {};
        if (S_ISLNK(status.st_mode))
            return above;
        if (end == std::string::npos)
            return {};
    }
}

[[noreturn]] void fail_link(const std::string &path, const std::string &link, const char *operation) {
    fail(message::unsafe_path, QFI_FI_UNSAFE, operation,
         {path, link.empty() ? "a symbolic link is in the way" : link + " is a symbolic link"});
}

[[noreturn]] void refuse(const Place &place, const std::string &why, const char *operation) {
    fail(message::irreplaceable, QFI_STATUS_NOT_SUPPORTED, operation, {place.path, why});
}

bool is_btrfs(int descriptor) {
    struct statfs status {};
    return fstatfs(descriptor, &status) == 0 && status.f_type == BTRFS_SUPER_MAGIC;
}

// Those of which one may be in a place, above or below it.
std::vector<std::string> stores_near(const Place &place, std::vector<std::string> stores, const char *operation) {
    const std::vector<Mount> table = mounts(operation);
    std::erase_if(stores, [&](const std::string &store) { return !may_share_filesystem(table, store, place.path); });
    return stores;
}

void refuse_mounts_below(const Place &place, const char *operation) {
    for (const Mount &mount : mounts(operation)) {
        if (mount.mount_point == place.path)
            refuse(place, "it is a mount point", operation);
        if (lies_below(mount.mount_point, place.path))
            refuse(place, "a file system is mounted below it, at " + mount.mount_point, operation);
    }
}

// The old tree is removed, and with it a nested subvolume or a store, which no image holds.
void refuse_what_is_within(const Place &place, int directory, const char *operation, Progress *cancelled_by) {
    std::string subvolume;
    StoreFinder stores(directory);
    EngineHost host(operation, place.path, nullptr, cancelled_by);
    host.on_entry([&](const qfi_entry &entry) {
        stores.look_at(entry);
        return 0;
    });
    const bool may_have_subvolumes = is_btrfs(directory);
    host.on_remark([&](const qfi_remark &remark) {
        if (remark.kind != QFI_REMARK_SKIPPED || !may_have_subvolumes)
            return;
        const Descriptor entry(open_beneath(directory, remark.path, O_PATH | O_NOFOLLOW));
        if (entry && is_subvolume(entry.get()))
            subvolume = remark.path;
    });
    engine::Options options;
    options.entries = true;
    host.check(engine::walk_tree(directory, options, host.record()), true);
    if (!subvolume.empty())
        refuse(place, "a subvolume is below it, at " + place.path + "/" + subvolume, operation);
    for (const std::string &store : stores.found())
        refuse(place, "store " + place.path + (store.empty() ? "" : "/" + store) + " lies in it", operation);
}

bool is_same(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

constexpr int way_flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC; // the way up need not be readable

bool lies_at_or_above(const struct stat &directory, Descriptor at) {
    struct stat above {};
    if (!at || fstat(at.get(), &above) != 0)
        return false;
    while (!is_same(above, directory)) {
        const struct stat below = above;
        Descriptor parent(openat(at.get(), "..", way_flags));
        if (!parent || fstat(parent.get(), &above) != 0 || is_same(above, below))
            return false;
        at = std::move(parent);
    }
    return true;
}

uint64_t hash_of(std::string_view text) {
    uint64_t hash = 14695981039346656037u;
    for (const char letter : text)
        hash = (hash ^ static_cast<unsigned char>(letter)) * 1099511628211u;
    return hash;
}

} // namespace

bool lies_at_or_above(const struct stat &directory, const std::string &path) {
    return lies_at_or_above(directory, Descriptor(open(path.c_str(), way_flags)));
}

bool is_subvolume(int directory) {
    struct stat status {};
    return fstat(directory, &status) == 0 && S_ISDIR(status.st_mode) && status.st_ino == subvolume_inode &&
           is_btrfs(directory);
}

bool is_stand_in(int directory) noexcept {
    struct stat status {};
    return fstat(directory, &status) == 0 && S_ISDIR(status.st_mode) && status.st_ino == stand_in_inode &&
           is_btrfs(directory);
}

std::string canonical_text(std::string_view path, const char *operation) {
    require(!path.empty() && path[0] == '/', operation, "the path must be absolute");
    std::vector<std::string_view> parts;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view part = path.substr(start, end - start);
        if (part == "..") {
            if (!parts.empty())
                parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = end + 1;
    }
    std::string canonical;
    for (const std::string_view part : parts)
        canonical.append("/").append(part);
    return canonical.empty() ? "/" : canonical;
}

Descriptor open_without_links(const std::string &path, int flags, const char *operation) {
    open_how how{};
    how.flags = static_cast<uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC | O_NONBLOCK));
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    long fd = -1;
    do
        fd = syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    while (fd < 0 && (errno == EINTR || errno == EAGAIN));
    if (fd < 0 && errno == ELOOP)
        fail_link(path, link_in(path), operation);
    if (fd < 0)
        fail_call(operation, "open", path, errno, true);
    return Descriptor(static_cast<int>(fd));
}

Place open_place(const std::string &given, const char *operation) {
    Place place;
    place.path = canonical_text(given, operation);
    if (place.path == "/")
        refuse(place, "it is the root directory", operation);
    const std::size_t slash = place.path.rfind('/');
    place.name = place.path.substr(slash + 1);
    place.parent =
        open_without_links(slash == 0 ? "/" : place.path.substr(0, slash), O_RDONLY | O_DIRECTORY, operation);
    return place;
}

Place open_place_below(const std::string &object, const std::string &path, const char *operation) {
    if (path.empty())
        return open_place(object, operation);
    Place place;
    place.path = (object == "/" ? "" : object) + "/" + path;
    place.name = path.substr(path.rfind('/') + 1);
    const std::string above =
        path.size() == place.name.size() ? "." : path.substr(0, path.size() - place.name.size() - 1);
    place.is_below = true;
    const Descriptor directory = open_without_links(object, O_RDONLY | O_DIRECTORY, operation);
    place.parent.reset(open_beneath(directory.get(), above.c_str(), O_RDONLY | O_DIRECTORY));
    if (!place.parent && errno == EXDEV)
        refuse(place, "another file system is mounted above it, below the object", operation);
    const std::string shown = place.path.substr(0, place.path.size() - place.name.size() - 1);
    if (!place.parent && errno == ELOOP)
        fail_link(shown, link_in(shown), operation);
    if (!place.parent && (errno == ENOENT || errno == ENOTDIR))
        fail(message::no_such_object, QFI_FI_NO_SUCH_OBJECT, operation,
             {shown, error_text(errno) + "; restore this first, or to another place"});
    if (!place.parent)
        fail_call(operation, "open", shown, errno, true);
    return place;
}

void require_changeable(const Place &place, const char *operation) {
    if (faccessat(place.parent.get(), ".", W_OK | X_OK, AT_EACCESS) != 0)
        fail_call(operation, "access", place.path, errno, false);
}

namespace {

// What is in a place; nothing when it is empty. Throws for a link.
std::optional<struct stat> look_at(const Place &place, const char *operation) {
    struct stat status {};
    if (fstatat(place.parent.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return std::nullopt;
        fail_call(operation, "fstatat", place.path, errno, true);
    }
    if (S_ISLNK(status.st_mode) && !place.is_below)
        fail_link(place.path, place.path, operation);
    return status;
}

// The directory in a place, which is looked at again.
Descriptor open_directory(const Place &place, struct stat &status, const char *operation) {
    Descriptor directory(openat(place.parent.get(), place.name.c_str(), directory_flags));
    if (!directory && errno == ELOOP)
        fail_link(place.path, place.path, operation);
    if (!directory || fstat(directory.get(), &status) != 0)
        fail_call(operation, "open", place.path, errno, true);
    return directory;
}

void refuse_subvolume(const Place &place, int directory, const struct stat &status, const char *operation) {
    if (status.st_ino == subvolume_inode && is_btrfs(directory))
        refuse(place, "it is the root of a subvolume", operation);
}

} // namespace

bool refuse_irreplaceable(const Place &place, const std::vector<std::string> &stores, const char *operation,
                          Progress *cancelled_by) {
    std::optional<struct stat> status = look_at(place, operation);
    if (!status)
        return false;
    refuse_mounts_below(place, operation);
    if (!S_ISDIR(status->st_mode))
        return true;
    const Descriptor directory = open_directory(place, *status, operation);
    refuse_subvolume(place, directory.get(), *status, operation);
    for (const std::string &store : stores_near(place, stores, operation))
        if (lies_at_or_above(*status, store))
            refuse(place, "store " + store + " lies in it", operation);
    refuse_what_is_within(place, directory.get(), operation, cancelled_by);
    return true;
}

void refuse_in_stores(const Place &place, const std::vector<std::string> &stores, const char *what,
                      const char *operation) {
    const std::string parent = "/proc/self/fd/" + std::to_string(place.parent.get()) + "/.";
    for (const std::string &store : stores_near(place, stores, operation)) {
        require(place.path != store, operation, what); // the default store may not be there yet
        struct stat status {};
        require(stat(store.c_str(), &status) != 0 || !lies_at_or_above(status, parent), operation, what);
    }
}

bool would_lie_in(const std::string &path, int folder) {
    struct stat status {};
    if (fstat(folder, &status) != 0)
        return false;
    std::string present = path;
    Descriptor at(open(present.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (!at && errno == ENOENT && present.find('/') != std::string::npos) {
        present.erase(present.rfind('/'));
        at.reset(open(present.empty() ? "/" : present.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    return lies_at_or_above(status, std::move(at));
}

bool refuse_existing(const Place &place, const char *operation) {
    std::optional<struct stat> status = look_at(place, operation);
    if (!status)
        return false;
    const Descriptor directory = S_ISDIR(status->st_mode) ? open_directory(place, *status, operation) : Descriptor();
    if (!directory || !names_in(directory.get(), place.path, operation).empty())
        fail(message::already_exists, QFI_FI_EXISTS, operation, {place.path});
    refuse_mounts_below(place, operation);
    refuse_subvolume(place, directory.get(), *status, operation);
    return true;
}

Workshop::Workshop(const Place &place, const char *operation) : place_(place), operation_(operation) {
    char hash[24];
    std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(hash_of(place.name)));
    name_ = std::string(".qzfi-restore-") + hash;
    beside_ = name_ + "-tree";
    while (!claim()) {
    }
    empty(); // the lock is held: whoever made what is there is gone
}

// False when somebody else made or removed it meanwhile.
bool Workshop::claim() {
    const int parent = place_.parent.get();
    if (mkdirat(parent, name_.c_str(), 0700) != 0 && errno != EEXIST)
        fail_call(operation_, "mkdir", path(), errno, false);
    directory_.reset(openat(parent, name_.c_str(), directory_flags));
    if (!directory_ && (errno == ENOTDIR || errno == ELOOP)) {
        // None of ours; links are removed, never followed.
        if (unlinkat(parent, name_.c_str(), 0) != 0 && errno != ENOENT)
            fail_call(operation_, "unlink", path(), errno, false);
        return false;
    }
    if (!directory_ && errno == ENOENT)
        return false;
    if (!directory_)
        fail_call(operation_, "open", path(), errno, false);
    while (flock(directory_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            directory_.reset(-1);
            fail(message::busy, QFI_FI_BUSY, operation_, {place_.path});
        }
        if (errno != EINTR)
            fail_call(operation_, "flock", path(), errno, false);
    }
    struct stat locked {
    }, present{};
    if (fstat(directory_.get(), &locked) != 0)
        fail_call(operation_, "fstat", path(), errno, false);
    if (fstatat(parent, name_.c_str(), &present, AT_SYMLINK_NOFOLLOW) != 0 || !is_same(locked, present))
        return false;
    if (locked.st_uid != geteuid())
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation_, {path(), "the folder belongs to another user"});
    mark(locked);
    return true;
}

// An empty folder may be one that was not marked yet; what anybody else can write into says nothing.
void Workshop::mark(const struct stat &status) {
    struct stat marked {};
    if (fstatat(directory_.get(), workshop_mark, &marked, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISREG(marked.st_mode) || marked.st_uid != geteuid() || (status.st_mode & 07777) != 0700)
            refuse_alien(name_);
        return;
    }
    if (!names_in(directory_.get(), path(), operation_).empty())
        refuse_alien(name_);
    if ((status.st_mode & 07777) != 0700 && fchmod(directory_.get(), 0700) != 0)
        fail_call(operation_, "fchmod", path(), errno, false);
    write_file(directory_.get(), workshop_mark, path(), "", operation_);
}

void Workshop::refuse_alien(const std::string &name) const {
    fail(message::unsafe_path, QFI_FI_UNSAFE, operation_,
         {place_.path.substr(0, place_.path.rfind('/') + 1) + name, "no restore left this here; move it away"});
}

// An empty file for each tree that is about to have that name: its number stays, whatever becomes of names.
void Workshop::note_beside(int directory, const char *name) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        fail_call(operation_, "fstatat", place_.path, errno, false);
    const std::string note = beside_note + std::to_string(status.st_ino);
    write_file(directory_.get(), note.c_str(), path(), "", operation_);
}

bool Workshop::is_noted(int directory, const char *name) const {
    struct stat status {
    }, note{};
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           fstatat(directory_.get(), (beside_note + std::to_string(status.st_ino)).c_str(), &note,
                   AT_SYMLINK_NOFOLLOW) == 0;
}

// It is looked at where nobody else can exchange it any more.
void Workshop::remove_beside() {
    constexpr const char *old = "old";
    const int parent = place_.parent.get(), here = directory_.get();
    struct stat status {};
    if (fstatat(parent, beside_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
        return;
    if (!is_noted(parent, beside_.c_str()))
        refuse_alien(beside_);
    remove_plainly(here, old, operation_);
    if (rename_directory(parent, beside_.c_str(), here, old) != 0) {
        if (geteuid() == 0 || (errno != EACCES && errno != EPERM))
            fail_call(operation_, "rename", place_.path, errno, false);
        return remove_plainly(parent, beside_.c_str(), operation_); // a directory of others, which cannot be moved
    }
    if (is_noted(here, old))
        return remove_plainly(here, old, operation_);
    if (rename_directory(here, old, parent, beside_.c_str()) != 0)
        unlinkat(here, workshop_mark, 0); // so that the next restore does not take it for its own
    refuse_alien(beside_);
}

Workshop::~Workshop() {
    if (!directory_)
        return;
    try {
        const Hush hush;
        clear();
    } catch (...) {
        return; // the next restore to this place removes it
    }
}

std::string Workshop::path() const {
    return place_.path.substr(0, place_.path.rfind('/') + 1) + name_;
}

void Workshop::sync_parent() {
    sync_file(place_.parent.get(), place_.path.substr(0, place_.path.rfind('/') + 1), operation_);
}

// Within one directory: XFS gives small directories that are exchanged between two a new modification time.
void Workshop::exchange() {
    const int parent = place_.parent.get();
    note_beside(directory_.get(), tree);
    note_beside(parent, place_.name.c_str());
    sync_file(directory_.get(), path(), operation_);
    if (renameat2(directory_.get(), tree, parent, beside_.c_str(), RENAME_NOREPLACE) != 0 ||
        renameat2(parent, beside_.c_str(), parent, place_.name.c_str(), RENAME_EXCHANGE) != 0) {
        if (errno == EINVAL)
            refuse(place_, "this file system cannot exchange directories atomically", operation_);
        fail_call(operation_, "rename", place_.path, errno, false);
    }
    try {
        sync_parent();
    } catch (...) {
        // Either may be in the place after a crash: nothing is removed until the next restore.
        renameat2(parent, beside_.c_str(), parent, place_.name.c_str(), RENAME_EXCHANGE);
        flock(directory_.get(), LOCK_UN);
        directory_.reset(-1);
        throw;
    }
}

void Workshop::put(bool over_empty) {
    sync_file(directory_.get(), path(), operation_);
    const int parent = place_.parent.get();
    const char *const name = place_.name.c_str();
    if ((over_empty ? renameat(directory_.get(), tree, parent, name)
                    : rename_directory(directory_.get(), tree, parent, name)) != 0) {
        if (errno == EEXIST || errno == ENOTEMPTY)
            fail(message::already_exists, QFI_FI_EXISTS, operation_, {place_.path});
        fail_call(operation_, "rename", place_.path, errno, false);
    }
    sync_parent();
}

void Workshop::empty() {
    remove_beside();
    for (const std::string &name : names_in(directory_.get(), path(), operation_))
        if (name != workshop_mark)
            remove_plainly(directory_.get(), name.c_str(), operation_);
}

void Workshop::clear() {
    empty();
    unlinkat(directory_.get(), workshop_mark, 0);
    if (unlinkat(place_.parent.get(), name_.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
        fail_call(operation_, "rmdir", path(), errno, false);
    flock(directory_.get(), LOCK_UN);
    directory_.reset(-1);
}

} // namespace qzfi::fi
