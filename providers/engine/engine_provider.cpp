#include "providers/engine/engine_provider.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/openat2.h>
#include <memory>
#include <set>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace qzfi::provider {
namespace {

/// More would make a probe slow.
constexpr uint64_t counted_entries = 100000;
/// What a file takes on average where nothing better is known.
constexpr uint64_t bytes_per_entry = 16384;

class Counter {
public:
    Counter(int source, int store) {
        struct stat status {};
        if (fstat(source, &status) == 0)
            device_ = status.st_dev;
        if (store >= 0 && fstat(store, &status) == 0)
            left_out_ = {status.st_dev, status.st_ino};
    }

    /// False when there are too many. However deep a tree is, one directory of it is open, and another on the way.
    bool count(int source, Estimate &sum) {
        std::vector<Level> levels;
        Descriptor at = open_directory(source, "");
        ++sum.entries;
        if (at && !enter(at.get(), levels, sum))
            return false;
        while (!levels.empty()) {
            if (levels.back().below.empty()) {
                levels.pop_back();
                if (!levels.empty() && !go_up(at, levels.back()))
                    return true; // moved elsewhere meanwhile: what was counted is all there is to say
                continue;
            }
            const std::string name = std::move(levels.back().below.back());
            levels.back().below.pop_back();
            Descriptor child(openat(at.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!child)
                continue; // what cannot be read costs nothing
            at = std::move(child);
            if (!enter(at.get(), levels, sum))
                return false;
        }
        return true;
    }

private:
    struct Level {
        dev_t device;
        ino_t inode;
        std::vector<std::string> below; // directories not yet counted
    };
    struct CloseStream {
        void operator()(DIR *stream) const noexcept { closedir(stream); }
    };

    bool enter(int directory, std::vector<Level> &levels, Estimate &sum) {
        struct stat status {};
        const bool is_there = fstat(directory, &status) == 0;
        Level &level = levels.emplace_back(Level{status.st_dev, status.st_ino, {}});
        Descriptor copy(is_there ? fcntl(directory, F_DUPFD_CLOEXEC, 3) : -1);
        const std::unique_ptr<DIR, CloseStream> stream(copy ? fdopendir(copy.get()) : nullptr);
        if (!stream)
            return true;
        copy.release();
        while (const dirent *entry = readdir(stream.get())) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && !add(directory, name, sum, level.below))
                return false;
        }
        return true;
    }

    static bool go_up(Descriptor &at, const Level &level) {
        Descriptor up(openat(at.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct stat status {};
        if (!up || fstat(up.get(), &status) != 0 || status.st_dev != level.device || status.st_ino != level.inode)
            return false;
        at = std::move(up);
        return true;
    }

    bool add(int at, const std::string &name, Estimate &sum, std::vector<std::string> &below) {
        struct stat status {};
        if (fstatat(at, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return true;
        if (left_out_ == std::pair(status.st_dev, status.st_ino))
            return true;
        if (S_ISSOCK(status.st_mode))
            return true; // never part of an image
        if (++sum.entries > counted_entries)
            return false;
        if (S_ISDIR(status.st_mode)) {
            sum.has_others = sum.has_others || status.st_dev != device_;
            if (status.st_dev == device_)
                below.push_back(name);
            return true;
        }
        if (status.st_nlink == 1 || links_.insert(status.st_ino).second) {
            const uint64_t allocated = static_cast<uint64_t>(status.st_blocks) * 512;
            sum.bytes += allocated;
            if (S_ISREG(status.st_mode))
                sum.data += std::min(allocated, static_cast<uint64_t>(status.st_size));
        }
        return true;
    }

    dev_t device_ = 0;
    std::pair<dev_t, ino_t> left_out_{};
    std::set<ino_t> links_;
};

bool fsid_of(int directory, btrfs_ioctl_fs_info_args &info) noexcept {
    info = {};
    return ioctl(directory, BTRFS_IOC_FS_INFO, &info) == 0;
}

} // namespace

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

Descriptor::~Descriptor() {
    if (fd_ < 0)
        return;
    const int error = errno;
    close(fd_);
    errno = error;
}

Descriptor open_directory(int at, const std::string &path) noexcept {
    if (path.empty())
        return Descriptor(openat(at, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    long fd = -1;
    do
        fd = syscall(SYS_openat2, at, path.c_str(), &how, sizeof(how));
    while (fd < 0 && errno == EAGAIN); // something was renamed meanwhile
    return Descriptor(static_cast<int>(fd));
}

int32_t status_of(int error, bool reading) noexcept {
    switch (error) {
    case ENOMEM:
        return QFI_STATUS_NO_MEMORY;
    case ENOSPC:
    case EDQUOT:
        return QFI_FI_NO_SPACE;
    case EPERM:
    case EACCES:
        return QFI_FI_NO_RIGHT;
    case EEXIST:
        return QFI_FI_EXISTS;
    case ELOOP:
        return QFI_FI_UNSAFE;
    case EXDEV:
    case ENOTTY:
    case EOPNOTSUPP:
    case ENOSYS:
        return QFI_STATUS_NOT_SUPPORTED;
    default:
        return reading ? QFI_FI_READ : QFI_FI_WRITE;
    }
}

int32_t fail_read(const qfi_provider_job &job, const char *operation, const std::string &object, int error) {
    job.host->fail(job.host->context, operation, object.c_str(), error);
    return status_of(error, true);
}

int32_t fail_write(const qfi_provider_job &job, const char *operation, const std::string &object, int error) {
    job.host->fail(job.host->context, operation, object.c_str(), error);
    return status_of(error, false);
}

void remark(const qfi_provider_job &job, qfi_remark_kind kind, const std::string &path, const char *detail, int error) {
    const qfi_remark remark{kind, path.c_str(), detail, error};
    job.host->remark(job.host->context, &remark);
}

bool is_valid(const qfi_provider_job *job) noexcept {
    if (job == nullptr || job->size < sizeof(*job) || job->host == nullptr || job->host->size < sizeof(*job->host))
        return false;
    if (job->name == nullptr || std::strchr(job->name, '/') != nullptr)
        return false;
    return *job->name != '\0' && std::strcmp(job->name, ".") != 0 && std::strcmp(job->name, "..") != 0;
}

int32_t fail_no_memory(const qfi_provider_job &job) noexcept {
    job.host->fail(job.host->context, "malloc", "", ENOMEM);
    return QFI_STATUS_NO_MEMORY;
}

int32_t fail_unforeseen(const qfi_provider_job &job, const char *what) noexcept {
    job.host->fail(job.host->context, what, "", 0);
    return QFI_STATUS_INTERNAL;
}

void refuse(qfi_probe &out, const std::string &reason) noexcept {
    out.combo_class = QFI_CLASS_NOTSUP;
    out.consistency = QFI_CONSISTENCY_NONE;
    out.cost_bytes = 0;
    out.cost_ms = 0;
    std::snprintf(out.reason, sizeof(out.reason), "%s", reason.c_str());
}

std::string words_of(int error) {
    switch (error) {
    case EXDEV:
        return "that is another file system";
    case EPERM:
    case EACCES:
        return "this user has no right to do it";
    case EROFS:
        return "the file system is read-only";
    case ENOSPC:
        return "no space is left on the file system";
    case EDQUOT:
        return "this user's quota is used up";
    case ENOTTY:
    case EOPNOTSUPP:
    case ENOSYS:
        return "the file system does not support it";
    default:
        return std::generic_category().message(error);
    }
}

std::string store_obstacle(int source, int store) {
    const int place = store >= 0 ? store : source;
    struct statvfs status {};
    if (fstatvfs(place, &status) != 0)
        return "the store's file system cannot be asked: " + words_of(errno);
    if ((status.f_flag & ST_RDONLY) != 0)
        return store >= 0 ? "the store's file system is read-only"
                          : "the object's file system is read-only, so no store can be on it";
    if (store >= 0 && faccessat(store, ".", W_OK | X_OK, AT_EACCESS) != 0)
        return "the store cannot be written: " + words_of(errno);
    return {};
}

bool same_file_system(int one, int other) noexcept {
    struct stat first {
    }, second{};
    if (fstat(one, &first) != 0 || fstat(other, &second) != 0)
        return false;
    if (first.st_dev == second.st_dev)
        return true;
    btrfs_ioctl_fs_info_args left, right;
    return fsid_of(one, left) && fsid_of(other, right) && std::memcmp(left.fsid, right.fsid, sizeof(left.fsid)) == 0;
}

Estimate estimate(int source, int store, uint32_t flags) {
    Estimate sum;
    sum.counted = (flags & QFI_JOB_GLANCE) == 0 && Counter(source, store).count(source, sum);
    if (sum.counted)
        return sum;
    struct statvfs status {};
    if (fstatvfs(source, &status) != 0)
        return sum;
    sum.bytes = std::max<uint64_t>(sum.bytes, (status.f_blocks - status.f_bfree) * status.f_frsize);
    const uint64_t inodes = status.f_files - status.f_ffree; // 0 where they are not counted, as on Btrfs
    sum.entries = std::max(sum.entries, inodes != 0 ? inodes : sum.bytes / bytes_per_entry);
    return sum;
}

void foretell(qfi_probe &out, const Estimate &sum, uint32_t flags, bool reads) noexcept {
    if (!sum.counted || ((flags & QFI_JOB_NESTED) != 0 && sum.has_others))
        return;
    out.entries = sum.entries;
    out.bytes = reads ? sum.data : 0;
}

uint64_t free_bytes(int directory) noexcept {
    struct statvfs status {};
    return fstatvfs(directory, &status) == 0 ? status.f_bavail * status.f_frsize : 0;
}

qfi_provider_host failing_only(const qfi_provider_host &host) noexcept {
    qfi_provider_host result = host;
    result.entry = [](void *, const qfi_entry *) -> int32_t { return 0; };
    result.remark = [](void *, const qfi_remark *) {};
    result.progress = [](void *, uint64_t, uint64_t) -> int32_t { return 0; };
    return result;
}

qfi_provider_host quiet(const qfi_provider_host &host) noexcept {
    qfi_provider_host result = failing_only(host);
    result.fail = [](void *, const char *, const char *, int32_t) {};
    return result;
}

engine::Options options_of(const qfi_provider_job &job, engine::Data data) noexcept {
    engine::Options options;
    options.data = data;
    options.workers = std::clamp(job.workers, 1u, 64u);
    options.digest = (job.flags & QFI_JOB_DIGEST) != 0;
    options.entries = (job.flags & QFI_JOB_MANIFEST) != 0;
    options.nested_volumes = (job.flags & QFI_JOB_NESTED) != 0;
    options.sync = (job.flags & QFI_JOB_SYNC) != 0;
    options.excluded = job.excluded;
    options.excluded_count = job.excluded_count;
    return options;
}

int taken(const qfi_provider_job &job) noexcept {
    struct stat status {};
    if (fstatat(job.target, job.name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        return EEXIST;
    return errno == ENOENT ? 0 : errno;
}

int32_t make_tree(const qfi_provider_job &job, engine::Data data) {
    if (const int error = taken(job); error != 0)
        return fail_write(job, "fstatat", "", error);
    const int32_t status = engine::copy_tree(job.source, job.target, job.name, options_of(job, data), *job.host).status;
    if (status != QFI_STATUS_OK)
        engine::remove_tree(job.target, job.name, options_of(job, data), quiet(*job.host));
    return status;
}

int32_t remove_tree(const qfi_provider_job &job) {
    engine::Options options = options_of(job, engine::Data::copy);
    options.excluded_count = 0;
    return engine::remove_tree(job.target, job.name, options, *job.host).status;
}

namespace {

int32_t copy_out(qfi_provider_job *job) {
    return fenced(job, [](const qfi_provider_job &one) { return make_tree(one, engine::Data::clone_or_copy); });
}

int32_t resync(qfi_provider_job *job) {
    return fenced(job, [](qfi_provider_job &one) {
        const engine::Options options = options_of(one, engine::Data::clone_or_copy);
        const auto result = engine::bring_up_to_date(one.source, one.target, one.name, options, *one.host);
        one.changed = result.changed;
        return result.status;
    });
}

int32_t remove_image(qfi_provider_job *job) {
    return fenced(job, [](const qfi_provider_job &one) { return remove_tree(one); });
}

} // namespace

qfi_provider_ops operations_of(const Description &description, decltype(qfi_provider_ops::probe) probe,
                               decltype(qfi_provider_ops::split) split) {
    qfi_provider_ops operations{};
    operations.size = sizeof operations;
    operations.version = QFI_API_VERSION;
    operations.provider_id = operations.fim_id = description.id;
    operations.description = description.text;
    operations.hlevel = description.level;
    operations.consistency = description.consistency;
    operations.technology = description.technology;
    operations.probe = probe;
    operations.split = split;
    operations.copy_out = copy_out;
    operations.resync = resync;
    operations.remove = remove_image;
    return operations;
}

} // namespace qzfi::provider
