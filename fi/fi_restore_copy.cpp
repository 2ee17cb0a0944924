#include "fi/fi_restore_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_engine_host.h"
#include "fi/fi_store_folders.h"
#include "providers/engine/engine_copy.h"

namespace qzfi::fi {

namespace {

// A run of the engine that copies one entry of a directory, with everything that belongs to it.
class OneEntry : public engine::Copier {
public:
    OneEntry(const engine::Options &given, const qfi_provider_host &to, const char *name, bool updates)
        : Copier(given, to, updates), name_(name) {}

protected:
    void entry(engine::Worker &worker, engine::Directory &directory, const char *name, uint8_t type,
               uint64_t inode) override {
        if (name_ == name)
            Copier::entry(worker, directory, name, type, inode);
    }
    bool enter(engine::Worker &, engine::Directory &, engine::Directory &) override { return false; }
    // The directory is only there to hold the entry.
    void leave(engine::Worker &, engine::Directory &) override {}
    void remove_extra(engine::Worker &, engine::Directory &) override {}
    // Nothing is known of its other names, which stay names of it.
    bool claim_target(const engine::Stat &, const engine::Stat &, bool &was_ours) override {
        was_ours = false;
        return true;
    }

private:
    const std::string name_;
};

std::string joined(const std::string &path, const std::string &below) {
    return below.empty() ? path : path + "/" + below;
}

[[noreturn]] void fail_incomplete(const HeldImage &image, const std::string &path, const std::string &detail, int error,
                                  const char *operation) {
    const std::string cause = error != 0 ? ": " + error_text(error) : "";
    fail(message::damaged, QFI_FI_DAMAGED, operation, {image.record().id, path, detail + cause});
}

void copy_directory(const HeldImage &image, const std::string &shown, int source, int target, const char *name,
                    const CopyOut &how) {
    const Provider &provider = provider_of(image.filesystem(), how.operation);
    if (provider.ops->copy_out == nullptr)
        fail(message::not_supported, QFI_STATUS_NOT_SUPPORTED, how.operation, {provider.ops->provider_id, shown});
    JobHost host(how.operation, shown, how.progress);
    if (how.unkept != nullptr)
        host.on_remark([&](const qfi_remark &remark) { how.unkept->add(remark, source, shown); });
    qfi_provider_job job{};
    job.size = sizeof job;
    job.host = host.record();
    job.object = shown.c_str();
    job.source = source;
    job.target = target;
    job.name = name;
    job.flags = QFI_JOB_SYNC | QFI_JOB_NESTED;
    job.workers = how.workers;
    host.check(provider.ops->copy_out(&job), provider);
    how.report->add(host);
    for (const JobHost::Remark &remark : host.remarks())
        if (is_loss(remark.kind))
            fail_incomplete(image, joined(remark.object, remark.path), remark.detail, remark.error, how.operation);
}

// One run of the engine for one entry. Throws when the copy lacks something.
engine::Result run_one(const HeldImage &image, const std::string &shown, int directory, const std::string &entry,
                       int target, const char *name, bool updates, bool digest, const CopyOut &how) {
    EngineHost host(how.operation, shown, how.progress);
    std::string lost;
    int lost_error = 0;
    host.on_remark([&](const qfi_remark &remark) {
        if (is_loss(remark.kind)) {
            lost = remark.detail;
            lost_error = remark.error;
        } else {
            how.report->add({remark.kind, remark.error, shown, "", remark.detail});
        }
    });
    engine::Options options;
    options.data = engine::Data::clone_or_copy;
    options.sync = true;
    options.digest = digest;
    OneEntry run(options, host.record(), entry.c_str(), updates);
    run.run(directory, target, name);
    const engine::Result result = run.result();
    host.check(result, false);
    if (!lost.empty())
        fail_incomplete(image, shown, lost, lost_error, how.operation);
    how.report->entries += 1;
    how.report->bytes += result.bytes;
    return result;
}

// Made in a directory of its own, from where it is moved.
void copy_entry(const HeldImage &image, const std::string &shown, int directory, const std::string &entry, int target,
                const char *name, const CopyOut &how) {
    const char *const holder = std::string_view(name) == "entry" ? "holder" : "entry";
    run_one(image, shown, directory, entry, target, holder, false, false, how);
    const Descriptor made(open_beneath(target, holder, O_RDONLY | O_DIRECTORY));
    if (!made)
        fail_call(how.operation, "open", shown, errno, false);
    if (renameat(made.get(), entry.c_str(), target, name) != 0) {
        const int error = errno;
        if (error == ENOENT)
            fail_incomplete(image, shown, "it cannot be copied", error, how.operation);
        fail_call(how.operation, "rename", shown, error, false);
    }
    if (unlinkat(target, holder, AT_REMOVEDIR) != 0)
        fail_call(how.operation, "rmdir", shown, errno, false);
}

} // namespace

std::string checked_subpath(std::string_view path, const char *operation) {
    constexpr const char *what = "the path below the object must be relative, without empty parts, \".\" and \"..\"";
    while (!path.empty() && path.back() == '/')
        path.remove_suffix(1);
    require(!path.empty(), operation, what);
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view part = path.substr(start, end - start);
        require(!part.empty() && part != "." && part != "..", operation, what);
        start = end + 1;
    }
    return std::string(path);
}

namespace {

Descriptor open_in_image(int object, const std::string &subpath, int flags, const std::string &shown,
                         const char *operation) {
    Descriptor entry(open_beneath(object, subpath.empty() ? "." : subpath.c_str(), flags));
    if (!entry)
        fail_call(operation, "open", shown, errno, true);
    return entry;
}

// The directory around an entry, and its name.
std::pair<Descriptor, std::string> entry_in_image(int object, const std::string &subpath, const std::string &shown,
                                                  const char *operation) {
    const std::size_t slash = subpath.rfind('/');
    const std::string above = slash == std::string::npos ? "" : subpath.substr(0, slash);
    return {open_in_image(object, above, O_RDONLY | O_DIRECTORY, shown, operation),
            slash == std::string::npos ? subpath : subpath.substr(slash + 1)};
}

} // namespace

bool is_directory(const HeldImage &image, std::size_t index, const std::string &subpath, const char *operation) {
    if (subpath.empty())
        return true;
    const std::string shown = joined(image_object_path(image.filesystem(), index), subpath);
    const Descriptor object = image.object(index);
    const Descriptor entry = open_in_image(object.get(), subpath, O_PATH | O_NOFOLLOW, shown, operation);
    struct stat status {};
    if (fstat(entry.get(), &status) != 0)
        fail_call(operation, "fstat", shown, errno, true);
    return S_ISDIR(status.st_mode);
}

void copy_out(const HeldImage &image, std::size_t index, const std::string &subpath, int target, const char *name,
              const CopyOut &how) {
    const Descriptor object = image.object(index);
    const std::string shown = joined(image.filesystem().objects[index].path, subpath);
    if (is_directory(image, index, subpath, how.operation)) {
        const Descriptor source = open_in_image(object.get(), subpath, O_RDONLY | O_DIRECTORY, shown, how.operation);
        return copy_directory(image, shown, source.get(), target, name, how);
    }
    const auto [directory, entry] = entry_in_image(object.get(), subpath, shown, how.operation);
    copy_entry(image, shown, directory.get(), entry, target, name, how);
}

namespace {

// What one that was killed left; no other of ours works in the original. What the image holds is no debris.
void remove_debris(int source, int directory, const std::string &shown, const char *operation) {
    struct stat status {};
    for (const std::string &name : names_in(directory, shown, operation))
        if (engine::is_temporary_name(name.c_str()) &&
            fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
            fstatat(source, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT &&
            unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT)
            fail_call(operation, "unlink", shown, errno, false);
}

} // namespace

void update_entry(const HeldImage &image, std::size_t index, const std::string &subpath, int directory, bool digest,
                  const CopyOut &how) {
    const Descriptor object = image.object(index);
    const std::string shown = joined(image.filesystem().objects[index].path, subpath);
    const auto [source, entry] = entry_in_image(object.get(), subpath, shown, how.operation);
    remove_debris(source.get(), directory, shown, how.operation);
    how.report->changed += run_one(image, shown, source.get(), entry, directory, ".", true, digest, how).changed;
}

} // namespace qzfi::fi
