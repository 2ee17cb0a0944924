#include "fi/fi_images.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "fi/fi_export.h"
#include "fi/fi_fiid.h"
#include "fi/fi_report.h"
#include "fi/fi_store_folders.h"
#include "providers/engine/engine.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;

Descriptor share_lock(const FoundImage &image, int directory, const char *operation) {
    Descriptor lock(openat(directory, lock_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!lock && errno == ENOENT)
        return lock; // where nobody has ever removed or made anything, such as on a read-only medium
    if (!lock)
        fail_call(operation, "open", image.store->image_path(image.record.id) + "/lock", errno, true);
    while (flock(lock.get(), LOCK_SH | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            fail(message::busy, QFI_FI_BUSY, operation, {image.record.id});
        if (errno != EINTR)
            fail_call(operation, "flock", image.store->image_path(image.record.id) + "/lock", errno, true);
    }
    return lock;
}

} // namespace

HeldImage::HeldImage(const TreeFilesystem &filesystem, const char *operation)
    : filesystem_(filesystem), operation_(operation) {
    const std::string &id = record().id;
    Store &store = *filesystem.store;
    if (!store.find(id, operation))
        fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
    directory_ = store.open_image(id, operation);
    lock_ = share_lock({filesystem.store, filesystem.record}, directory_.get(), operation);
    // Between the look and the lock a remover may have come and gone.
    if (!store.find(id, operation))
        fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
}

HeldImage::HeldImage(const TreeFilesystem &filesystem, int claimed, const char *operation)
    : filesystem_(filesystem), operation_(operation), directory_(fcntl(claimed, F_DUPFD_CLOEXEC, 3)) {
    if (!directory_)
        fail_call(operation, "fcntl", filesystem.store->image_path(record().id), errno, true);
}

HeldImage::~HeldImage() {
    if (lock_)
        flock(lock_.get(), LOCK_UN); // a child that was forked meanwhile may still have the descriptor
}

Descriptor HeldImage::object(std::size_t index) const {
    const std::string &subpath = filesystem_.objects[index].image.subpath;
    std::string path = std::string(objects_name) + "/" + NewImage::object_name(index);
    if (!subpath.empty())
        path += "/" + subpath;
    Descriptor object(open_beneath(directory_.get(), path.c_str(), O_RDONLY | O_DIRECTORY));
    if (object)
        return object;
    const int error = errno;
    const std::string &id = record().id, shown = filesystem_.store->image_path(id) + "/" + path;
    if (error == ENOENT || error == ENOTDIR || error == ELOOP || error == EXDEV)
        fail(message::damaged, QFI_FI_DAMAGED, operation_, {id, shown, error_text(error)});
    fail_call(operation_, "open", shown, error, true);
}

std::string HeldImage::manifest_name(std::size_t index) {
    return "manifest." + std::to_string(index);
}

bool HeldImage::has_manifest(std::size_t index) const noexcept {
    struct stat status {};
    return fstatat(directory_.get(), manifest_name(index).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool HeldImage::includes_nested() const {
    try {
        const Hush hush;
        const Fiid fiid = read_fiid(read_export_document(directory_.get(), path(), operation_), operation_);
        return std::any_of(fiid.images.begin(), fiid.images.end(), [&](const FiidImage &image) {
            return image.record.id == record().id && image.record.nested;
        });
    } catch (const Failure &failure) {
        if (failure.status == QFI_STATUS_NO_MEMORY)
            throw;
        return false;
    }
}

const Provider &provider_of(const TreeFilesystem &filesystem, const char *operation) {
    const Provider *const provider = find_provider(filesystem.record.provider_id);
    if (provider == nullptr)
        fail(message::no_such_provider, QFI_FI_NO_SUCH_PROVIDER, operation, {filesystem.record.provider_id});
    return *provider;
}

void Findings::add(JobHost::Remark remark) {
    ++remark_count;
    keep_remark(remarks, std::move(remark));
}

void Findings::add(const JobHost &host) {
    for (const JobHost::Remark &remark : host.remarks())
        keep_remark(remarks, remark);
    remark_count += host.remark_count();
    entries += host.entries();
    bytes += host.bytes();
}

qfi_report *Findings::give() const {
    return give_report(remarks, remark_count, entries, bytes, changed);
}

std::vector<ObjectRef> objects_of(Tree &tree) {
    std::vector<ObjectRef> objects;
    for (TreeFilesystem &filesystem : tree.filesystems)
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
            objects.push_back({&filesystem, index});
    return objects;
}

std::string FoundImage::object_path(std::size_t index) const {
    const std::string &subpath = record.objects[index].subpath;
    const std::string path = store->image_path(record.id) + "/objects/" + NewImage::object_name(index);
    return subpath.empty() ? path : path + "/" + subpath;
}

namespace {

void add_images(const std::string &path, std::vector<FoundImage> &images, const char *operation) {
    const std::shared_ptr<Store> store = Store::open(path, false, operation);
    for (ImageRecord &record : store->list(operation))
        images.push_back({store, std::move(record)});
}

bool is_older(const FoundImage &one, const FoundImage &other) {
    if (one.record.time_ns != other.record.time_ns)
        return one.record.time_ns < other.record.time_ns;
    return one.record.id < other.record.id;
}

} // namespace

std::vector<FoundImage> all_images(const char *store, const char *operation) {
    std::vector<FoundImage> images;
    if (store != nullptr) {
        add_images(store, images, operation);
    } else {
        for (const std::string &path : known_stores()) {
            // A known store may be gone, or not mounted; the others are looked into.
            try {
                const Hush hush;
                add_images(path, images, operation);
            } catch (const Failure &) {
                continue;
            }
        }
    }
    std::sort(images.begin(), images.end(), is_older);
    return images;
}

std::vector<FoundImage> find_images(const std::string &id, const char *store, const char *operation) {
    require(is_image_id(id), operation, "this is no id of an image");
    std::vector<FoundImage> images = all_images(store, operation);
    std::erase_if(images, [&](const FoundImage &image) { return !image.is_named(id); });
    if (images.empty())
        fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
    return images;
}

FoundImage find_image(const std::string &id, const char *store, const char *operation) {
    require(is_image_id(id), operation, "this is no id of an image");
    std::vector<FoundImage> images = all_images(store, operation);
    std::erase_if(images, [&](const FoundImage &image) { return image.record.id != id; });
    if (images.empty())
        fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
    // A copy of a store has the same image: one that has its files is preferred.
    const auto whole =
        std::find_if(images.begin(), images.end(), [](const FoundImage &image) { return image.record.state == 1; });
    return whole != images.end() ? std::move(*whole) : std::move(images.front());
}

std::vector<std::string> stores_of(const Tree &tree) {
    std::vector<std::string> stores = known_store_paths();
    for (const TreeFilesystem &filesystem : tree.filesystems)
        if (filesystem.store && std::find(stores.begin(), stores.end(), filesystem.store->path()) == stores.end())
            stores.push_back(filesystem.store->path());
    return stores;
}

namespace {

// An object of the image that is the path, or lies above it and holds it.
bool holds(const FoundImage &image, const std::string &path) {
    for (std::size_t index = 0; index < image.record.objects.size(); ++index) {
        const std::string &object = image.record.objects[index].path;
        if (object == path)
            return true;
        const std::string prefix = object == "/" ? object : object + "/";
        if (path.compare(0, prefix.size(), prefix) != 0)
            continue;
        const std::string below =
            std::string(objects_name) + "/" + NewImage::object_name(index) + "/" +
            (image.record.objects[index].subpath.empty() ? "" : image.record.objects[index].subpath + "/") +
            path.substr(prefix.size());
        const Descriptor directory(
            openat(image.store->images(), image.record.id.c_str(), directory_flags | O_NONBLOCK | O_CLOEXEC));
        if (directory && Descriptor(open_beneath(directory.get(), below.c_str(), O_PATH | O_NOFOLLOW)))
            return true;
    }
    return false;
}

} // namespace

std::vector<FoundImage> images_for(const std::string &path, const char *operation) {
    std::vector<FoundImage> images = all_images(nullptr, operation);
    std::erase_if(images, [&](const FoundImage &image) { return image.record.state != 1 || !holds(image, path); });
    std::reverse(images.begin(), images.end());
    return images;
}

namespace {

void fill_image(Block &block, const FoundImage &found) {
    const ImageRecord &record = found.record;
    const std::size_t count = record.objects.size();
    qfi_image_list *const node = block.array<qfi_image_list>(1);
    const char **const objects = block.array<const char *>(count);
    const char **const paths = block.array<const char *>(count);
    qfi_image scratch{};
    qfi_image &image = block.measuring() ? scratch : node->image;
    image.image_id = block.text(record.id);
    image.set_id = block.text(record.set_id);
    image.label = block.text(record.label);
    image.fim_id = block.text(record.fim_id);
    image.provider_id = block.text(record.provider_id);
    image.store = block.text(found.store->path());
    image.host = block.text(record.host);
    image.consistency = record.consistency;
    image.state = record.state;
    image.time = time_of(record.time_ns);
    image.duration_ns = record.duration_ns;
    image.entries = record.entries;
    image.bytes = record.bytes;
    image.remarks = record.remarks;
    image.has_digests = record.has_digests ? 1 : 0;
    image.backed_up = record.backed_up;
    image.object_count = static_cast<uint32_t>(count);
    for (std::size_t index = 0; index < count; ++index) {
        const char *const object = block.text(record.objects[index].path);
        const char *const path = block.text(found.object_path(index));
        if (block.measuring())
            continue;
        objects[index] = object;
        paths[index] = path;
    }
    image.objects = objects;
    image.paths = paths;
}

} // namespace

qfi_image_list *give_images(const std::vector<FoundImage> &images) {
    std::unique_ptr<qfi_image_list, void (*)(qfi_image_list *)> first(nullptr, free_chain);
    for (auto image = images.rbegin(); image != images.rend(); ++image) {
        auto *const node =
            static_cast<qfi_image_list *>(Block::build([&](Block &block) { fill_image(block, *image); }));
        node->next = first.release();
        first.reset(node);
    }
    return first.release();
}

void stored_report(const Tree &tree, Findings &report, const char *operation) {
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        const HeldImage image(filesystem, operation);
        StoredReport stored = read_report(image.directory(), operation, filesystem.record.id, image.path());
        report.remark_count += stored.count;
        for (JobHost::Remark &remark : stored.remarks)
            keep_remark(report.remarks, std::move(remark));
        report.entries += filesystem.record.entries;
        report.bytes += filesystem.record.bytes;
    }
    report.changed = report.entries; // all of them were made
    for (const JobHost::Remark &remark : tree.found_remarks)
        report.add(remark);
}

void repair(const char *given, Findings &report, const char *operation) {
    const std::vector<std::string> paths = given != nullptr ? std::vector<std::string>{given} : known_stores();
    std::exception_ptr failure;
    for (const std::string &path : paths) {
        try {
            if (given == nullptr && access(path.c_str(), F_OK) != 0)
                continue; // the default store before its first image; one that is not mounted
            const std::shared_ptr<Store> store = Store::open(path, false, operation);
            const Store::Repair repaired = store->repair(operation);
            report.changed += repaired.debris;
            report.entries += repaired.taken_in;
            for (const std::string &id : repaired.damaged)
                report.add({QFI_REMARK_WARNING, 0, store->path(), id, "the image's files are missing"});
            for (const std::string &id : repaired.waiting)
                report.add({QFI_REMARK_SKIPPED, 0, store->path(), id,
                            "the image waits for its set, of which another store cannot be looked into"});
            for (const std::string &id : repaired.unknown)
                report.add({QFI_REMARK_UNREADABLE, 0, store->path(), id,
                            "the catalog does not know this image, and it, or its set, is not whole: it stays"});
            if (repaired.failure)
                failure = repaired.failure;
        } catch (const Failure &) {
            failure = std::current_exception();
        }
    }
    if (failure)
        std::rethrow_exception(failure);
}

namespace {

struct StoreState {
    std::string path;
    uint32_t state = 0;
    uint64_t images = 0, debris = 0, capacity = 0, available = 0;
};

StoreState look_at_store(const std::string &path, const char *operation) {
    StoreState state;
    state.path = path;
    try {
        const Hush hush;
        const std::shared_ptr<Store> store = Store::open(path, false, operation);
        state.path = store->path();
        for (const ImageRecord &record : store->list(operation))
            state.images += record.state == 1 ? 1 : 0;
        state.debris = store->debris_count();
        struct statvfs filesystem {};
        if (fstatvfs(store->images(), &filesystem) == 0) {
            state.capacity = filesystem.f_blocks * filesystem.f_frsize;
            state.available = filesystem.f_bavail * filesystem.f_frsize;
        }
    } catch (const Failure &failure) {
        state.state = static_cast<uint32_t>(failure.status);
    }
    return state;
}

} // namespace

qfi_store_status *store_states(const char *path, const char *operation) {
    const std::vector<std::string> paths = path != nullptr ? std::vector<std::string>{path} : known_stores();
    std::unique_ptr<qfi_store_status, void (*)(qfi_store_status *)> first(nullptr, free_chain);
    for (auto one = paths.rbegin(); one != paths.rend(); ++one) {
        const StoreState state = look_at_store(*one, operation);
        auto *const node = static_cast<qfi_store_status *>(Block::build([&](Block &block) {
            qfi_store_status *const status = block.array<qfi_store_status>(1);
            const char *const text = block.text(state.path);
            if (block.measuring())
                return;
            status->path = const_cast<char *>(text);
            status->state = state.state;
            status->images = state.images;
            status->debris = state.debris;
            status->capacity = state.capacity;
            status->available = state.available;
        }));
        node->next = first.release();
        first.reset(node);
    }
    return first.release();
}

} // namespace qzfi::fi
