#include "fi/fi_store.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr const char *images_name = "images";
constexpr const char *catalog_gone =
    "it holds images, and its catalog is gone: bring catalog.db back, or move images/ away";

// A folder's name is not there for good before the folder above it is synced.
void sync_above(const std::string &path, const char *operation) {
    const std::string above = path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
    const Descriptor directory(::open(above.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    if (directory)
        sync_file(directory.get(), above, operation);
    else if (errno != EACCES) // a folder that may be passed and written, but not read, cannot be opened
        fail_call(operation, "open", above, errno, false);
}

void make_folders_above(const std::string &path, const char *operation) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string above = path.substr(0, slash);
        if (mkdir(above.c_str(), 0755) == 0)
            sync_above(above, operation);
        else if (errno != EEXIST && errno != EROFS && errno != EACCES)
            fail_call(operation, "mkdir", above, errno, false);
    }
}

void refuse_link(const std::string &path, const char *operation) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode))
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {path, "a symbolic link is no store"});
}

Descriptor open_folder(const std::string &path, bool create, const char *operation) {
    refuse_link(path, operation);
    if (create) {
        make_folders_above(path, operation);
        if (mkdir(path.c_str(), 0700) == 0)
            sync_above(path, operation);
        else if (errno != EEXIST && errno != EROFS)
            fail_call(operation, "mkdir", path, errno, false);
    }
    Descriptor directory(::open(path.c_str(), directory_flags));
    if (directory)
        return directory;
    const int error = errno;
    refuse_link(path, operation);
    if (error == EACCES || error == EPERM)
        fail(message::no_right, QFI_FI_NO_RIGHT, operation, {"open store", path});
    fail(message::store_unusable, QFI_FI_STORE, operation, {path, error_text(error)});
}

// Images hold what only their owners may read; nobody else may own or change the folder that they are put into.
void refuse_others_folder(const std::string &path, const struct stat &status, const char *operation) {
    if (!is_own(status))
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {path, "the folder belongs to another user"});
    if ((status.st_mode & S_IWOTH) != 0)
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {path, "everybody may write to the folder"});
}

bool exists(int directory, const char *name) {
    struct stat status {};
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// Also when it is not there.
bool is_empty(int directory, const char *name) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    return S_ISREG(status.st_mode) && status.st_size == 0;
}

// A folder full of something else is no place for a store.
void refuse_full_folder(const std::string &path, int directory, const char *operation) {
    if (exists(directory, database_name))
        return;
    for (const std::string &name : names_in(directory, path, operation))
        if (name != images_name && name != lock_name && name != reserve_name && name != "lost+found" &&
            !exists(directory, database_name)) // which another process may have made meanwhile
            fail(message::store_unusable, QFI_FI_STORE, operation,
                 {path, "it is no store, and holds \"" + name + "\""});
}

Descriptor open_images(Store::State &store, bool create, const char *operation) {
    const int directory = store.directory.get();
    const std::string path = store.path + "/" + images_name;
    if (create && mkdirat(directory, images_name, 0700) != 0 && errno != EEXIST)
        fail_call(operation, "mkdir", path, errno, false);
    Descriptor images(openat(directory, images_name, directory_flags));
    if (!images && errno == ENOENT)
        fail(message::store_unusable, QFI_FI_STORE, operation, {store.path, "it holds no images folder"});
    struct stat status {};
    if (!images && fstatat(directory, images_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode))
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {path, "a symbolic link is no images folder"});
    if (!images)
        fail_call(operation, "open", path, errno, true);
    return images;
}

void open_catalog(Store::State &store, bool create, const char *operation) {
    const int directory = store.directory.get();
    // Before anything is written: the path may be any folder's, named by a strange id document.
    if (!create && !exists(directory, database_name))
        fail(message::store_unusable, QFI_FI_STORE, operation,
             {store.path, holds_images(directory, store.path, operation) ? catalog_gone : "it has no catalog"});
    std::optional<FileLock> lock;
    if (store.is_writable)
        lock.emplace(lock_store(store, operation));
    const bool is_there = exists(directory, database_name), has_images = holds_images(directory, store.path, operation);
    if (has_images && is_empty(directory, database_name))
        fail(message::store_unusable, QFI_FI_STORE, operation, {store.path, catalog_gone});
    store.images = open_images(store, create && store.is_writable, operation);
    store.catalog =
        std::make_unique<Catalog>(directory, store.path, store.is_writable, create && !has_images, operation);
    if (!is_there)
        sync_file(directory, store.path, operation);
}

} // namespace

bool is_own(const struct stat &status) noexcept {
    return status.st_uid == geteuid() || status.st_uid == 0;
}

namespace {

bool is_others_entry(int directory, const char *name) noexcept {
    struct stat status {};
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && !is_own(status);
}

} // namespace

// A folder that is writable to a group is that group's, with all that its members put there.
bool is_others(const struct stat &status, int directory) noexcept {
    if (!is_own(status) || (status.st_mode & S_IWOTH) != 0)
        return true;
    return (status.st_mode & S_IWGRP) == 0 &&
           (is_others_entry(directory, database_name) || is_others_entry(directory, images_name));
}

Store::Store(std::shared_ptr<State> state) : state_(std::move(state)) {}

std::shared_ptr<Store> Store::open(const std::string &given, bool create, const char *operation) {
    require(!given.empty() && given[0] == '/' && given.find('\0') == std::string::npos, operation,
            "a store's path must be absolute");
    auto state = std::make_shared<State>();
    state->path = normal_store_path(given);
    // Where ".." leads depends on links in the path; a record of it could mean another store some day.
    require((state->path + "/").find("/../") == std::string::npos, operation, "a store's path must be without \"..\"");
    state->directory = open_folder(state->path, create, operation);
    const int directory = state->directory.get();
    struct stat status {};
    if (fstat(directory, &status) != 0)
        fail_call(operation, "fstat", state->path, errno, true);
    state->device = status.st_dev;
    state->inode = status.st_ino;
    state->identity = store_identity(directory);
    state->is_writable = faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) == 0;
    state->write_error = state->is_writable ? 0 : errno;
    if (create && state->is_writable) {
        refuse_others_folder(state->path, status, operation);
        refuse_full_folder(state->path, directory, operation);
    }
    // Root could write to any, but what others may change is neither waited for nor changed: they could answer.
    if (state->is_writable && is_others(status, directory)) {
        state->is_writable = false;
        state->write_error = EPERM;
    }
    if (!state->is_writable && !exists(directory, database_name))
        fail(message::store_unusable, create ? QFI_FI_NO_RIGHT : QFI_FI_STORE, operation,
             {state->path, "it has no catalog, and nothing can be written there"});
    open_catalog(*state, create, operation);
    std::shared_ptr<Store> store(new Store(std::move(state)));
    if (!store->state_->is_writable)
        return store;
    // What cannot be removed now is for `repair` to tell of.
    const RemoveTree remove_tree = [&](int objects, const char *name) {
        remove_by_provider(objects, name, store->path(), operation);
    };
    try {
        const Hush hush;
        store->state_->removed_debris += end_pending(*store->state_, remove_tree, operation).removed;
        remove_debris(*store->state_, remove_tree, store->state_->removed_debris, operation);
    } catch (const Failure &) {
    }
    return store;
}

const std::string &Store::path() const noexcept {
    return state_->path;
}

uint64_t Store::device() const noexcept {
    return state_->device;
}

uint64_t Store::inode() const noexcept {
    return state_->inode;
}

int Store::images() const noexcept {
    return state_->images.get();
}

void Store::require_writable(const char *operation) const {
    if (!state_->is_writable)
        fail(message::no_right, QFI_FI_NO_RIGHT, operation,
             {"write to store", state_->path + ": " + error_text(state_->write_error)});
}

std::string Store::image_path(const std::string &id) const {
    return state_->path + "/" + images_name + "/" + id;
}

namespace {

// Its folder, and in that each object's tree, as far as anybody may look.
bool has_its_trees(const Store::State &store, const ImageRecord &record) {
    const Descriptor folder(openat(store.images.get(), record.id.c_str(), directory_flags | O_PATH));
    if (!folder)
        return errno != ENOENT;
    for (std::size_t index = 0; index < record.objects.size(); ++index) {
        const std::string &subpath = record.objects[index].subpath;
        const std::string path =
            std::string(objects_name) + "/" + NewImage::object_name(index) + (subpath.empty() ? "" : "/" + subpath);
        if (!exists(folder.get(), path.c_str()) && (errno == ENOENT || errno == ENOTDIR))
            return false;
    }
    return true;
}

// False when the image was removed while it was looked at.
bool judge(const Store::State &store, ImageRecord &record, const char *operation) {
    if (has_its_trees(store, record))
        return true;
    record.state = 3;
    return store.catalog->find(record.id, operation).has_value();
}

void require_id(const std::string &id, const char *operation) {
    require(is_image_id(id), operation, "this is no id of an image");
}

[[noreturn]] void fail_missing(const std::string &id, const char *operation) {
    fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
}

} // namespace

std::vector<ImageRecord> Store::list(const char *operation) {
    std::vector<ImageRecord> records = state_->catalog->list(operation);
    std::erase_if(records, [&](ImageRecord &record) { return !judge(*state_, record, operation); });
    return records;
}

std::optional<ImageRecord> Store::find(const std::string &id, const char *operation) {
    require_id(id, operation);
    std::optional<ImageRecord> record = state_->catalog->find(id, operation);
    if (record && !judge(*state_, *record, operation))
        return std::nullopt;
    return record;
}

void Store::update(const ImageRecord &record, const char *operation) {
    update(record.id, operation, [&](ImageRecord &stored) { stored = record; });
}

void Store::update(const std::string &id, const char *operation, const std::function<void(ImageRecord &)> &change) {
    require_id(id, operation);
    require_writable(operation);
    if (!state_->catalog->change(id, operation, change))
        fail_missing(id, operation);
}

Descriptor Store::open_image(const std::string &id, const char *operation) {
    require_id(id, operation);
    Descriptor image(openat(state_->images.get(), id.c_str(), directory_flags));
    if (image)
        return image;
    const int error = errno;
    // Whoever removes an image takes its record first: it may have gone since the caller found it.
    if (error == ENOENT && !state_->catalog->has(id, operation))
        fail_missing(id, operation);
    if (error == ENOENT || error == ENOTDIR || error == ELOOP)
        fail(message::damaged, QFI_FI_DAMAGED, operation, {id, image_path(id), error_text(error)});
    fail_call(operation, "open", image_path(id), error, true);
}

std::optional<Claim> Store::claim(const std::string &id, const char *operation) {
    require_id(id, operation);
    require_writable(operation);
    std::optional<Claim> claim;
    Claimed claimed;
    {
        const FileLock lock = lock_store(*state_, operation);
        claimed = claim_folder(*state_, id, claim, operation);
        if (claimed == Claimed::missing)
            claimed = claim_folder(*state_, old_prefix + id, claim, operation);
    }
    if (claimed == Claimed::busy)
        fail(message::busy, QFI_FI_BUSY, operation, {id});
    // One that the catalog lost is for a repair.
    const bool is_none_without_record =
        claimed == Claimed::missing || (claim->name == id && !is_unrecorded(*state_, id));
    if (is_none_without_record && !state_->catalog->has(id, operation))
        fail_missing(id, operation);
    return claim;
}

void Store::remove_with(const std::string &id, const char *operation, const RemoveTree &remove_object) {
    remove(claim(id, operation), id, operation, remove_object);
}

void Store::remove(std::optional<Claim> claim, const std::string &id, const char *operation,
                   const RemoveTree &remove_object) {
    require_writable(operation);
    const auto erase = [&] { return state_->catalog->erase(id, operation); };
    if (claim) {
        erase_record(*state_, *claim, erase, operation);
        remove_folder(*state_, std::move(*claim), id, remove_object, operation);
    } else if (!erase()) {
        fail_missing(id, operation);
    }
}

Store::Repair Store::repair(const char *operation) {
    const RemoveTree remove_tree = [&](int objects, const char *name) {
        remove_by_provider(objects, name, path(), operation);
    };
    Repair repair;
    repair.debris = std::exchange(state_->removed_debris, 0);
    for (const ImageRecord &record : list(operation))
        if (record.state == 3)
            repair.damaged.push_back(record.id);
    // Where nothing is to be removed, a store that cannot be written has nothing to be told of.
    if (!state_->is_writable && count_debris(*state_, operation) == 0) {
        repair.unknown = take_in_lost(*state_, operation).unknown;
        return repair;
    }
    require_writable(operation);
    EndedPending ended = end_pending(*state_, remove_tree, operation);
    repair.debris += ended.removed;
    repair.waiting = std::move(ended.waiting);
    repair.failure = ended.failure;
    try {
        remove_debris(*state_, remove_tree, repair.debris, operation);
    } catch (const Failure &) {
        repair.failure = std::current_exception();
    }
    try {
        LostImages lost = take_in_lost(*state_, operation);
        repair.taken_in = lost.taken_in;
        repair.unknown = std::move(lost.unknown);
    } catch (const Failure &) {
        repair.failure = std::current_exception();
    }
    return repair;
}

uint64_t Store::debris_count() {
    return count_debris(*state_, "qzfi_query_res_status");
}

} // namespace qzfi::fi
