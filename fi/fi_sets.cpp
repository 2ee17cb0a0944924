// Sets of images: found whole, or not at all.
#include <algorithm>

#include "fi/fi_images.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

void add_named(const FoundImage &image, std::set<std::string> &ids, const char *operation) {
    const std::string &id = image.record.id, path = image.store->image_path(id) + "/fiid.xml";
    KeptFailure failure;
    try {
        const Keep keep(failure);
        const Descriptor folder = image.store->open_image(id, operation);
        for (const FiidImage &named : read_fiid(read_document(folder.get(), path, operation), operation).images)
            ids.insert(named.record.id);
    } catch (const Failure &thrown) {
        if (thrown.status == QFI_STATUS_NO_MEMORY)
            throw;
        if (!image.store->find(id, operation)) // removed meanwhile
            fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
        fail(message::damaged, QFI_FI_DAMAGED, operation, {id, path, failure.cause()});
    }
}

} // namespace

// Each document is asked, for one image of a set may have been imported alone, with a document that names no other.
std::set<std::string> missing_of_set(const std::vector<FoundImage> &images, const char *operation) {
    std::set<std::string> ids, gone;
    const FoundImage *unread = nullptr;
    for (const FoundImage &image : images) {
        if (image.record.state == 3)
            continue; // its files are missing, the document too
        try {
            const Hush hush;
            add_named(image, ids, operation);
        } catch (const Failure &failure) {
            if (failure.status == QFI_STATUS_NO_MEMORY)
                throw;
            if (failure.status == QFI_FI_NO_SUCH_IMAGE)
                gone.insert(image.record.id);
            else
                unread = &image;
        }
    }
    if (ids.empty() && gone.empty() && unread != nullptr)
        add_named(*unread, ids, operation); // says why
    for (const FoundImage &image : images)
        ids.erase(image.record.id);
    ids.merge(gone);
    return ids;
}

std::vector<FoundImage> find_whole(const std::string &id, const char *store, const char *operation) {
    std::vector<FoundImage> images = all_images(store, operation);
    std::erase_if(images, [&](const FoundImage &image) { return !image.is_named(id); });
    if (images.empty())
        fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {id});
    const bool is_image =
        std::any_of(images.begin(), images.end(), [&](const FoundImage &image) { return image.record.id == id; });
    if (is_image)
        return images;
    const std::set<std::string> missing = missing_of_set(images, operation);
    if (!missing.empty())
        fail(message::set_not_whole, QFI_FI_NO_SUCH_IMAGE, operation, {*missing.begin(), id});
    return images;
}

std::shared_ptr<Tree> tree_of_image(const std::string &id, const char *store, const char *operation) {
    return tree_of_records(find_whole(id, store, operation));
}

namespace {

// The known stores, and, where that fails, the one that the document names, which need not be known.
std::optional<FoundImage> look_for(const FiidImage &wanted, const std::vector<FoundImage> &known, bool elsewhere,
                                   const char *operation) {
    const auto is_it = [&](const FoundImage &image) {
        return image.record.id == wanted.record.id && image.record.set_id == wanted.record.set_id;
    };
    const auto place = std::find_if(known.begin(), known.end(), is_it);
    if (place != known.end())
        return *place;
    if (!elsewhere)
        return std::nullopt;
    try {
        const Hush hush;
        return look_for(wanted, all_images(wanted.store.c_str(), operation), false, operation);
    } catch (const Failure &) {
        return std::nullopt; // told by the caller, with the image's id
    }
}

} // namespace

std::shared_ptr<Tree> tree_of_document(const Fiid &fiid, const char *store, const char *operation) {
    const std::vector<FoundImage> known = all_images(store, operation);
    std::vector<FoundImage> found;
    std::set<std::string> ids;
    for (const FiidImage &wanted : fiid.images) {
        if (!ids.insert(wanted.record.id).second)
            continue;
        std::optional<FoundImage> image = look_for(wanted, known, store == nullptr, operation);
        if (!image)
            fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {wanted.record.id});
        found.push_back(std::move(*image));
    }
    if (found.empty())
        fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation, {fiid.set_id});
    return tree_of_records(std::move(found));
}

} // namespace qzfi::fi
