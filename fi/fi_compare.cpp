#include "fi/fi_compare.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_engine_host.h"
#include "fi/fi_place.h"
#include "fi/fi_report.h"
#include "fi/fi_temporary.h"

namespace qzfi::fi {

namespace {

Difference difference(uint32_t change, const std::string &object, const ManifestEntry *from, const ManifestEntry *to) {
    Difference result{};
    result.change = change;
    result.type = to != nullptr ? to->type : from->type;
    result.old_type = from != nullptr ? from->type : to->type;
    result.old_size = from != nullptr ? from->size : 0;
    result.new_size = to != nullptr ? to->size : 0;
    result.object = object;
    result.path = to != nullptr ? to->path : from->path;
    return result;
}

void compare(ManifestReader &from, ManifestReader &to, const std::string &object, const TakeDifference &take) {
    compare_manifests(from, to, [&](uint32_t change, const ManifestEntry *old, const ManifestEntry *present) {
        take(difference(change, object, old, present));
    });
}

// All of one side, the other having nothing.
void take_all(ManifestReader &entries, uint32_t change, const std::string &object, const TakeDifference &take) {
    ManifestEntry entry;
    while (entries.next(entry)) {
        const bool is_gone = change == QFI_CHANGE_REMOVED;
        take(difference(change, object, is_gone ? &entry : nullptr, is_gone ? nullptr : &entry));
    }
}

// Empty when there is none.
Descriptor open_original(const std::string &path, const char *operation) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR))
        return {};
    return open_without_links(path, O_RDONLY | O_DIRECTORY, operation);
}

} // namespace

namespace {

// Where the walk of a part of a tree begins: its directory, or the one around an entry that is none.
struct Part {
    Descriptor directory; // none where nothing is
    std::string prefix;   // of paths below it
    std::string entry;
};

Part part_of(int directory, const std::string &object, const std::string &only, const char *operation) {
    const auto open = [&](const std::string &path) {
        Descriptor opened(open_beneath(directory, path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY));
        const bool is_absent = errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == EXDEV;
        if (!opened && !is_absent)
            fail_call(operation, "open", object + "/" + path, errno, true);
        return opened;
    };
    Part part{open(only), only, {}};
    if (part.directory)
        return part;
    const std::size_t slash = only.rfind('/');
    part.prefix = slash == std::string::npos ? "" : only.substr(0, slash);
    part.entry = only.substr(slash == std::string::npos ? 0 : slash + 1);
    part.directory = open(part.prefix);
    return part;
}

} // namespace

ManifestReader walked(int directory, const std::string &object, const WalkOptions &options, const char *operation) {
    constexpr const char *name = "manifest";
    const Part part = part_of(directory, object, options.only, operation);
    const TemporaryFolder scratch("qzfi-compare-", operation);
    ManifestWriter writer(scratch.directory(), name, operation, scratch.path());
    EngineHost host(operation, object, options.progress, options.cancelled_by);
    host.on_entry([&](const qfi_entry &entry) -> int32_t {
        if (options.cancelled_by != nullptr && options.cancelled_by->cancelled())
            return QFI_FI_CANCELLED;
        if (part.prefix.empty())
            return writer.add(entry);
        const std::string path = part.prefix + (*entry.path != '\0' ? "/" : "") + entry.path;
        qfi_entry whole = entry;
        whole.path = path.c_str();
        return writer.add(whole);
    });
    // Data that nobody can read must not pass for data that did not change.
    host.on_remark([&](const qfi_remark &remark) {
        if (remark.kind == QFI_REMARK_UNREADABLE && remark.error != EACCES && remark.error != EPERM)
            fail_call(operation, "read", object + "/" + remark.path, remark.error, true);
    });
    engine::Options walk;
    walk.workers = options.workers;
    walk.digest = options.digest;
    walk.nested_volumes = options.nested;
    walk.entries = true;
    if (options.exclude != nullptr)
        options.exclude->put(walk);
    if (!part.entry.empty())
        walk.only_entry = part.entry.c_str();
    const engine::Result result =
        part.directory ? engine::walk_tree(part.directory.get(), walk, host.record()) : engine::Result();
    if (result.status != QFI_STATUS_NO_MEMORY && result.status != QFI_FI_CANCELLED)
        writer.finish(); // what it could not write is the better cause
    host.check(result, true);
    return ManifestReader(scratch.directory(), name, operation, object);
}

namespace {

// With the nested subvolumes that it holds.
ManifestReader walked_image(int directory, const std::string &object, WalkOptions options, const char *operation) {
    options.nested = true;
    return walked(directory, object, options, operation);
}

} // namespace

ManifestReader entries_of(const HeldImage &image, std::size_t index, const WalkOptions &options,
                          const char *operation) {
    const std::string object = image_object_path(image.filesystem(), index);
    if (image.has_manifest(index) && (!options.digest || image.record().has_digests))
        return ManifestReader(image.directory(), HeldImage::manifest_name(index).c_str(), operation, object);
    const Descriptor directory = image.object(index);
    WalkOptions plain = options;
    plain.exclude = nullptr; // the frozen tree does not hold the stores
    return walked_image(directory.get(), object, plain, operation);
}

namespace {

void compare_with_path(const HeldImage &image, std::size_t index, const std::string &path, const WalkOptions &options,
                       const TakeDifference &take, const char *operation) {
    const std::string &object = image.filesystem().objects[index].path;
    ManifestReader from = entries_of(image, index, options, operation);
    const Descriptor present = open_original(path, operation);
    if (!present)
        return take_all(from, QFI_CHANGE_REMOVED, object, take);
    WalkOptions original = options;
    original.nested = image.includes_nested();
    ManifestReader to = walked(present.get(), path, original, operation);
    compare(from, to, object, take);
}

} // namespace

void compare_with_original(const HeldImage &image, std::size_t index, const WalkOptions &options,
                           const TakeDifference &take, const char *operation) {
    compare_with_path(image, index, image.filesystem().objects[index].path, options, take, operation);
}

namespace {

// Objects of a tree by path: two trees are compared object by object.
std::map<std::string, ObjectRef> by_path(Tree &tree) {
    std::map<std::string, ObjectRef> objects;
    for (const ObjectRef &one : objects_of(tree))
        objects.emplace(one.object().path, one);
    return objects;
}

void take_one_side(const ObjectRef &one, uint32_t change, const WalkOptions &options, const TakeDifference &take,
                   const char *operation) {
    const std::string &path = one.object().path;
    if (!one.filesystem->is_frozen) {
        WalkOptions live = options;
        const LeftOut left_out(*one.filesystem, path);
        live.exclude = &left_out;
        const Descriptor directory = open_without_links(path, O_RDONLY | O_DIRECTORY, operation);
        ManifestReader entries = walked(directory.get(), path, live, operation);
        return take_all(entries, change, path, take);
    }
    const HeldImage image(*one.filesystem, operation);
    ManifestReader entries = entries_of(image, one.index, options, operation);
    take_all(entries, change, one.object().path, take);
}

} // namespace

std::vector<Difference> compare_trees(Tree &from, Tree *to, const WalkOptions &options, const char *operation) {
    std::vector<Difference> differences;
    const TakeDifference take = [&](Difference &&one) { differences.push_back(std::move(one)); };
    const std::map<std::string, ObjectRef> olds = by_path(from);
    std::map<std::string, ObjectRef> presents = to != nullptr ? by_path(*to) : olds;
    if (olds.size() == 1 && presents.size() == 1)
        presents = {{olds.begin()->first, presents.begin()->second}};
    std::map<std::string, ObjectRef> all = olds;
    all.insert(presents.begin(), presents.end());
    for (const auto &[path, any] : all) {
        const auto old = olds.find(path);
        const auto present = presents.find(path);
        if (present == presents.end()) {
            take_one_side(old->second, QFI_CHANGE_REMOVED, options, take, operation);
            continue;
        }
        if (old == olds.end()) {
            take_one_side(present->second, QFI_CHANGE_ADDED, options, take, operation);
            continue;
        }
        const HeldImage image(*old->second.filesystem, operation);
        if (to == nullptr || !present->second.filesystem->is_frozen) {
            WalkOptions original = options;
            const std::string &now = present->second.object().path;
            const LeftOut left_out(*old->second.filesystem, now);
            original.exclude = &left_out;
            compare_with_path(image, old->second.index, now, original, take, operation);
            continue;
        }
        const HeldImage later(*present->second.filesystem, operation);
        ManifestReader first = entries_of(image, old->second.index, options, operation);
        ManifestReader second = entries_of(later, present->second.index, options, operation);
        compare(first, second, path, take);
    }
    return differences;
}

std::vector<Difference> all_entries(Tree &tree, const WalkOptions &options, const char *operation) {
    std::vector<Difference> entries;
    const TakeDifference take = [&](Difference &&one) { entries.push_back(std::move(one)); };
    for (const auto &[path, one] : by_path(tree))
        take_one_side(one, QFI_CHANGE_NONE, options, take, operation);
    return entries;
}

qfi_diff *give_diff(const std::vector<Difference> &differences) {
    return static_cast<qfi_diff *>(Block::build([&](Block &block) {
        qfi_diff *const diff = block.array<qfi_diff>(1);
        qfi_diff_entry *const entries = block.array<qfi_diff_entry>(differences.size());
        const char *object = nullptr;
        for (std::size_t index = 0; index < differences.size(); ++index) {
            const Difference &one = differences[index];
            // One text for all entries of an object.
            if (index == 0 || differences[index - 1].object != one.object)
                object = block.text(one.object);
            const char *const path = block.text(one.path);
            if (!block.measuring())
                entries[index] = {one.change, one.type, one.old_size, one.new_size, object, path};
        }
        if (!block.measuring())
            *diff = {differences.size(), entries};
    }));
}

LostAttributes::LostAttributes(const std::vector<JobHost::Remark> &remarks, uint64_t remark_count,
                               const std::string &object)
    : are_all_known_(remark_count == remarks.size()) {
    constexpr std::string_view seen[] = {"owner", "mode", "times"}; // of what a manifest holds
    for (const JobHost::Remark &remark : remarks)
        if (remark.kind == QFI_REMARK_ATTRIBUTE && remark.object == object &&
            std::find(std::begin(seen), std::end(seen), remark.detail) != std::end(seen))
            paths_.insert(remark.path);
}

bool LostAttributes::explain(const ManifestEntry &expected, const ManifestEntry &present) const {
    // Of remarks that were not kept some are like those that were.
    if (paths_.count(expected.path) == 0 && (are_all_known_ || paths_.empty()))
        return false;
    ManifestEntry same = expected;
    same.mode = present.mode;
    same.uid = present.uid;
    same.gid = present.gid;
    same.mtime_ns = present.mtime_ns;
    return change_between(same, present) == QFI_CHANGE_NONE;
}

void compare_with_manifest(ManifestReader &expected, ManifestReader &present, const LostAttributes &lost,
                           const std::function<void(uint32_t, const ManifestEntry *, const ManifestEntry *)> &differs) {
    const auto is_socket = [](const ManifestEntry *entry) {
        return entry != nullptr && entry->type == QFI_ENTRY_SOCKET;
    };
    compare_manifests(expected, present, [&](uint32_t change, const ManifestEntry *old, const ManifestEntry *now) {
        if (is_socket(old)) {
            old = nullptr;
            change = QFI_CHANGE_ADDED;
        }
        if (is_socket(now)) {
            now = nullptr;
            change = QFI_CHANGE_REMOVED;
        }
        if (old == nullptr && now == nullptr)
            return;
        if (old == nullptr || now == nullptr || !lost.explain(*old, *now))
            differs(change, old, now);
    });
}

namespace {

const char *in_words(uint32_t change) {
    switch (change) {
    case QFI_CHANGE_ADDED:
        return "not in the manifest";
    case QFI_CHANGE_REMOVED:
        return "missing";
    case QFI_CHANGE_TYPE:
        return "of another type";
    case QFI_CHANGE_ATTRIBUTE:
        return "other owner or mode";
    default:
        return "other content";
    }
}

// Nothing is explained by a report that is damaged, or missing.
LostAttributes lost_attributes(const HeldImage &image, const std::string &object, const char *operation) {
    std::optional<StoredReport> report;
    if (image.record().remarks != 0)
        report = sound_report(image.directory(), operation, image.record().id, image.path());
    return report ? LostAttributes(report->remarks, report->count, object) : LostAttributes({}, 0, object);
}

void verify_object(const HeldImage &image, std::size_t index, const WalkOptions &options, Findings &report,
                   std::string &first, const char *operation) {
    const std::string object = image_object_path(image.filesystem(), index);
    const std::string &path = image.filesystem().objects[index].path;
    const Descriptor directory = image.object(index);
    if (!image.has_manifest(index)) {
        if (image.record().entries != 0) // they were counted when it was written
            fail(message::damaged, QFI_FI_DAMAGED, operation,
                 {image.record().id, HeldImage::manifest_name(index), error_text(ENOENT)});
        report.add({QFI_REMARK_WARNING, 0, path, "", "without a manifest: only that the image is there was verified"});
        return;
    }
    ManifestReader expected(image.directory(), HeldImage::manifest_name(index).c_str(), operation, object);
    ManifestReader present = walked_image(directory.get(), object, options, operation);
    const LostAttributes lost = lost_attributes(image, path, operation);
    compare_with_manifest(expected, present, lost,
                          [&](uint32_t change, const ManifestEntry *old, const ManifestEntry *now) {
                              const std::string &below = now != nullptr ? now->path : old->path;
                              if (report.changed++ == 0)
                                  first = path + (below.empty() ? "" : "/" + below) + ": " + in_words(change);
                              report.add({QFI_REMARK_WARNING, 0, path, below, in_words(change)});
                          });
}

} // namespace

void compare_image(const HeldImage &image, std::size_t index, const std::string &only, const WalkOptions &options,
                   const std::function<void(const std::string &, const char *)> &damaged, const char *operation) {
    if (!image.has_manifest(index))
        return;
    const std::string object = image_object_path(image.filesystem(), index);
    const Descriptor directory = image.object(index);
    ManifestReader expected(image.directory(), HeldImage::manifest_name(index).c_str(), operation, object, only);
    WalkOptions part = options;
    part.only = only;
    ManifestReader present = walked_image(directory.get(), object, part, operation);
    const LostAttributes lost = lost_attributes(image, image.filesystem().objects[index].path, operation);
    compare_with_manifest(expected, present, lost,
                          [&](uint32_t change, const ManifestEntry *old, const ManifestEntry *) {
                              if (old != nullptr && change != QFI_CHANGE_ADDED && change != QFI_CHANGE_ATTRIBUTE)
                                  damaged(old->path, in_words(change));
                          });
}

bool is_whole_copy(const HeldImage &image, std::size_t index, int copy, const char *operation) {
    const std::string object = image_object_path(image.filesystem(), index);
    ManifestReader expected = entries_of(image, index, WalkOptions(), operation);
    ManifestReader present = walked_image(copy, object, WalkOptions(), operation);
    const LostAttributes lost = lost_attributes(image, image.filesystem().objects[index].path, operation);
    bool is_whole = true;
    compare_with_manifest(expected, present, lost,
                          [&](uint32_t change, const ManifestEntry *old, const ManifestEntry *) {
                              is_whole = is_whole && (old == nullptr || change == QFI_CHANGE_ATTRIBUTE);
                          });
    return is_whole;
}

void verify(TreeLock &tree, Findings &report, const char *operation) {
    std::string first, damaged;
    uint64_t entries = 0, bytes = 0;
    for (const TreeFilesystem &filesystem : tree->filesystems) {
        entries += filesystem.record.entries;
        bytes += filesystem.record.has_digests ? filesystem.record.bytes : 0;
    }
    tree.progress().totals(entries, bytes);
    for (TreeFilesystem &filesystem : tree->filesystems) {
        const HeldImage image(filesystem, operation);
        WalkOptions options;
        options.workers = tree->options.workers;
        options.digest = filesystem.record.has_digests;
        options.progress = &tree.progress();
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
            verify_object(image, index, options, report, first, operation);
        if (damaged.empty() && report.changed != 0)
            damaged = filesystem.record.id;
    }
    const Progress::Counts counts = tree.progress().counts();
    report.entries = counts.entries_done;
    report.bytes = counts.bytes_done;
    tree.progress().finish();
    if (report.changed != 0)
        fail(message::damaged, QFI_FI_DAMAGED, operation,
             {damaged, first, std::to_string(report.changed) + " entries are not as its manifest says"});
}

} // namespace qzfi::fi
