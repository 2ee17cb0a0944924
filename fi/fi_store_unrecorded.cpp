// Folders of images without a record: debris when they say so themselves, else images that the catalog lost.
#include "fi/fi_store_folders.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_fiid.h"
#include "fi/fi_images.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

bool has_entry(int directory, const char *name, mode_t type) noexcept {
    struct stat status {};
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && (status.st_mode & S_IFMT) == type;
}

bool is_marked(int image) noexcept {
    return has_entry(image, unrecorded_name, S_IFREG);
}

// False with errno.
bool make_mark(int image) noexcept {
    const Descriptor file(
        openat(image, unrecorded_name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    return file && fsync(image) == 0;
}

bool lacks_room() noexcept {
    return status_of(errno, 0) == QFI_FI_NO_SPACE;
}

// An image can be removed from a full file system all the same. Killed between two steps, it is for a repair to tell
// of.
void mark(const Store::State &store, const Claim &claim, const char *operation) {
    const int image = claim.directory.get();
    bool is_made = make_mark(image);
    if (!is_made && lacks_room()) {
        unlinkat(store.directory.get(), reserve_name, 0);
        is_made = make_mark(image) || lacks_room();
    }
    if (!is_made)
        fail_call(operation, "write", store.path + "/images/" + claim.name + "/" + unrecorded_name, errno, false);
}

} // namespace

bool is_unrecorded(const Store::State &store, const std::string &name) {
    return has_entry(store.images.get(), (name + "/" + unrecorded_name).c_str(), S_IFREG);
}

void unmark(int image) noexcept {
    if (unlinkat(image, unrecorded_name, 0) == 0)
        fsync(image);
}

bool erase_record(const Store::State &store, const Claim &claim, const std::function<bool()> &erase,
                  const char *operation) {
    try {
        mark(store, claim, operation);
        if (erase())
            return true;
    } catch (...) {
        unmark(claim.directory.get());
        throw;
    }
    unmark(claim.directory.get());
    return false;
}

bool holds_images(int store, const std::string &path, const char *operation) {
    const Descriptor directory(openat(store, "images", directory_flags));
    if (!directory && (errno == ENOENT || errno == ENOTDIR || errno == ELOOP))
        return false;
    if (!directory)
        fail_call(operation, "open", path + "/images", errno, true);
    const std::vector<std::string> names = names_in(directory.get(), path + "/images", operation);
    return std::any_of(names.begin(), names.end(), [&](const std::string &name) {
        return is_image_id(name) && !has_entry(directory.get(), (name + "/" + unrecorded_name).c_str(), S_IFREG);
    });
}

namespace {

// An image that is whole by what lies in its folder.
struct Found {
    Claim claim;
    Fiid set;
    ImageRecord record;
};

Fiid read_set(const Store::State &store, const Claim &claim, const char *operation) {
    constexpr std::size_t longest = std::size_t{64} << 20;
    const std::string path = store.path + "/images/" + claim.name + "/fiid.xml";
    const Descriptor file(
        openat(claim.directory.get(), "fiid.xml", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file)
        fail_call(operation, "open", path, errno, true);
    return read_fiid(read_file(file.get(), path, longest, operation), operation);
}

bool is_whole(const Claim &claim, const ImageRecord &record) {
    for (std::size_t index = 0; index < record.objects.size(); ++index) {
        const std::string &subpath = record.objects[index].subpath;
        const std::string object =
            std::string(objects_name) + "/" + NewImage::object_name(index) + (subpath.empty() ? "" : "/" + subpath);
        if (!Descriptor(open_beneath(claim.directory.get(), object.c_str(), O_PATH | O_DIRECTORY)))
            return false;
        // Entries were counted when a manifest was written.
        if (record.entries != 0 && !has_entry(claim.directory.get(), HeldImage::manifest_name(index).c_str(), S_IFREG))
            return false;
    }
    return !record.objects.empty();
}

std::optional<Found> find_lost(const Store::State &store, const std::string &id, const char *operation) {
    const FileLock lock = lock_store(store, operation);
    std::optional<Claim> claim;
    if (claim_folder(store, id, claim, operation) != Claimed::yes || is_marked(claim->directory.get()) ||
        store.catalog->has(id, operation))
        return std::nullopt;
    return Found{std::move(*claim), {}, {}};
}

// What is wrong with it throws, or gives false.
bool read_lost(const Store::State &store, Found &found, const char *operation) {
    found.set = read_set(store, found.claim, operation);
    for (const FiidImage &image : found.set.images)
        if (image.record.id == found.claim.name)
            found.record = image.record;
    found.record.state = 1;
    struct stat status {};
    return found.record.id == found.claim.name && fstat(found.claim.directory.get(), &status) == 0 && is_own(status) &&
           is_whole(found.claim, found.record);
}

// Whether the other images of its set are there, or are among those that are found with it.
bool has_set(const Store::State &store, const Found &found, const std::set<std::string> &lost, const char *operation) {
    for (const FiidImage &image : found.set.images) {
        if (lost.count(image.record.id) != 0 || store.catalog->has(image.record.id, operation))
            continue;
        const Descriptor directory(open(image.store.c_str(), directory_flags));
        if (image.store == store.path || !directory ||
            !Catalog(directory.get(), image.store, false, false, operation).has(image.record.id, operation))
            return false;
    }
    return true;
}

template <class Look>
bool holds(Look &&look) {
    try {
        const Hush hush;
        return look();
    } catch (const Failure &failure) {
        if (failure.status == QFI_STATUS_NO_MEMORY)
            throw;
        return false;
    }
}

} // namespace

LostImages take_in_lost(const Store::State &store, const char *operation) {
    LostImages images;
    std::vector<Found> whole;
    std::set<std::string> ids;
    for (const std::string &name : names_in(store.images.get(), store.path + "/images", operation)) {
        if (!is_image_id(name) || store.catalog->has(name, operation))
            continue;
        if (!store.is_writable) {
            if (!is_unrecorded(store, name))
                images.unknown.push_back(name);
            continue;
        }
        std::optional<Found> found = find_lost(store, name, operation);
        if (!found)
            continue;
        if (!holds([&] { return read_lost(store, *found, operation); })) {
            images.unknown.push_back(name);
            continue;
        }
        ids.insert(name);
        whole.push_back(std::move(*found));
    }
    // Somebody may have put it there by hand.
    if (!whole.empty() && syncfs(store.images.get()) != 0)
        fail_call(operation, "syncfs", store.path + "/images", errno, false);
    for (const Found &found : whole) {
        if (holds([&] { return has_set(store, found, ids, operation); })) {
            store.catalog->add(found.record, operation);
            ++images.taken_in;
        } else {
            images.unknown.push_back(found.claim.name);
        }
    }
    return images;
}

} // namespace qzfi::fi
