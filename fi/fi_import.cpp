// Importing exported images. Nothing in the folder is trusted: its document is checked by itself, then the folder by
// the document.
//
// Images are copied, with clones where the file system has them, even where they could be renamed: a crash between the
// rename and the record would leave the only copy where nobody lists it.
#include <algorithm>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_compare.h"
#include "fi/fi_engine_host.h"
#include "fi/fi_export.h"
#include "fi/fi_fiid.h"
#include "fi/fi_images.h"
#include "fi/fi_place.h"
#include "fi/fi_report.h"
#include "fi/fi_store_folders.h"
#include "fi/fi_unkept.h"

namespace qzfi::fi {

namespace {

constexpr off_t document_limit = 16 * 1024 * 1024;

[[noreturn]] void fail_folder(const std::string &id, const std::string &path, const std::string &why,
                              const char *operation) {
    fail(message::damaged, QFI_FI_DAMAGED, operation, {id, path, why});
}

// An entry that must be of a type. A link is somebody's attempt to lead elsewhere.
void require_type(int directory, const std::string &name, mode_t type, const std::string &id, const std::string &path,
                  const char *operation) {
    struct stat status {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        fail_folder(id, path, error_text(errno), operation);
    if (S_ISLNK(status.st_mode))
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {path, "it is a symbolic link"});
    if ((status.st_mode & S_IFMT) != type)
        fail_folder(id, path, type == S_IFDIR ? "it is no directory" : "it is no file", operation);
}

std::set<std::string> ids_of(const Fiid &fiid) {
    std::set<std::string> ids;
    for (const FiidImage &image : fiid.images)
        ids.insert(image.record.id);
    return ids;
}

} // namespace

std::string read_export_document(int folder, const std::string &folder_path, const char *operation) {
    const std::string path = folder_path + "/" + export_document;
    const Descriptor file(open_beneath(folder, export_document, O_RDONLY | O_NOFOLLOW));
    if (!file && errno == ENOENT)
        fail(message::bad_fiid, QFI_FI_BAD_FIID, operation, {folder_path + " holds no " + export_document});
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        fail_call(operation, "open", path, errno, true);
    if (!S_ISREG(status.st_mode) || status.st_size > document_limit)
        fail(message::bad_fiid, QFI_FI_BAD_FIID, operation, {path + " is no file of at most 16 MiB"});
    return read_file(file.get(), path, document_limit, operation);
}

namespace {

bool has_folder(const Store &store, const std::string &id) {
    struct stat status {};
    return fstatat(store.images(), id.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT;
}

class Import {
public:
    Import(const char *directory, const qfi_import_options &options, const char *operation)
        : options_(options), operation_(operation), place_(open_place(directory, operation)),
          folder_(open_without_links(place_.path, O_RDONLY | O_DIRECTORY, operation)),
          fiid_(read_fiid(read_export_document(folder_.get(), place_.path, operation), operation)) {}

    void require_expected(const qfi_fiid &expected) const {
        require(expected.document != nullptr, operation_, "the expected id document is null");
        const Fiid other = read_fiid({expected.document, expected.length}, operation_);
        if (other.set_id != fiid_.set_id || ids_of(other) != ids_of(fiid_))
            fail(message::bad_fiid, QFI_FI_BAD_FIID, operation_,
                 {"the images in " + place_.path + " are not those that were expected"});
    }

    void require_sound() const {
        if (fiid_.images.empty())
            fail(message::bad_fiid, QFI_FI_BAD_FIID, operation_, {"it names no image"});
        const std::set<std::string> ids = ids_of(fiid_);
        if (ids.size() != fiid_.images.size())
            fail(message::bad_fiid, QFI_FI_BAD_FIID, operation_, {"it names an image twice"});
        for (const std::string &name : names_in(folder_.get(), place_.path, operation_))
            if (name != export_document && name != export_unfinished && ids.count(name) == 0)
                fail_folder(fiid_.set_id, place_.path + "/" + name, "the id document does not name it", operation_);
        for (const FiidImage &image : fiid_.images)
            require_sound_image(image.record);
    }

    // The folder is removed.
    void refuse_stores_within(const std::string &store) const {
        constexpr const char *what = "nothing is imported from a folder that a store lies in";
        require(!would_lie_in(store, folder_.get()), operation_, what);
        for (const std::string &known : known_stores())
            require(!would_lie_in(known, folder_.get()), operation_, what);
    }

    // As a freeze does: all of the set appear or none, also when this process dies meanwhile.
    void take_over(Store &store) {
        std::vector<NewImage> images;
        Fiid document{fiid_.set_id, {}};
        for (const FiidImage &image : fiid_.images) {
            document.images.push_back({image.record, store.path()});
            images.push_back(copied(store, document.images.back().record));
            for (ImageObject &object : document.images.back().record.objects)
                object.subpath.clear(); // copied without what is around it
        }
        commit_all(images, document);
    }

    // The images are in the store, so what cannot be removed is told, also to who takes no tree, but no failure.
    void remove_source(Tree &tree) const {
        if (options_.keep_source != 0)
            return;
        if (!unkept_.empty())
            return tell_that_source_stays(tree);
        KeptFailure failure;
        try {
            const Keep keep(failure);
            for (const FiidImage &image : fiid_.images)
                remove_snapshots(image.record);
            remove_plainly(place_.parent.get(), place_.name.c_str(), operation_);
            return;
        } catch (const Failure &) {
            tell(message::folder_stays, operation_, {place_.path, failure.cause()});
        }
        tree.found_remarks.push_back(
            {QFI_REMARK_WARNING, 0, place_.path, "", "imported, but this folder could not be removed: remove it"});
    }

    const Fiid &fiid() const noexcept { return fiid_; }

private:
    // It has what the store has not.
    void tell_that_source_stays(Tree &tree) const {
        for (const auto &[id, unkept] : unkept_)
            tell(message::source_stays, operation_,
                 {id, unkept.path(), unkept.cause(), std::to_string(unkept.count())});
        tree.found_remarks.push_back(
            {QFI_REMARK_WARNING, 0, place_.path, "",
             "imported, but this folder stays: it has attributes that the store does not keep"});
    }

    std::string path_of(const ImageRecord &record, const std::string &below = "") const {
        return place_.path + "/" + record.id + (below.empty() ? "" : "/" + below);
    }

    void require_sound_image(const ImageRecord &record) const {
        require_type(folder_.get(), record.id, S_IFDIR, record.id, path_of(record), operation_);
        const Descriptor directory = open_image(record);
        std::set<std::string> expected{objects_name, report_name, export_document, lock_name};
        for (std::size_t index = 0; index < record.objects.size(); ++index)
            expected.insert(HeldImage::manifest_name(index));
        for (const std::string &name : names_in(directory.get(), path_of(record), operation_)) {
            if (expected.count(name) == 0)
                fail_folder(record.id, path_of(record, name), "it does not belong there", operation_);
            require_type(directory.get(), name, name == objects_name ? S_IFDIR : S_IFREG, record.id,
                         path_of(record, name), operation_);
        }
        require_short_report(record, directory.get());
        require_sound_objects(record, directory.get());
    }

    // It is held in memory when it is read. Manifests are read piece by piece.
    void require_short_report(const ImageRecord &record, int directory) const {
        struct stat status {};
        if (fstatat(directory, report_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_size > static_cast<off_t>(report_limit))
            fail_folder(record.id, path_of(record, report_name), "it is larger than 64 MiB", operation_);
    }

    void require_sound_objects(const ImageRecord &record, int directory) const {
        const Descriptor objects(open_beneath(directory, objects_name, O_RDONLY | O_DIRECTORY));
        if (!objects)
            fail_folder(record.id, path_of(record, objects_name), error_text(errno), operation_);
        const std::vector<std::string> names = names_in(objects.get(), path_of(record, objects_name), operation_);
        if (names.size() != record.objects.size())
            fail_folder(record.id, path_of(record, objects_name),
                        "it holds " + std::to_string(names.size()) + " objects, and the id document names " +
                            std::to_string(record.objects.size()),
                        operation_);
        for (std::size_t index = 0; index < record.objects.size(); ++index) {
            const std::string name = NewImage::object_name(index);
            require_type(objects.get(), name, S_IFDIR, record.id, path_of(record, "objects/" + name), operation_);
            open_object(record, index);
        }
    }

    Descriptor open_image(const ImageRecord &record) const {
        Descriptor directory(open_beneath(folder_.get(), record.id.c_str(), O_RDONLY | O_DIRECTORY));
        if (!directory)
            fail_call(operation_, "open", path_of(record), errno, true);
        return directory;
    }

    Descriptor open_object(const ImageRecord &record, std::size_t index) const {
        const std::string &subpath = record.objects[index].subpath;
        const std::string below =
            std::string(objects_name) + "/" + NewImage::object_name(index) + (subpath.empty() ? "" : "/" + subpath);
        const Descriptor directory = open_image(record);
        Descriptor object(open_beneath(directory.get(), below.c_str(), O_RDONLY | O_DIRECTORY));
        if (!object && (errno == ENOENT || errno == ENOTDIR))
            fail_folder(record.id, path_of(record, below), error_text(errno), operation_);
        if (!object)
            fail_call(operation_, "open", path_of(record, below), errno, true);
        return object;
    }

    void commit_all(std::vector<NewImage> &images, const Fiid &document) const {
        const std::string text = write_fiid(document, operation_);
        std::vector<NewImage *> set;
        set.reserve(images.size());
        for (NewImage &image : images)
            set.push_back(&image);
        try {
            for (std::size_t index = 0; index < images.size(); ++index) {
                ImageRecord record = document.images[index].record;
                record.state = images.size() > 1 ? 0 : 1;
                images[index].commit(record, text, operation_);
            }
            if (images.size() > 1)
                NewImage::settle(set);
        } catch (...) {
            NewImage::withdraw(set);
            throw;
        }
    }

    // Changes the record where the copy is not all that the exported image is.
    NewImage copied(Store &store, ImageRecord &record) {
        refuse_present(store, record.id);
        NewImage image = store.begin(record.id, operation_);
        const Descriptor directory = open_image(record);
        Unkept unkept;
        for (std::size_t index = 0; index < record.objects.size(); ++index) {
            copy_object(record, index, image, unkept);
            copy_if_there(directory.get(), image.directory(), HeldImage::manifest_name(index), record);
            if (options_.verify != 0)
                verify_object(record, index, image, unkept);
        }
        take_report(directory.get(), image, unkept, record);
        if (unkept.count() != 0)
            unkept_.emplace_back(record.id, std::move(unkept));
        return image;
    }

    void take_report(int directory, const NewImage &image, const Unkept &unkept, ImageRecord &record) const {
        StoredReport report = report_so_far(directory, record.remarks, operation_, record.id, path_of(record));
        // A document that says less than the report must not hide losses.
        record.remarks = std::max(record.remarks, report.count);
        if (unkept.remark_count() == 0)
            return copy_if_there(directory, image.directory(), report_name, record);
        unkept.put(report);
        record.remarks = std::max(record.remarks, report.count);
        write_report(image.directory(), std::move(report.remarks), report.count, operation_, path_of(record));
    }

    // A record whose files are gone, as a deport that was cut short leaves it, makes way.
    void refuse_present(Store &store, const std::string &id) const {
        const std::optional<ImageRecord> present = store.find(id, operation_);
        if (present && !has_folder(store, id))
            store.remove(id, operation_, [](int, const char *) {});
        for (const FoundImage &image : all_images(nullptr, operation_))
            if (image.record.id == id && (image.record.state != 3 || has_folder(*image.store, id)))
                fail(message::already_exists, QFI_FI_EXISTS, operation_, {image.store->image_path(id)});
    }

    void copy_if_there(int from, int to, const std::string &name, const ImageRecord &record) const {
        struct stat status {};
        if (fstatat(from, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            copy_plain_file(from, to, name.c_str(), path_of(record, name), operation_);
    }

    // An image that lacks entries is none; attributes that cannot be kept, such as owners by a user who may give
    // nothing away, are remarks.
    void copy_object(const ImageRecord &record, std::size_t index, const NewImage &image, Unkept &unkept) const {
        const Descriptor source = open_object(record, index);
        const std::string name = NewImage::object_name(index);
        const std::string path = path_of(record, std::string(objects_name) + "/" + name);
        Progress progress(operation_, path);
        EngineHost host(operation_, path, &progress);
        std::string lost;
        host.on_remark([&](const qfi_remark &remark) {
            unkept.add(remark, source.get(), record.objects[index].path);
            if (is_loss(remark.kind))
                lost = std::string(remark.path) + ": " + remark.detail +
                       (remark.error != 0 ? ": " + error_text(remark.error) : "");
        });
        engine::Options options;
        options.data = engine::Data::clone_or_copy;
        options.nested_volumes = true; // of a snapshot that was exported with them
        host.check(engine::copy_tree(source.get(), image.objects(), name.c_str(), options, host.record()), false);
        if (!lost.empty())
            fail_folder(record.id, path, lost, operation_);
        unkept.require_noted();
        if (unkept.lacks_entries())
            unkept.refuse(record.id, operation_);
        progress.finish();
    }

    void verify_object(const ImageRecord &record, std::size_t index, const NewImage &image,
                       const Unkept &unkept) const {
        const std::string manifest = HeldImage::manifest_name(index);
        struct stat status {};
        if (fstatat(image.directory(), manifest.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (record.entries != 0) // they were counted when it was written
                fail_folder(record.id, path_of(record, manifest), "it is missing", operation_);
            return;
        }
        const std::string path = path_of(record, "objects/" + NewImage::object_name(index));
        const Descriptor copy(
            open_beneath(image.objects(), NewImage::object_name(index).c_str(), O_RDONLY | O_DIRECTORY));
        if (!copy)
            fail_call(operation_, "open", path, errno, true);
        Progress progress(operation_, path);
        WalkOptions options;
        options.digest = record.has_digests;
        options.nested = true; // what it holds is its own
        options.progress = &progress;
        ManifestReader expected(image.directory(), manifest.c_str(), operation_, path);
        ManifestReader present = walked(copy.get(), path, options, operation_);
        const LostAttributes lost(unkept.remarks(), unkept.remark_count(), record.objects[index].path);
        compare_with_manifest(expected, present, lost,
                              [&](uint32_t, const ManifestEntry *old, const ManifestEntry *now) {
                                  const std::string &below = old != nullptr ? old->path : now->path;
                                  fail_folder(record.id, path + (below.empty() ? "" : "/" + below),
                                              "it is not as its manifest says", operation_);
                              });
    }

    // Read-only snapshots, which an export by renaming leaves as they are.
    void remove_snapshots(const ImageRecord &record) const {
        const Provider *const provider = find_provider(record.provider_id);
        const Descriptor directory = open_image(record);
        const Descriptor objects(open_beneath(directory.get(), objects_name, O_RDONLY | O_DIRECTORY));
        if (provider == nullptr || provider->ops->remove == nullptr || !objects)
            return;
        for (std::size_t index = 0; index < record.objects.size(); ++index) {
            const std::string name = NewImage::object_name(index), path = path_of(record, "objects/" + name);
            JobHost host(operation_, path, nullptr);
            qfi_provider_job job{};
            job.size = sizeof job;
            job.host = host.record();
            job.object = path.c_str();
            job.source = -1;
            job.target = objects.get();
            job.name = name.c_str();
            job.workers = 2;
            host.check(provider->ops->remove(&job), *provider);
        }
    }

    const qfi_import_options &options_;
    const char *operation_;
    Place place_;
    Descriptor folder_;
    Fiid fiid_;
    std::vector<std::pair<std::string, Unkept>> unkept_; // of images, by their ids
};

} // namespace

std::shared_ptr<Tree> import_images(const char *directory, const char *store_path, const qfi_fiid *expected,
                                    const qfi_import_options &options, const char *operation) {
    Import incoming(directory, options, operation);
    if (expected != nullptr)
        incoming.require_expected(*expected);
    incoming.require_sound();
    const std::string path = normal_store_path(store_path != nullptr ? store_path : default_store_path());
    incoming.refuse_stores_within(path);
    const std::shared_ptr<Store> store = open_to_fill(path, operation);
    incoming.take_over(*store);
    remember_store(store->path());
    std::shared_ptr<Tree> tree = tree_of_document(incoming.fiid(), store->path().c_str(), operation);
    incoming.remove_source(*tree);
    return tree;
}

} // namespace qzfi::fi
