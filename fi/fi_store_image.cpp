// Ids, and images in the making.
#include "fi/fi_store.h"

#include <ctime>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr std::string_view id_shape = "00000000T000000Z-xxxxxxxx";

bool fits(char shape, char letter) {
    const bool is_digit = letter >= '0' && letter <= '9';
    if (shape == '0')
        return is_digit;
    if (shape == 'x')
        return is_digit || (letter >= 'a' && letter <= 'f');
    return letter == shape;
}

} // namespace

std::string new_image_id() {
    uint32_t random = 0;
    // The kernel's random numbers do not fail for so few bytes once the system is up; the clock tells apart otherwise.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (getrandom(&random, sizeof random, 0) != sizeof random)
        random = static_cast<uint32_t>(now.tv_nsec) ^ (static_cast<uint32_t>(getpid()) << 8);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char time[24] = "", id[40] = "";
    std::strftime(time, sizeof time, "%Y%m%dT%H%M%SZ", &utc);
    std::snprintf(id, sizeof id, "%s-%08x", time, random);
    return id;
}

bool is_image_id(std::string_view text) noexcept {
    if (text.size() != id_shape.size())
        return false;
    for (std::size_t at = 0; at < text.size(); ++at)
        if (!fits(id_shape[at], text[at]))
            return false;
    const auto pair = [&](std::size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
    const int month = pair(4), day = pair(6);
    return month >= 1 && month <= 12 && day >= 1 && day <= 31 && pair(9) < 24 && pair(11) < 60 && pair(13) <= 60;
}

struct NewImage::State {
    std::shared_ptr<Store::State> store;
    std::string id;
    std::optional<Claim> claim;
    Descriptor objects;
    const char *operation = "";
    bool may_be_recorded = false; // a crash could bring a record back whose transaction failed
    bool is_committed = false;

    std::string path(const std::string &name = "") const {
        return store->path + "/images/" + claim->name + (name.empty() ? "" : "/" + name);
    }
    ~State();
};

// What cannot be removed here stays as debris; somebody who can tell of it removes it.
NewImage::State::~State() {
    if (is_committed || !claim)
        return;
    try {
        const Hush hush;
        const char *const by = operation;
        if (may_be_recorded)
            store->catalog->seal(by);
        remove_folder(
            *store, std::move(*claim), id,
            [by](int directory, const char *name) { remove_plainly(directory, name, by); }, by);
    } catch (...) {
        return;
    }
}

NewImage::NewImage(std::unique_ptr<State> state) : state_(std::move(state)) {}
NewImage::NewImage(NewImage &&) noexcept = default;
NewImage &NewImage::operator=(NewImage &&) noexcept = default;
NewImage::~NewImage() = default;

int NewImage::objects() const noexcept {
    return state_->objects.get();
}

int NewImage::directory() const noexcept {
    return state_->claim->directory.get();
}

std::string NewImage::object_name(std::size_t index) {
    return std::to_string(index);
}

namespace {

void refuse_taken(const Store::State &store, const std::string &id, const char *operation) {
    struct stat status {};
    for (const std::string &taken : {id, old_prefix + id, new_prefix + id})
        if (fstatat(store.images.get(), taken.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            fail(message::already_exists, QFI_FI_EXISTS, operation, {store.path + "/images/" + taken});
    if (store.catalog->has(id, operation))
        fail(message::already_exists, QFI_FI_EXISTS, operation, {id});
}

void make_objects(NewImage::State &image) {
    const int directory = image.claim->directory.get();
    if (mkdirat(directory, objects_name, 0700) != 0)
        fail_call(image.operation, "mkdir", image.path(objects_name), errno, false);
    image.objects.reset(openat(directory, objects_name, directory_flags));
    if (!image.objects)
        fail_call(image.operation, "open", image.path(objects_name), errno, true);
}

// With the store's lock held, which removing a whole folder takes.
void unmake(const Store::State &store, const std::string &name, NewImage::State &image) noexcept {
    if (image.claim) {
        unlinkat(image.claim->directory.get(), objects_name, AT_REMOVEDIR);
        unlinkat(image.claim->directory.get(), lock_name, 0);
        image.claim.reset();
    }
    unlinkat(store.images.get(), name.c_str(), AT_REMOVEDIR);
}

} // namespace

NewImage Store::begin(const std::string &id, const char *operation) {
    require(is_image_id(id), operation, "this is no id of an image");
    require_writable(operation);
    auto image = std::make_unique<NewImage::State>();
    image->store = state_;
    image->id = id;
    image->operation = operation;
    const std::string name = new_prefix + id;
    const FileLock lock = lock_store(*state_, operation);
    refuse_taken(*state_, id, operation);
    if (mkdirat(state_->images.get(), name.c_str(), 0700) != 0)
        fail_call(operation, "mkdir", image_path(name), errno, false);
    try {
        if (claim_folder(*state_, name, image->claim, operation) != Claimed::yes)
            fail(message::busy, QFI_FI_BUSY, operation, {image_path(name)});
        make_objects(*image);
    } catch (...) {
        unmake(*state_, name, *image);
        throw;
    }
    return NewImage(std::move(image));
}

namespace {

// Manifests, report and id document.
void sync_files(int directory, const std::string &path, const char *operation) {
    for (const std::string &name : names_in(directory, path, operation)) {
        struct stat status {};
        if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode))
            continue;
        const Descriptor file(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file)
            fail_call(operation, "open", path + "/" + name, errno, true);
        sync_file(file.get(), path + "/" + name, operation);
    }
}

} // namespace

void NewImage::commit(const ImageRecord &record, const std::string &fiid, const char *operation) {
    State &state = *state_;
    state.operation = operation;
    require(record.id == state.id, operation, "the record is of another image");
    const int directory = state.claim->directory.get();
    const int images = state.store->images.get();
    write_file(directory, "fiid.xml", state.path("fiid.xml"), fiid, operation);
    write_file(directory, unrecorded_name, state.path(unrecorded_name), "", operation);
    if (syncfs(state.objects.get()) != 0)
        fail_call(operation, "syncfs", state.path(objects_name), errno, false);
    sync_files(directory, state.path(), operation);
    sync_file(state.objects.get(), state.path(objects_name), operation);
    sync_file(directory, state.path(), operation);
    if (rename_directory(images, state.claim->name.c_str(), images, state.id.c_str()) != 0)
        fail_call(operation, "rename", state.path(), errno, false);
    state.claim->name = state.id;
    sync_file(images, state.store->path + "/images", operation);
    state.may_be_recorded = true;
    state.store->catalog->add(record, operation);
    state.is_committed = true;
    unmark(directory);
    if (record.state != 0)
        state.claim->lock.reset();
}

void NewImage::note_stores(const std::vector<std::shared_ptr<Store>> &stores, const char *operation) {
    write_stores(state_->claim->directory.get(), stores, state_->path(lock_name), operation);
}

void NewImage::settle(const std::vector<NewImage *> &set) {
    for (const NewImage *const image : set)
        image->state_->store->catalog->note_whole(image->state_->id, image->state_->operation);
    for (const NewImage *const image : set)
        image->state_->store->catalog->settle(image->state_->id, image->state_->operation);
}

namespace {

template <class Take>
void take_back(NewImage::State &image, Take &&take) noexcept {
    if (!image.is_committed)
        return;
    try {
        const Hush hush;
        take(*image.store->catalog);
    } catch (...) {
        return;
    }
}

} // namespace

// What is pending again is an incomplete set as soon as one is gone. A record that cannot be erased keeps its files.
void NewImage::withdraw(const std::vector<NewImage *> &set) noexcept {
    if (set.size() > 1)
        for (const NewImage *const image : set)
            take_back(*image->state_,
                      [&](Catalog &catalog) { catalog.unsettle(image->state_->id, image->state_->operation); });
    for (const NewImage *const image : set)
        take_back(*image->state_, [&](Catalog &catalog) {
            State &state = *image->state_;
            erase_record(
                *state.store, *state.claim, [&] { return catalog.erase(state.id, state.operation); }, state.operation);
            image->state_->is_committed = image->state_->may_be_recorded = false;
        });
}

} // namespace qzfi::fi
