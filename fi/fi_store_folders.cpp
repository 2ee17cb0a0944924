#include "fi/fi_store_folders.h"

#include <algorithm>
#include <chrono>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "fi/fi_providers.h"
#include "providers/engine/engine.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

constexpr auto lock_patience = std::chrono::seconds(60); // as for a catalog
constexpr auto lock_pause = std::chrono::milliseconds(5);

std::string path_of(const Store::State &store, const std::string &name) {
    return store.path + "/images/" + name;
}

int open_lock(int directory, bool create) noexcept {
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | (create ? O_CREAT : 0);
    return openat(directory, lock_name, flags, 0600);
}

// What a folder's name says of it.
struct FolderName {
    bool is_half = false; // made or removed half
    std::string id;       // empty for a name that is none of ours
};

FolderName read_name(const std::string &name) {
    FolderName read;
    std::string_view id = name;
    for (const std::string_view prefix : {new_prefix, old_prefix}) {
        if (id.substr(0, prefix.size()) != prefix)
            continue;
        id.remove_prefix(prefix.size());
        read.is_half = true;
        break;
    }
    if (is_image_id(id))
        read.id = id;
    return read;
}

int32_t no_progress(void *, uint64_t, uint64_t) {
    return 0;
}

struct EngineFailure {
    std::string what, object;
    int error = 0;
};

void note_failure(void *context, const char *what, const char *object, int error) {
    auto *const failure = static_cast<EngineFailure *>(context);
    try {
        *failure = {what, object, error};
    } catch (const std::bad_alloc &) {
        failure->error = ENOMEM;
    }
}

} // namespace

std::string normal_store_path(std::string_view path) {
    if (path.empty() || path[0] != '/')
        return std::string(path);
    std::string normal;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view part = path.substr(start, end - start);
        if (!part.empty() && part != ".")
            normal.append("/").append(part);
        start = end + 1;
    }
    return normal.empty() ? "/" : normal;
}

std::vector<std::string> names_in(int directory, const std::string &path, const char *operation) {
    const int fd = openat(directory, ".", directory_flags);
    DIR *const opened = fd < 0 ? nullptr : fdopendir(fd);
    if (opened == nullptr) {
        const int error = errno;
        if (fd >= 0)
            close(fd);
        fail_call(operation, "open", path, error, true);
    }
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(opened, closedir);
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const dirent *const entry = readdir(opened);
        if (entry == nullptr && errno != 0)
            fail_call(operation, "readdir", path, errno, true);
        if (entry == nullptr)
            return names;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
}

FileLock::~FileLock() {
    if (file_)
        flock(file_.get(), LOCK_UN);
}

FileLock lock_store(const Store::State &store, const char *operation) {
    Descriptor file(open_lock(store.directory.get(), true));
    if (!file)
        fail_call(operation, "open", store.path + "/" + lock_name, errno, false);
    // It is held briefly. Who holds it for longer is stopped, or means harm.
    const auto deadline = std::chrono::steady_clock::now() + lock_patience;
    while (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && errno != EWOULDBLOCK)
            fail_call(operation, "flock", store.path + "/" + lock_name, errno, false);
        if (std::chrono::steady_clock::now() >= deadline)
            fail(message::busy, QFI_FI_BUSY, operation, {store.path});
        std::this_thread::sleep_for(lock_pause);
    }
    return FileLock(std::move(file));
}

Claimed claim_folder(const Store::State &store, const std::string &name, std::optional<Claim> &claim,
                     const char *operation) {
    Descriptor directory(openat(store.images.get(), name.c_str(), directory_flags));
    if (!directory && errno == ENOENT)
        return Claimed::missing;
    if (!directory)
        fail_call(operation, "open", path_of(store, name), errno, true);
    Descriptor file(open_lock(directory.get(), true));
    if (!file)
        fail_call(operation, "open", path_of(store, name) + "/" + lock_name, errno, false);
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        claim.emplace(Claim{name, std::move(directory), FileLock(std::move(file))});
        return Claimed::yes;
    }
    if (errno != EWOULDBLOCK)
        fail_call(operation, "flock", path_of(store, name) + "/" + lock_name, errno, false);
    return Claimed::busy;
}

void remove_plainly(int directory, const char *name, const char *operation) {
    EngineFailure failure;
    qfi_provider_host host{};
    host.size = sizeof host;
    host.context = &failure;
    host.entry = [](void *, const qfi_entry *) -> int32_t { return 0; };
    host.remark = [](void *, const qfi_remark *) {};
    host.progress = no_progress;
    host.fail = note_failure;
    const engine::Result result = engine::remove_tree(directory, name, engine::Options{}, host);
    if (result.status == 0)
        return;
    const std::string object = std::string(name) + (failure.object.empty() ? "" : "/" + failure.object);
    fail_call(operation, failure.what.empty() ? "remove" : failure.what.c_str(), object,
              failure.error != 0 ? failure.error : EIO, false);
}

void remove_by_provider(int directory, const char *name, const std::string &store, const char *operation) {
    for (const Provider &provider : providers()) {
        if (provider.ops->remove == nullptr)
            continue;
        const Hush hush;
        const JobHost host(operation, store, nullptr);
        qfi_provider_job job{};
        job.size = sizeof job;
        job.host = host.record();
        job.object = store.c_str();
        job.source = -1;
        job.target = directory;
        job.name = name;
        job.workers = 1;
        if (provider.ops->remove(&job) == 0)
            return;
    }
    remove_plainly(directory, name, operation);
}

void write_to(int fd, std::string_view content, const std::string &path, const char *operation) {
    while (!content.empty()) {
        const ssize_t count = write(fd, content.data(), content.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            fail_call(operation, "write", path, count < 0 ? errno : EIO, false);
        content.remove_prefix(static_cast<std::size_t>(count));
    }
}

Descriptor write_file(int directory, const char *name, const std::string &path, std::string_view content,
                      const char *operation) {
    Descriptor file(openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file)
        fail_call(operation, "open", path, errno, false);
    write_to(file.get(), content, path, operation);
    return file;
}

int rename_directory(int from, const char *name, int to, const char *new_name) noexcept {
    if (renameat2(from, name, to, new_name, RENAME_NOREPLACE) == 0)
        return 0;
    // A file system that does not know the flag: there a directory replaces none but an empty one.
    return errno == EINVAL ? renameat(from, name, to, new_name) : -1;
}

std::size_t read_at(int fd, char *buffer, std::size_t size, off_t position, const std::string &path,
                    const char *operation) {
    ssize_t count = 0;
    do
        count = pread(fd, buffer, size, position);
    while (count < 0 && errno == EINTR);
    if (count < 0)
        fail_call(operation, "read", path, errno, true);
    return static_cast<std::size_t>(count);
}

std::string read_file(int fd, const std::string &path, std::size_t limit, const char *operation) {
    std::string content, buffer(65536, '\0');
    while (content.size() <= limit) {
        const std::size_t count =
            read_at(fd, buffer.data(), buffer.size(), static_cast<off_t>(content.size()), path, operation);
        if (count == 0)
            break;
        content.append(buffer, 0, count);
    }
    return content;
}

void sync_file(int fd, const std::string &path, const char *operation) {
    if (fsync(fd) != 0)
        fail_call(operation, "fsync", path, errno, false);
}

void remove_folder(const Store::State &store, Claim claim, const std::string &id, const RemoveTree &remove_tree,
                   const char *operation) {
    const std::string old = old_prefix + id;
    if (claim.name != old && renameat(store.images.get(), claim.name.c_str(), store.images.get(), old.c_str()) != 0)
        fail_call(operation, "rename", path_of(store, claim.name), errno, false);
    sync_file(store.images.get(), store.path + "/images", operation);
    const int directory = claim.directory.get();
    const Descriptor objects(openat(directory, objects_name, directory_flags));
    if (objects)
        for (const std::string &name : names_in(objects.get(), path_of(store, old) + "/objects", operation))
            remove_tree(objects.get(), name.c_str());
    for (const std::string &name : names_in(directory, path_of(store, old), operation))
        if (name != lock_name)
            remove_plainly(directory, name.c_str(), operation);
    // Without its lock the folder would look like debris to others: nobody may look now.
    const FileLock lock = lock_store(store, operation);
    if (unlinkat(directory, lock_name, 0) != 0 && errno != ENOENT)
        fail_call(operation, "unlink", path_of(store, old) + "/" + lock_name, errno, false);
    if (unlinkat(store.images.get(), old.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
        fail_call(operation, "rmdir", path_of(store, old), errno, false);
    sync_file(store.images.get(), store.path + "/images", operation);
}

namespace {

// Debris is what says that it has no record, and has none and no maker. The record is looked for with the folder's lock
// held: makers record, and removers rename, while they hold it.
std::optional<Claim> claim_debris(const Store::State &store, const std::string &name, const FolderName &read,
                                  const char *operation) {
    const FileLock lock = lock_store(store, operation);
    std::optional<Claim> claim;
    if (claim_folder(store, name, claim, operation) != Claimed::yes)
        return std::nullopt;
    if (read.is_half)
        return claim;
    if (!store.catalog->has(read.id, operation))
        return is_unrecorded(store, name) ? std::move(claim) : std::nullopt;
    // Killed just after it was recorded, or before its record went.
    unmark(claim->directory.get());
    return std::nullopt;
}

template <class Visit>
void each_suspect(const Store::State &store, const char *operation, Visit &&visit) {
    for (const std::string &name : names_in(store.images.get(), store.path + "/images", operation)) {
        const FolderName read = read_name(name);
        if (!read.id.empty() && (read.is_half || is_unrecorded(store, name)))
            visit(name, read);
    }
}

} // namespace

void remove_debris(const Store::State &store, const RemoveTree &remove_tree, uint64_t &removed, const char *operation) {
    std::exception_ptr failure;
    each_suspect(store, operation, [&](const std::string &name, const FolderName &read) {
        try {
            std::optional<Claim> claim = claim_debris(store, name, read, operation);
            if (!claim)
                return;
            if (!read.is_half)
                store.catalog->seal(operation);
            remove_folder(store, std::move(*claim), read.id, remove_tree, operation);
            ++removed;
        } catch (const Failure &) {
            failure = std::current_exception();
        }
    });
    if (failure)
        std::rethrow_exception(failure);
}

uint64_t count_debris(const Store::State &store, const char *operation) {
    uint64_t count = 0;
    each_suspect(store, operation, [&](const std::string &name, const FolderName &read) {
        // On a file system that is read-only nobody makes or removes anything.
        if (store.is_writable ? claim_debris(store, name, read, operation).has_value()
                              : read.is_half || !store.catalog->has(read.id, operation))
            ++count;
    });
    return count;
}

} // namespace qzfi::fi
