/*
 * A provider as a template for others: "flat" copies a folder that holds nothing but plain files. Whatever it cannot
 * keep it refuses, or remarks; holes it fills with zeros. docs/provider_kit.md explains the kit.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <qzfi_fi.h>
#include <qzfi_provider.h>

/* Every failure names the call, the object below the job's, and the errno; `otherwise` is a failure to read or write.
 */
static int32_t fail(const qfi_provider_job *job, const char *operation, const char *object, int error,
                    int32_t otherwise) {
    job->host->fail(job->host->context, operation, object, error);
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
    case EOPNOTSUPP:
        return QFI_STATUS_NOT_SUPPORTED;
    default:
        return otherwise;
    }
}

static int32_t fail_read(const qfi_provider_job *job, const char *operation, const char *object) {
    return fail(job, operation, object, errno, QFI_FI_READ);
}

static int32_t fail_write(const qfi_provider_job *job, const char *operation, const char *object) {
    return fail(job, operation, object, errno, QFI_FI_WRITE);
}

/* A library of an earlier kit knows less of a job than this provider. */
static int is_known(const qfi_provider_job *job) {
    return job != NULL && job->size >= sizeof(*job);
}

static void remark(const qfi_provider_job *job, uint32_t kind, const char *path, const char *detail) {
    const qfi_remark one = {kind, path, detail, 0};
    job->host->remark(job->host->context, &one);
}

/* The tree may change while it is read: no symbolic link is followed, no FIFO waited for, and what was opened is what
 * is looked at. */
static int open_plain_file(int directory, const char *name, struct stat *status) {
    const int fd = openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0 && fstat(fd, status) == 0 && S_ISREG(status->st_mode))
        return fd;
    if (fd >= 0) {
        close(fd);
        errno = EINVAL;
    }
    return -1;
}

/* What was done so far, for `progress`: it is told often, for it is also how the host cancels. */
struct counted {
    uint64_t entries, bytes;
};

static int is_cancelled(const qfi_provider_job *job, const struct counted *done) {
    return job->host->progress(job->host->context, done->entries, done->bytes) != 0;
}

static int32_t copy_data(const qfi_provider_job *job, int from, int to, const char *name, struct counted *done) {
    char buffer[65536];
    ssize_t length;
    while ((length = read(from, buffer, sizeof(buffer))) > 0) {
        for (ssize_t put = 0; put < length;) {
            const ssize_t written = write(to, buffer + put, (size_t)(length - put));
            if (written < 0)
                return fail_write(job, "write", name);
            put += written;
        }
        done->bytes += (uint64_t)length;
        if (is_cancelled(job, done))
            return QFI_FI_CANCELLED;
    }
    return length < 0 ? fail_read(job, "read", name) : 0;
}

static int is_same_time(const struct timespec *a, const struct timespec *b) {
    return a->tv_sec == b->tv_sec && a->tv_nsec == b->tv_nsec;
}

/* A file may change while it is read: the copy is kept, the user is told, and the entry has the size of the copy. */
static int32_t look_again(const qfi_provider_job *job, int from, const char *name, uint64_t copied,
                          struct stat *status) {
    struct stat now;
    if (fstat(from, &now) != 0)
        return fail_read(job, "fstat", name);
    if (copied != (uint64_t)status->st_size || now.st_size != status->st_size ||
        !is_same_time(&now.st_mtim, &status->st_mtim) || !is_same_time(&now.st_ctim, &status->st_ctim))
        remark(job, QFI_REMARK_TORN, name, "it changed while it was read");
    status->st_size = (off_t)copied;
    return 0;
}

/* Of a file, or with the path "" of the folder. A list of rights (ACL) is an extended attribute. */
static void remark_lost(const qfi_provider_job *job, int from, const char *path) {
    const unsigned kept_by_others = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL | FS_NOATIME_FL | FS_SYNC_FL |
                                    FS_COMPR_FL | FS_NOCOW_FL | FS_DIRSYNC_FL;
    unsigned flags = 0;
    if (flistxattr(from, NULL, 0) > 0)
        remark(job, QFI_REMARK_ATTRIBUTE, path, "extended attributes");
    if (ioctl(from, FS_IOC_GETFLAGS, &flags) == 0 && (flags & kept_by_others) != 0)
        remark(job, QFI_REMARK_ATTRIBUTE, path, "inode flags");
}

static int keep_attributes(int to, const struct stat *status) {
    const struct timespec times[2] = {status->st_atim, status->st_mtim};
    if (fchown(to, status->st_uid, status->st_gid) != 0 || fchmod(to, status->st_mode & 07777) != 0)
        return -1;
    return futimens(to, times);
}

/* With QFI_JOB_MANIFEST the host wants every entry, the object itself (path "") included. */
static int32_t tell_entry(const qfi_provider_job *job, const char *path, const struct stat *status) {
    if ((job->flags & QFI_JOB_MANIFEST) == 0)
        return 0;
    qfi_entry entry;
    memset(&entry, 0, sizeof(entry));
    entry.path = path;
    entry.type = S_ISDIR(status->st_mode) ? QFI_ENTRY_DIRECTORY : QFI_ENTRY_FILE;
    entry.mode = status->st_mode & 07777;
    entry.uid = status->st_uid;
    entry.gid = status->st_gid;
    entry.size = S_ISDIR(status->st_mode) ? 0 : (uint64_t)status->st_size;
    entry.mtime_ns = (int64_t)status->st_mtim.tv_sec * 1000000000 + status->st_mtim.tv_nsec;
    return job->host->entry(job->host->context, &entry);
}

static int32_t copy_file(const qfi_provider_job *job, int directory, const char *name, struct counted *done) {
    struct stat status;
    const uint64_t before = done->bytes;
    const int from = open_plain_file(job->source, name, &status);
    if (from < 0)
        return fail_read(job, "opening a plain file", name);
    const int to = openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    int32_t result = to < 0 ? fail_write(job, "creating", name) : copy_data(job, from, to, name, done);
    if (result == 0)
        result = look_again(job, from, name, done->bytes - before, &status);
    if (result == 0 && keep_attributes(to, &status) != 0)
        result = fail_write(job, "keeping owner, mode and times", name);
    if (result == 0)
        remark_lost(job, from, name);
    if (result == 0 && status.st_nlink > 1)
        remark(job, QFI_REMARK_ATTRIBUTE, name, "hard link");
    if (result == 0 && (job->flags & QFI_JOB_SYNC) != 0 && fsync(to) != 0)
        result = fail_write(job, "fsync", name);
    close(from);
    if (to >= 0 && close(to) != 0 && result == 0)
        result = fail_write(job, "close", name);
    ++done->entries;
    return result == 0 ? tell_entry(job, name, &status) : result;
}

static int is_dot(const char *name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

/* A stream over a descriptor of its own, for the caller's stays the caller's. */
static DIR *open_stream(int at, const char *name) {
    const int fd = openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR *const stream = fd >= 0 ? fdopendir(fd) : NULL;
    if (stream == NULL && fd >= 0)
        close(fd);
    return stream;
}

static int32_t copy_files(const qfi_provider_job *job, DIR *files, int directory) {
    struct counted done = {0, 0};
    const struct dirent *entry;
    for (errno = 0; (entry = readdir(files)) != NULL; errno = 0) {
        if (is_dot(entry->d_name))
            continue;
        const int32_t status = copy_file(job, directory, entry->d_name, &done);
        if (status != 0)
            return status;
        if (is_cancelled(job, &done))
            return QFI_FI_CANCELLED;
    }
    return errno == 0 ? 0 : fail_read(job, "readdir", "");
}

static int32_t fill(const qfi_provider_job *job, DIR *image) {
    struct stat status;
    DIR *const files = open_stream(job->source, ".");
    if (files == NULL)
        return fail_read(job, "opendir", "");
    int32_t result = copy_files(job, files, dirfd(image));
    if (result == 0 && (fstat(job->source, &status) != 0 || keep_attributes(dirfd(image), &status) != 0))
        result = fail_write(job, "keeping the attributes", "");
    if (result == 0)
        remark_lost(job, job->source, "");
    if (result == 0 && (job->flags & QFI_JOB_SYNC) != 0 && fsync(dirfd(image)) != 0)
        result = fail_write(job, "fsync", "");
    closedir(files);
    return result == 0 ? tell_entry(job, "", &status) : result;
}

static int32_t empty(const qfi_provider_job *job, DIR *image) {
    const struct dirent *entry;
    for (errno = 0; (entry = readdir(image)) != NULL; errno = 0)
        if (!is_dot(entry->d_name) && unlinkat(dirfd(image), entry->d_name, 0) != 0 && errno != ENOENT)
            return fail_write(job, "unlinkat", entry->d_name);
    return errno == 0 ? 0 : fail_read(job, "readdir", "");
}

static int32_t remove_image(qfi_provider_job *job) {
    if (!is_known(job))
        return QFI_STATUS_INVALID_ARGUMENT;
    DIR *const image = open_stream(job->target, job->name);
    if (image == NULL)
        return errno == ENOENT ? 0 : fail_write(job, "opendir", "");
    const int32_t status = empty(job, image);
    closedir(image);
    if (status != 0)
        return status;
    return unlinkat(job->target, job->name, AT_REMOVEDIR) == 0 ? 0 : fail_write(job, "unlinkat", "");
}

static void say_nothing(void *context, const char *operation, const char *object, int32_t error) {
    (void)context, (void)operation, (void)object, (void)error;
}

/* The last call of `fail` wins, so the removal after a failure must not make one. */
static void discard(const qfi_provider_job *job) {
    qfi_provider_host host = *job->host;
    qfi_provider_job removal = *job;
    host.fail = say_nothing;
    removal.host = &host;
    remove_image(&removal);
}

/* Complete or not at all. */
static int32_t make(qfi_provider_job *job) {
    if (!is_known(job))
        return QFI_STATUS_INVALID_ARGUMENT;
    if ((job->flags & QFI_JOB_DIGEST) != 0)
        return fail(job, "making digests", "", EOPNOTSUPP, QFI_FI_WRITE);
    if (mkdirat(job->target, job->name, 0700) != 0)
        return fail_write(job, "mkdirat", "");
    DIR *const image = open_stream(job->target, job->name);
    const int32_t status = image != NULL ? fill(job, image) : fail_write(job, "opendir", "");
    if (image != NULL)
        closedir(image);
    if (status != 0)
        discard(job);
    return status;
}

/* Says in words what stands in the way, for it is shown to people who choose a method. */
static int32_t probe(int source, int store, const char *object, uint32_t flags, qfi_probe *out) {
    (void)object;
    const int is_glance = (flags & QFI_JOB_GLANCE) != 0;
    struct stat status;
    qfi_probe made = {.combo_class = QFI_SERIAL_FS, .consistency = QFI_CONSISTENCY_FUZZY};
    /* A caller of an earlier kit has room for less, which is no reason to refuse it. */
    if (out == NULL || out->size < offsetof(qfi_probe, entries))
        return QFI_STATUS_INVALID_ARGUMENT;
    made.size = out->size < sizeof(made) ? out->size : (uint32_t)sizeof(made);
    DIR *const files = open_stream(source, ".");
    if (files == NULL)
        return QFI_FI_READ;
    if (store >= 0 && faccessat(store, ".", W_OK, AT_EACCESS) != 0)
        snprintf(made.reason, sizeof(made.reason), "the store cannot be written: %s", strerror(errno));
    for (const struct dirent *entry; made.reason[0] == '\0' && (entry = readdir(files)) != NULL;) {
        if (is_dot(entry->d_name))
            continue;
        if (is_glance && entry->d_type == DT_REG)
            continue; /* a glance counts nothing, but whether it can be done is asked all the same */
        if (fstatat(source, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) {
            snprintf(made.reason, sizeof(made.reason), "it holds \"%.180s\", which is no plain file", entry->d_name);
        } else if (!is_glance) {
            made.bytes += (uint64_t)status.st_size;
            ++made.entries;
        }
    }
    closedir(files);
    made.cost_bytes = made.bytes;
    made.cost_ms = 1 + made.bytes / 100000;
    if (made.reason[0] != '\0') {
        made.combo_class = QFI_CLASS_NOTSUP;
        made.consistency = QFI_CONSISTENCY_NONE;
        made.entries = made.bytes = 0;
    }
    memcpy(out, &made, made.size);
    return 0;
}

/* What is not named is null: `start`, `stop`, and `resync`, which this provider does not offer. */
static const qfi_provider_ops operations = {
    .size = sizeof(qfi_provider_ops),
    .version = QFI_API_VERSION,
    .provider_id = "flat",
    .fim_id = "flat",
    .description = "A copy of a folder of plain files; an example",
    .hlevel = 10,
    .consistency = QFI_CONSISTENCY_FUZZY,
    .technology = QFI_TECHNOLOGY_COPY,
    .probe = probe,
    .split = make,
    .copy_out = make,
    .remove = remove_image,
};

QZFI_API const qfi_provider_ops *qfi_provider_entry(void);

const qfi_provider_ops *qfi_provider_entry(void) {
    return &operations;
}
