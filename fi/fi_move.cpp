// Exporting images into a folder:
//
//     DIRECTORY/fiid.xml      what is exported
//     DIRECTORY/ID/objects/N, manifest.N, report
#include <algorithm>
#include <fcntl.h>
#include <limits>
#include <linux/fs.h>
#include <linux/stat.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_compare.h"
#include "fi/fi_export.h"
#include "fi/fi_fiid.h"
#include "fi/fi_images.h"
#include "fi/fi_place.h"
#include "fi/fi_report.h"
#include "fi/fi_restore_copy.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

// What lies before `end`, from a position on at which both files are; where the source ends, if it does so before.
off_t copy_data(int from, int to, off_t position, off_t end, std::string &buffer, const std::string &path,
                const char *operation) {
    while (position < end) {
        const auto size = static_cast<std::size_t>(std::min<off_t>(end - position, static_cast<off_t>(buffer.size())));
        const std::size_t count = read_at(from, buffer.data(), size, position, path, operation);
        if (count == 0)
            return std::numeric_limits<off_t>::max();
        write_to(to, {buffer.data(), count}, path, operation);
        position += static_cast<off_t>(count);
    }
    return position;
}

} // namespace

void copy_plain_file(int from, int to, const char *name, const std::string &path, const char *operation) {
    const Descriptor source(open_beneath(from, name, O_RDONLY | O_NOFOLLOW));
    if (!source)
        fail_call(operation, "open", path, errno, true);
    const Descriptor target(openat(to, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!target)
        fail_call(operation, "open", path, errno, false);
    struct stat status {};
    if (fstat(source.get(), &status) != 0)
        fail_call(operation, "fstat", path, errno, true);
    std::string buffer(256 * 1024, '\0');
    for (off_t position = 0; position < status.st_size;) {
        // Holes stay holes: a file that takes no space at its source must not fill the store.
        const off_t data = lseek(source.get(), position, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            break;
        const off_t hole = data < 0 ? -1 : lseek(source.get(), data, SEEK_HOLE);
        if (hole < 0 || lseek(target.get(), data, SEEK_SET) != data)
            fail_call(operation, "lseek", path, errno, true);
        position = copy_data(source.get(), target.get(), data, std::min(hole, status.st_size), buffer, path, operation);
    }
    if (ftruncate(target.get(), status.st_size) != 0)
        fail_call(operation, "ftruncate", path, errno, false);
    sync_file(target.get(), path, operation);
}

Descriptor make_directory(int at, const std::string &name, const std::string &path, const char *operation) {
    if (mkdirat(at, name.c_str(), 0700) != 0)
        fail_call(operation, "mkdir", path, errno, false);
    Descriptor directory(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory)
        fail_call(operation, "open", path, errno, false);
    return directory;
}

namespace {

// Whether an entry of one can be renamed into the other.
bool same_mount(int one, int other) {
    struct statx first {
    }, second{};
    constexpr unsigned mask = STATX_BASIC_STATS | STATX_MNT_ID;
    if (statx(one, "", AT_EMPTY_PATH, mask, &first) != 0 || statx(other, "", AT_EMPTY_PATH, mask, &second) != 0)
        return false;
    return first.stx_mnt_id == second.stx_mnt_id && first.stx_dev_major == second.stx_dev_major &&
           first.stx_dev_minor == second.stx_dev_minor;
}

// A folder that passes its project on takes nothing in that is of another one.
bool same_project(int image, int folder) {
    fsxattr from{}, to{};
    if (ioctl(folder, FS_IOC_FSGETXATTR, &to) != 0 || (to.fsx_xflags & FS_XFLAG_PROJINHERIT) == 0)
        return true;
    return ioctl(image, FS_IOC_FSGETXATTR, &from) == 0 && from.fsx_projid == to.fsx_projid;
}

class Export {
public:
    Export(TreeLock &tree, const char *directory, const char *operation)
        : tree_(tree), operation_(operation), place_(open_place(directory, operation)) {}

    std::string run() {
        refuse_in_stores(place_, stores_of(*tree_), "nothing is exported into a store", operation_);
        // What could not be removed there afterwards would be in two places.
        for (const TreeFilesystem &filesystem : tree_->filesystems)
            filesystem.store->require_writable(operation_);
        Workshop workshop(place_, operation_);
        std::string document = begun_before();
        claim_all(); // a reader is told of at once, not when all was copied
        if (document.empty())
            document = publish(workshop);
        else
            sync_file(place_.parent.get(), place_.path, operation_); // which who was killed may not have come to
        for (Part &part : parts_)
            if (!part.is_there)
                move(*part.filesystem, *part.claim);
        for (Part &part : parts_)
            if (part.is_there)
                take_away(part);
        if (unlinkat(folder_.get(), export_unfinished, 0) == 0)
            sync_file(folder_.get(), place_.path, operation_);
        return document;
    }

private:
    // An image on its way into the folder.
    struct Part {
        const TreeFilesystem *filesystem;
        bool is_there;              // in the folder
        std::optional<Claim> claim; // of its folder in the store, if that is there
    };

    // An export to this folder that was cut short: gives its document, and goes on with what is missing there, or still
    // in a store. What was copied was there when the folder was.
    std::string begun_before() {
        try {
            const Hush hush;
            folder_ = open_without_links(place_.path, O_RDONLY | O_DIRECTORY, operation_);
            if (!is_own(folder_.get()))
                return {};
            std::string document = read_export_document(folder_.get(), place_.path, operation_);
            return is_unfinished(read_fiid(document, operation_)) ? document : std::string();
        } catch (const Failure &failure) {
            if (failure.status == QFI_STATUS_NO_MEMORY)
                throw;
            return {};
        }
    }

    // Whether nobody else can have filled a folder: what is taken to be there is removed from its store.
    static bool is_own(int folder) {
        struct stat status {};
        return fstat(folder, &status) == 0 && status.st_uid == geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    }

    static bool has(int directory, const char *name) {
        struct stat status {};
        return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

    // Of a finished export all is there, and an image that is in a store as well was imported again.
    bool is_unfinished(const Fiid &fiid) {
        bool is_begun = has(folder_.get(), export_unfinished), is_twice = false;
        std::vector<Part> parts;
        for (const TreeFilesystem &filesystem : tree_->filesystems) {
            const char *const id = filesystem.record.id.c_str();
            const int images = filesystem.store->images();
            const bool is_there = has(folder_.get(), id), is_in_store = has(images, id);
            if (!is_named(filesystem, fiid) || (!is_there && !(is_in_store && same_mount(images, folder_.get()) &&
                                                               same_project(*filesystem.store, id))))
                return false;
            if (is_there && is_in_store && !has_all_of(filesystem))
                return false;
            is_begun = is_begun || !is_there;
            is_twice = is_twice || (is_there && is_in_store);
            parts.push_back({&filesystem, is_there, std::nullopt});
        }
        if (is_twice && !is_begun)
            return false;
        parts_ = std::move(parts);
        return true;
    }

    // Somebody may have removed a part of the folder since.
    bool has_all_of(const TreeFilesystem &filesystem) const {
        const HeldImage image(filesystem, operation_);
        const std::string &id = filesystem.record.id;
        const Descriptor directory(open_beneath(folder_.get(), id.c_str(), O_RDONLY | O_DIRECTORY));
        if (!directory)
            return false;
        for (const std::string &name : names_in(image.directory(), image.path(), operation_))
            if (name != lock_name && name != export_document && !has(directory.get(), name.c_str()))
                return false;
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index) {
            const std::string object = std::string(objects_name) + "/" + NewImage::object_name(index);
            const Descriptor copy(open_beneath(directory.get(), object.c_str(), O_RDONLY | O_DIRECTORY));
            if (!copy || !is_whole_copy(image, index, copy.get(), operation_))
                return false;
        }
        return true;
    }

    bool same_project(const Store &store, const char *id) const {
        const Descriptor image(
            openat(store.images(), id, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        return image && fi::same_project(image.get(), folder_.get());
    }

    static bool is_named(const TreeFilesystem &filesystem, const Fiid &fiid) {
        const ImageRecord &record = filesystem.record;
        const auto is_it = [&](const FiidImage &image) {
            return image.record.id == record.id && image.record.set_id == record.set_id;
        };
        return std::any_of(fiid.images.begin(), fiid.images.end(), is_it);
    }

    // Alone with each image, before anything of them is touched.
    void claim_all() {
        if (parts_.empty())
            for (const TreeFilesystem &filesystem : tree_->filesystems)
                parts_.push_back({&filesystem, false, std::nullopt});
        for (Part &part : parts_)
            claim(part);
    }

    void claim(Part &part) const {
        Store &store = *part.filesystem->store;
        const std::string &id = part.filesystem->record.id;
        Claimed claimed;
        {
            const FileLock lock = lock_store(store.state(), operation_);
            claimed = claim_folder(store.state(), id, part.claim, operation_);
        }
        if (claimed == Claimed::busy)
            fail(message::busy, QFI_FI_BUSY, operation_, {id});
        if (!store.find(id, operation_))
            fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation_, {id});
        if (claimed == Claimed::missing && !part.is_there)
            store.open_image(id, operation_); // says what is wrong with it
    }

    // The folder appears complete and synced, but for what is moved by one rename each: nothing is lost at any moment.
    std::string publish(Workshop &workshop) {
        const bool over_empty = refuse_existing(place_, operation_);
        folder_ = make_directory(workshop.directory(), Workshop::tree, place_.path, operation_);
        Fiid fiid{tree_->set_id, {}};
        for (Part &part : parts_)
            fiid.images.push_back({exported(part), place_.path});
        std::string document = write_fiid(fiid, operation_);
        write_synced(export_document, document);
        if (std::any_of(parts_.begin(), parts_.end(), [](const Part &part) { return part.is_there; }))
            write_synced(export_unfinished, "");
        sync_file(folder_.get(), place_.path, operation_);
        workshop.put(over_empty);
        return document;
    }

    void write_synced(const char *name, const std::string &content) const {
        const std::string path = place_.path + "/" + name;
        sync_file(write_file(folder_.get(), name, path, content, operation_).get(), path, operation_);
    }

    // Tried before anything is published: file systems have more reasons to refuse than can be asked for.
    bool can_move(Store &store, int image) const {
        constexpr const char *trial = "trial";
        if (!same_mount(store.images(), folder_.get()) || !fi::same_project(image, folder_.get()))
            return false;
        const NewImage made = store.begin(new_image_id(), operation_);
        if (rename_directory(made.directory(), objects_name, folder_.get(), trial) != 0) {
            if (errno == EXDEV)
                return false;
            fail_call(operation_, "rename", place_.path, errno, false);
        }
        if (unlinkat(folder_.get(), trial, AT_REMOVEDIR) != 0)
            fail_call(operation_, "rmdir", place_.path + "/" + trial, errno, false);
        return true;
    }

    // What the document says of an image, which was copied unless it can be moved.
    ImageRecord exported(Part &part) const {
        const TreeFilesystem &filesystem = *part.filesystem;
        ImageRecord record = filesystem.record;
        const HeldImage image(filesystem, part.claim->directory.get(), operation_);
        record.nested = image.includes_nested();
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
            image.object(index); // there
        if (can_move(*filesystem.store, image.directory()))
            return record;
        copy(image, record);
        part.is_there = true;
        for (ImageObject &object : record.objects)
            object.subpath.clear(); // copied without what is around it
        return record;
    }

    // The store's image goes, so the copy must be all of it.
    void copy(const HeldImage &image, ImageRecord &record) const {
        const std::string path = place_.path + "/" + record.id;
        const Descriptor directory = make_directory(folder_.get(), record.id, path, operation_);
        const Descriptor objects = make_directory(directory.get(), objects_name, path + "/objects", operation_);
        Findings counts;
        Unkept unkept;
        const CopyOut how{operation_, tree_->options.workers, &tree_.progress(), &counts, &unkept};
        for (std::size_t index = 0; index < image.filesystem().objects.size(); ++index) {
            copy_out(image, index, "", objects.get(), NewImage::object_name(index).c_str(), how);
            copy_if_there(image, directory.get(), HeldImage::manifest_name(index), path);
        }
        unkept.require_noted();
        if (unkept.count() != 0)
            unkept.refuse(record.id, operation_);
        if (unkept.remark_count() == 0)
            copy_if_there(image, directory.get(), report_name, path);
        else
            add_to_report(image, directory.get(), unkept, record, path);
        sync_file(objects.get(), path + "/objects", operation_);
        sync_file(directory.get(), path, operation_);
    }

    void copy_if_there(const HeldImage &image, int directory, const std::string &name, const std::string &path) const {
        struct stat status {};
        if (fstatat(image.directory(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
            copy_plain_file(image.directory(), directory, name.c_str(), path + "/" + name, operation_);
    }

    void add_to_report(const HeldImage &image, int directory, const Unkept &unkept, ImageRecord &record,
                       const std::string &path) const {
        StoredReport report = report_so_far(image.directory(), record.remarks, operation_, record.id, image.path());
        unkept.put(report);
        record.remarks = report.count;
        sync_file(write_report(directory, std::move(report.remarks), report.count, operation_, path).get(),
                  path + "/" + report_name, operation_);
    }

    void take_away(Part &part) const {
        const TreeFilesystem &filesystem = *part.filesystem;
        if (part.claim)
            remove_image(*filesystem.store, std::move(*part.claim), filesystem.record, operation_);
        else // it was moved already, but for its record
            filesystem.store->state().catalog->erase(filesystem.record.id, operation_);
    }

    void move(const TreeFilesystem &filesystem, const Claim &claim) const {
        const std::string &id = filesystem.record.id;
        const int images = filesystem.store->images();
        if (rename_directory(images, id.c_str(), folder_.get(), id.c_str()) != 0)
            fail_call(operation_, "rename", filesystem.store->image_path(id), errno, false);
        sync_file(folder_.get(), place_.path, operation_);
        sync_file(images, filesystem.store->path() + "/images", operation_);
        filesystem.store->state().catalog->erase(id, operation_);
        for (const char *const name : {lock_name, unrecorded_name})
            unlinkat(claim.directory.get(), name, 0);
    }

    TreeLock &tree_;
    const char *operation_;
    Place place_;
    Descriptor folder_; // what is exported into
    std::vector<Part> parts_;
};

} // namespace

std::string deport(TreeLock &tree, const char *directory, const char *operation) {
    tree.require_state(QFI_TREE_FROZEN, QFI_TREE_FROZEN);
    std::string document = Export(tree, directory, operation).run();
    tree->state = QFI_TREE_REMOVED;
    tree.progress().finish();
    return document;
}

} // namespace qzfi::fi
