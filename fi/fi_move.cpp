// Exporting images into a folder:
//
//     DIRECTORY/fiid.xml      what is exported
//     DIRECTORY/ID/objects/N, manifest.N, report
#include <algorithm>
#include <fcntl.h>
#include <limits>
#include <linux/stat.h>
#include <sys/stat.h>
#include <unistd.h>

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

class Export {
public:
    Export(TreeLock &tree, const char *directory, const char *operation)
        : tree_(tree), operation_(operation), place_(open_place(directory, operation)) {}

    std::string run() {
        refuse_in_store();
        // What could not be removed there afterwards would be in two places.
        for (const TreeFilesystem &filesystem : tree_->filesystems)
            filesystem.store->require_writable(operation_);
        Workshop workshop(place_, operation_);
        std::string document = begun_before();
        if (document.empty()) {
            document = publish(workshop);
        } else {
            sync_file(place_.parent.get(), place_.path, operation_); // which who was killed may not have come to
            move(claim_moved());
        }
        for (const TreeFilesystem &filesystem : tree_->filesystems)
            if (!is_moved(filesystem))
                remove_image(*filesystem.store, filesystem.record, operation_);
        return document;
    }

private:
    void refuse_in_store() const {
        refuse_in_stores(place_, stores_of(*tree_), "nothing is exported into a store", operation_);
    }

    bool is_moved(const TreeFilesystem &filesystem) const {
        return std::find(moved_.begin(), moved_.end(), &filesystem) != moved_.end();
    }

    // An export to this folder that was cut short before all images had been moved there: gives its document, and goes
    // on with what is missing. What was copied was there when the folder was.
    std::string begun_before() {
        try {
            const Hush hush;
            folder_ = open_without_links(place_.path, O_RDONLY | O_DIRECTORY, operation_);
            if (!is_own(folder_.get()))
                return {};
            std::string document = read_export_document(folder_.get(), place_.path, operation_);
            const Fiid fiid = read_fiid(document, operation_);
            for (const TreeFilesystem &filesystem : tree_->filesystems) {
                if (!is_named(filesystem, fiid))
                    return {};
                struct stat status {};
                if (fstatat(folder_.get(), filesystem.record.id.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
                    continue;
                if (!same_mount(filesystem.store->images(), folder_.get()))
                    return {};
                moved_.push_back(&filesystem);
            }
            return moved_.empty() ? std::string() : document;
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

    static bool is_named(const TreeFilesystem &filesystem, const Fiid &fiid) {
        const ImageRecord &record = filesystem.record;
        const auto is_it = [&](const FiidImage &image) {
            return image.record.id == record.id && image.record.set_id == record.set_id;
        };
        return std::any_of(fiid.images.begin(), fiid.images.end(), is_it);
    }

    // The folder appears complete and synced, but for what is moved by one rename each: nothing is lost at any moment.
    std::string publish(Workshop &workshop) {
        moved_.clear();
        const bool over_empty = refuse_existing(place_, operation_);
        folder_ = make_directory(workshop.directory(), Workshop::tree, place_.path, operation_);
        Fiid fiid{tree_->set_id, {}};
        for (const TreeFilesystem &filesystem : tree_->filesystems)
            fiid.images.push_back({exported(filesystem), place_.path});
        std::string document = write_fiid(fiid, operation_);
        const std::string path = place_.path + "/" + export_document;
        sync_file(write_file(folder_.get(), export_document, path, document, operation_).get(), path, operation_);
        sync_file(folder_.get(), place_.path, operation_);
        const std::vector<Claim> claims = claim_moved();
        workshop.put(over_empty);
        move(claims);
        return document;
    }

    // What the document says of an image, which was copied unless it can be moved.
    ImageRecord exported(const TreeFilesystem &filesystem) {
        ImageRecord record = filesystem.record;
        const HeldImage image(filesystem, operation_);
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
            image.object(index); // there
        if (same_mount(filesystem.store->images(), place_.parent.get())) {
            moved_.push_back(&filesystem);
            return record;
        }
        copy(image, record);
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
        StoredReport report = report_so_far(image.directory(), record.remarks, operation_, record.id);
        unkept.put(report);
        record.remarks = report.count;
        sync_file(write_report(directory, std::move(report.remarks), report.count, operation_, path).get(),
                  path + "/" + report_name, operation_);
    }

    // Alone with each image that is to be moved, before anything of them is touched.
    std::vector<Claim> claim_moved() const {
        std::vector<Claim> claims;
        for (const TreeFilesystem *const filesystem : moved_) {
            const Store::State &store = filesystem->store->state();
            const FileLock lock = lock_store(store, operation_);
            std::optional<Claim> claim;
            switch (claim_folder(store, filesystem->record.id, claim, operation_)) {
            case Claimed::yes:
                claims.push_back(std::move(*claim));
                break;
            case Claimed::busy:
                fail(message::busy, QFI_FI_BUSY, operation_, {filesystem->record.id});
            case Claimed::missing:
                fail(message::no_such_image, QFI_FI_NO_SUCH_IMAGE, operation_, {filesystem->record.id});
            }
        }
        return claims;
    }

    void move(const std::vector<Claim> &claims) const {
        for (std::size_t index = 0; index < moved_.size(); ++index) {
            const TreeFilesystem &filesystem = *moved_[index];
            const std::string &id = filesystem.record.id;
            const int images = filesystem.store->images();
            if (rename_directory(images, id.c_str(), folder_.get(), id.c_str()) != 0)
                fail_call(operation_, "rename", filesystem.store->image_path(id), errno, false);
            sync_file(folder_.get(), place_.path, operation_);
            sync_file(images, filesystem.store->path() + "/images", operation_);
            filesystem.store->state().catalog->erase(id, operation_);
            unlinkat(claims[index].directory.get(), lock_name, 0);
        }
    }

    TreeLock &tree_;
    const char *operation_;
    Place place_;
    Descriptor folder_; // what is exported into
    std::vector<const TreeFilesystem *> moved_;
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
