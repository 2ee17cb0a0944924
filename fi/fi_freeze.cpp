// The steps of a freeze.
#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

#include "fi/fi_fiid.h"
#include "fi/fi_freeze.h"
#include "fi/fi_guard.h"
#include "fi/fi_left_out.h"
#include "fi/fi_manifest.h"
#include "fi/fi_report.h"
#include "fi/fi_store_folders.h"
#include "fi/fi_tree.h"

namespace qzfi::fi {

namespace {

constexpr uint32_t most_workers = 64;

std::string text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

} // namespace

void note_options(Tree &tree, const qfi_freeze_options *options, const char *operation) {
    if (options == nullptr)
        return;
    require(options->workers <= most_workers, operation, "at most 64 workers");
    if (options->workers != 0)
        tree.options.workers = options->workers;
    if (options->label != nullptr)
        tree.options.label = options->label;
    if (options->pre_command != nullptr)
        tree.options.pre_command = options->pre_command;
    if (options->post_command != nullptr)
        tree.options.post_command = options->post_command;
    tree.options.digest = tree.options.digest || options->digest != 0;
    tree.options.nested = tree.options.nested || options->nested != 0;
}

namespace {

void require_room(const Estimate &chosen, int images, const char *operation) {
    struct statvfs room {};
    if (fstatvfs(images, &room) != 0)
        fail_call(operation, "fstatvfs", chosen.store, errno, true);
    if (chosen.cost_bytes > uint64_t{room.f_bavail} * room.f_frsize)
        fail(message::no_space, QFI_FI_NO_SPACE, operation, {chosen.store});
}

// The promise may have changed since the method was chosen: another mount, another user, a full file system.
void prepare_filesystem(const Tree &tree, TreeFilesystem &filesystem, const char *operation) {
    const Provider &provider = *filesystem.provider;
    const Estimate chosen = estimate(tree, filesystem, provider, filesystem.store_path.c_str(), operation);
    if (!chosen.can())
        fail(message::method_refused, QFI_FI_NO_METHOD, operation,
             {provider.ops->fim_id, filesystem.root, chosen.reason});
    filesystem.consistency = chosen.consistency;
    filesystem.foretold_entries = chosen.entries;
    filesystem.foretold_bytes = chosen.bytes;
    // A method's own store is on the object's file system, which is mounted.
    const bool is_own =
        filesystem.store_path == default_store(filesystem, provider) && filesystem.store_path != default_store_path();
    filesystem.store =
        is_own ? Store::open(filesystem.store_path, true, operation) : open_to_fill(filesystem.store_path, operation);
    require_room(chosen, filesystem.store->images(), operation);
    remember_store(filesystem.store->path());
    filesystem.record = ImageRecord();
    filesystem.record.id = new_image_id();
    filesystem.image = std::make_unique<NewImage>(filesystem.store->begin(filesystem.record.id, operation));
}

// What a provider made is removed by it: nobody else can remove a read-only snapshot. What is left after that goes with
// the image in the making.
void discard_object(const Tree &tree, TreeFilesystem &filesystem, std::size_t index, const char *operation) noexcept {
    try {
        const Hush hush;
        if (filesystem.provider->ops->remove == nullptr)
            return;
        const JobHost host(operation, filesystem.objects[index].path, nullptr);
        const std::string name = NewImage::object_name(index);
        qfi_provider_job job = make_job(tree, filesystem, index, host.record(), name.c_str());
        filesystem.provider->ops->remove(&job);
    } catch (...) {
        return;
    }
}

void discard_images(Tree &tree, const char *operation) noexcept {
    for (TreeFilesystem &filesystem : tree.filesystems) {
        if (!filesystem.image)
            continue;
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
            discard_object(tree, filesystem, index, operation);
        filesystem.image.reset();
    }
}

std::string host_name() {
    char name[256] = "";
    return gethostname(name, sizeof name - 1) == 0 ? name : "localhost";
}

// What is known of an image before it is made.
void describe(const Tree &tree, const TreeFilesystem &filesystem, ImageRecord &record) {
    record.set_id = tree.set_id;
    record.label = tree.options.label;
    record.fim_id = filesystem.provider->ops->fim_id;
    record.provider_id = filesystem.provider->ops->provider_id;
    record.host = host_name();
    record.has_digests = tree.options.digest;
    record.nested = tree.options.nested;
}

} // namespace

// Of what the freeze is yet to find out, the longest that it can be stands in the document.
void require_describable(const Tree &tree, const char *operation) {
    Fiid longest;
    longest.set_id = tree.set_id;
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        ImageRecord record;
        describe(tree, filesystem, record);
        record.id = tree.set_id;
        record.consistency = QFI_CONSISTENCY_PER_FILE;
        record.duration_ns = record.entries = record.bytes = record.remarks = UINT64_MAX;
        for (const TreeObject &object : filesystem.objects)
            record.objects.push_back({object.path, object.path, filesystem.mount.type, filesystem.mount.source,
                                      filesystem.mount.mount_point, 0, ""});
        longest.images.push_back({std::move(record), filesystem.store_path});
    }
    write_fiid(longest, operation);
}

qfi_provider_job make_job(const Tree &tree, const TreeFilesystem &filesystem, std::size_t index,
                          const qfi_provider_host *host, const char *name) {
    qfi_provider_job job{};
    job.size = sizeof job;
    job.host = host;
    job.object = filesystem.objects[index].path.c_str();
    job.source = -1;
    job.target = filesystem.image->objects();
    job.name = name;
    job.workers = tree.options.workers;
    return job;
}

void prepare(Tree &tree, const char *operation) {
    try {
        tree.set_id = new_image_id();
        require_describable(tree, operation);
        tree.has_fallen_back = false;
        tree.post_run.reset();
        for (TreeFilesystem &filesystem : tree.filesystems)
            prepare_filesystem(tree, filesystem, operation);
        tree.state = QFI_TREE_PREPARED;
    } catch (...) {
        discard_images(tree, operation);
        throw;
    }
}

namespace {

// After the guard is gone nothing is left to be done.
CommandResult run_post_command(Tree &tree) {
    const std::unique_ptr<PostGuard> guard = std::move(tree.guard);
    return guard->run();
}

// Back to where the tree was before it was prepared. The end of the post command, if it was run now and failed.
const CommandResult *fall_back(Tree &tree, const char *operation) noexcept {
    discard_images(tree, operation);
    tree.state = QFI_TREE_SELECTED;
    tree.has_fallen_back = true;
    if (!tree.guard)
        return nullptr;
    try {
        tree.post_run = run_post_command(tree);
        return tree.post_run->succeeded() ? nullptr : &*tree.post_run;
    } catch (...) {
        return nullptr; // without memory for its result the command was run all the same, by the guard if not by us
    }
}

void run_pre_command(const Tree &tree, const char *operation) {
    const std::string &command = tree.options.pre_command;
    if (command.empty())
        return;
    const CommandResult result = run_locked(command, tree.guard ? tree.guard->lock() : "");
    if (!result.succeeded())
        fail(message::pre_command_failed, QFI_FI_PRE_COMMAND, operation, {command, result.how(), result.output});
}

void flush(const TreeFilesystem &filesystem, const char *operation) {
    const TreeObject &object = filesystem.objects.front();
    const Descriptor directory = open_object(object, operation);
    if (syncfs(directory.get()) != 0)
        fail_call(operation, "syncfs", object.path, errno, false);
}

} // namespace

void quiesce(Tree &tree, const char *operation) {
    try {
        if (!tree.options.post_command.empty())
            tree.guard = std::make_unique<PostGuard>(tree.options.post_command, operation);
        run_pre_command(tree, operation);
        for (const TreeFilesystem &filesystem : tree.filesystems)
            flush(filesystem, operation);
        tree.state = QFI_TREE_QUIESCED;
    } catch (...) {
        tell_failed_post_command(tree, operation, fall_back(tree, operation));
        throw;
    }
}

namespace {

// Snapshots are walked for a manifest only when digests are wanted: their entries can be listed at any time later.
bool wants_manifest(const Tree &tree, const TreeFilesystem &filesystem) {
    return tree.options.digest || filesystem.provider->ops->technology != QFI_TECHNOLOGY_SNAPSHOT;
}

// Takes the entries of an object's image: counts them, writes them to the manifest.
class EntryTaker {
public:
    EntryTaker(const TreeFilesystem &filesystem, std::size_t index, const char *operation)
        : writer_(filesystem.image->directory(), ("manifest." + std::to_string(index)).c_str(), operation,
                  filesystem.store->image_path(filesystem.record.id)) {}
    int32_t take(const qfi_entry &entry) {
        entries_.fetch_add(1, std::memory_order_relaxed);
        if (entry.type == QFI_ENTRY_FILE)
            bytes_.fetch_add(entry.size, std::memory_order_relaxed);
        const int32_t status = writer_.add(entry);
        if (status != QFI_STATUS_OK)
            has_failed_ = true;
        return status;
    }
    bool has_failed() const { return has_failed_; }
    void finish(ImageRecord &record) {
        writer_.finish();
        record.entries += entries_.load(std::memory_order_relaxed);
        record.bytes += bytes_.load(std::memory_order_relaxed);
    }

private:
    ManifestWriter writer_;
    std::atomic<uint64_t> entries_{0}, bytes_{0};
    std::atomic<bool> has_failed_{false};
};

void take_remarks(Tree &tree, TreeFilesystem &filesystem, const JobHost &host, std::vector<JobHost::Remark> &of_image) {
    if (host.has_torn())
        filesystem.record.consistency = QFI_CONSISTENCY_FUZZY;
    for (const JobHost::Remark &remark : host.remarks()) {
        keep_remark(of_image, remark);
        keep_remark(tree.remarks, remark);
    }
    tree.remark_count += host.remark_count();
    filesystem.record.remarks += host.remark_count();
}

void split_object(Tree &tree, TreeFilesystem &filesystem, std::size_t index, Progress &progress,
                  std::vector<JobHost::Remark> &remarks, const char *operation) {
    TreeObject &object = filesystem.objects[index];
    const Descriptor source = open_object(object, operation);
    struct stat status {};
    if (fstat(source.get(), &status) != 0)
        fail_call(operation, "fstat", object.path, errno, true);
    if (status.st_dev != filesystem.mount.device)
        fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {object.path, "it lies on another file system now"});
    JobHost host(operation, object.path, &progress);
    std::optional<EntryTaker> taker;
    if (wants_manifest(tree, filesystem)) {
        taker.emplace(filesystem, index, operation);
        host.on_entry([&](const qfi_entry &entry) { return taker->take(entry); });
    }
    const LeftOut left_out(filesystem, object.path);
    const std::string name = NewImage::object_name(index);
    qfi_provider_job job = make_job(tree, filesystem, index, host.record(), name.c_str());
    job.source = source.get();
    job.flags = job_flags(tree.options) | (taker ? uint32_t{QFI_JOB_MANIFEST} : 0);
    left_out.put(job);
    const std::string first = NewImage::object_name(0);
    job.earlier = index != 0 ? first.c_str() : nullptr;
    const int32_t result = filesystem.provider->ops->split(&job);
    const std::unique_ptr<char, void (*)(void *)> subpath(job.subpath, std::free);
    take_remarks(tree, filesystem, host, remarks);
    // The manifest's failure says more than that of a provider which was only told to stop.
    if (taker && (result == QFI_STATUS_OK || taker->has_failed()))
        taker->finish(filesystem.record);
    // The original is only read, and may lie elsewhere: what is full is where the image is made.
    if (result == QFI_FI_NO_SPACE)
        fail(message::no_space, result, operation,
             {filesystem.store->image_path(filesystem.record.id) + "/objects/" + name});
    host.check(result, *filesystem.provider);
    if (index != 0 && job.same_instant == 0)
        filesystem.record.consistency = std::min<uint32_t>(filesystem.record.consistency, QFI_CONSISTENCY_PER_FILE);
    object.image = {object.path,
                    text_or_empty(subpath.get()),
                    filesystem.mount.type,
                    filesystem.mount.source,
                    filesystem.mount.mount_point,
                    0,
                    ""};
}

int64_t now_ns(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void split_filesystem(Tree &tree, TreeFilesystem &filesystem, Progress &progress, const char *operation) {
    ImageRecord &record = filesystem.record;
    describe(tree, filesystem, record);
    record.consistency = filesystem.consistency;
    record.time_ns = now_ns(CLOCK_REALTIME);
    const int64_t begin = now_ns(CLOCK_MONOTONIC);
    std::vector<JobHost::Remark> remarks;
    for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
        split_object(tree, filesystem, index, progress, remarks, operation);
    record.duration_ns = static_cast<uint64_t>(now_ns(CLOCK_MONOTONIC) - begin);
    record.objects.clear();
    for (const TreeObject &object : filesystem.objects)
        record.objects.push_back(object.image);
    write_report(filesystem.image->directory(), remarks, record.remarks, operation,
                 filesystem.store->image_path(record.id));
}

// All of the set or none, also when the process is killed in between: see fi_store.h.
void commit_all(Tree &tree, const char *operation) {
    const std::string document = fiid_document(tree, operation);
    const bool is_several = tree.filesystems.size() > 1;
    std::vector<std::shared_ptr<Store>> stores;
    std::vector<NewImage *> set;
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        stores.push_back(filesystem.store);
        set.push_back(filesystem.image.get());
    }
    try {
        for (TreeFilesystem &filesystem : tree.filesystems) {
            ImageRecord record = filesystem.record;
            record.state = is_several ? 0 : 1;
            if (is_several)
                filesystem.image->note_stores(stores, operation);
            filesystem.image->commit(record, document, operation);
        }
        if (is_several)
            NewImage::settle(set);
    } catch (...) {
        NewImage::withdraw(set);
        throw;
    }
    for (TreeFilesystem &filesystem : tree.filesystems) {
        filesystem.image.reset();
        filesystem.is_frozen = true;
    }
}

void check_cancelled(const Tree &tree, Progress &progress, const char *operation) {
    if (progress.advance(0, 0) != 0)
        fail(message::cancelled, QFI_FI_CANCELLED, operation, {tree.name});
}

// Of all file systems or none: a part would look like the whole. A snapshot that nobody walks takes no time.
void tell_totals(const Tree &tree, Progress &progress) {
    uint64_t entries = 0, bytes = 0;
    bool knows_bytes = true;
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        if (!wants_manifest(tree, filesystem))
            continue;
        if (filesystem.foretold_entries == 0)
            return;
        entries += filesystem.foretold_entries;
        bytes += filesystem.foretold_bytes;
        knows_bytes = knows_bytes && filesystem.foretold_bytes != 0;
    }
    progress.totals(entries, knows_bytes ? bytes : 0);
}

} // namespace

void split(Tree &tree, Progress &progress, const char *operation) {
    tree.remarks.clear();
    tree.remark_count = 0;
    try {
        tell_totals(tree, progress);
        check_cancelled(tree, progress, operation);
        for (TreeFilesystem &filesystem : tree.filesystems) {
            split_filesystem(tree, filesystem, progress, operation);
            check_cancelled(tree, progress, operation);
        }
        commit_all(tree, operation);
        tree.state = QFI_TREE_SPLIT;
    } catch (...) {
        tell_failed_post_command(tree, operation, fall_back(tree, operation));
        throw;
    }
    progress.finish();
}

void unquiesce(Tree &tree, const char *operation) {
    if (tree.state == QFI_TREE_QUIESCED)
        fall_back(tree, operation);
    if (tree.state == QFI_TREE_SPLIT) {
        tree.state = QFI_TREE_FROZEN;
        if (tree.guard)
            tree.post_run = run_post_command(tree);
    }
    tree.has_fallen_back = false;
    const std::optional<CommandResult> result = std::exchange(tree.post_run, std::nullopt);
    if (result && !result->succeeded())
        fail_post_command(tree, operation, *result);
}

std::string fiid_document(const Tree &tree, const char *operation) {
    Fiid fiid;
    fiid.set_id = tree.set_id;
    for (const TreeFilesystem &filesystem : tree.filesystems)
        fiid.images.push_back({filesystem.record, filesystem.store->path()});
    return write_fiid(fiid, operation);
}

const CommandResult *abandon(Tree &tree, const char *operation) noexcept {
    const int32_t state = tree.state;
    const CommandResult *const failed = fall_back(tree, operation);
    if (state >= QFI_TREE_SPLIT)
        tree.state = std::max<int32_t>(state, QFI_TREE_FROZEN);
    return failed;
}

void fail_post_command(const Tree &tree, const char *operation, const CommandResult &failed) {
    fail(message::post_command_failed, QFI_FI_POST_COMMAND, operation,
         {tree.options.post_command, failed.how(), failed.output});
}

void tell_failed_post_command(const Tree &tree, const char *operation, const CommandResult *failed) noexcept {
    if (failed != nullptr)
        tell(message::post_command_failed, operation, {tree.options.post_command, failed->how(), failed->output});
}

namespace {

RemoveTree by_provider_of(const Store &store, const ImageRecord &record, const char *operation) {
    return [&store, &record, operation](int objects, const char *name) {
        const Provider *const provider = find_provider(record.provider_id);
        if (provider == nullptr || provider->ops->remove == nullptr)
            fail(message::no_such_provider, QFI_FI_NO_SUCH_PROVIDER, operation, {record.provider_id});
        const JobHost host(operation, store.image_path(record.id) + "/objects/" + name, nullptr);
        qfi_provider_job job{};
        job.size = sizeof job;
        job.host = host.record();
        job.object = record.id.c_str();
        job.source = -1;
        job.target = objects;
        job.name = name;
        job.workers = FreezeOptions().workers;
        host.check(provider->ops->remove(&job), *provider);
    };
}

} // namespace

void remove_image(Store &store, std::optional<Claim> claim, const ImageRecord &record, const char *operation) {
    store.remove(std::move(claim), record.id, operation, by_provider_of(store, record, operation));
}

// All are claimed before one goes, as half of a set is of no use.
void remove_images(Tree &tree, const char *operation) {
    std::vector<std::pair<TreeFilesystem *, std::optional<Claim>>> images;
    for (TreeFilesystem &filesystem : tree.filesystems)
        if (filesystem.is_frozen)
            images.emplace_back(&filesystem, filesystem.store->claim(filesystem.record.id, operation));
    for (auto &[filesystem, claim] : images) {
        remove_image(*filesystem->store, std::move(claim), filesystem->record, operation);
        filesystem->is_frozen = false;
    }
}

} // namespace qzfi::fi
