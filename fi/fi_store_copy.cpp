// Copies of the catalogs of stores that can only be read.
#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "fi/fi_store_catalog.h"
#include "fi/fi_store_folders.h"
#include "fi/fi_store_sqlite.h"

namespace qzfi::fi {

namespace {

constexpr const char *wal_name = "catalog.db-wal";

// Another user may have made it to be a burden.
constexpr off_t longest_copy = off_t{256} << 20;
constexpr off_t most_copied = off_t{2} << 30; // in all tries

void require_reasonable(const struct stat &status, int to_directory, const CatalogPlace &place) {
    if (!S_ISREG(status.st_mode))
        fail(message::catalog_failed, QFI_FI_CATALOG, place.operation, {place.store, "it is no file"});
    if (status.st_size > longest_copy)
        fail(message::catalog_failed, QFI_FI_CATALOG, place.operation,
             {place.store, "it is larger than 256 MiB, and only a copy can be read"});
    struct statvfs room {};
    if (fstatvfs(to_directory, &room) == 0 && room.f_blocks != 0 &&
        static_cast<uint64_t>(status.st_blocks) * 512 > uint64_t{room.f_bavail} * room.f_frsize / 2)
        fail(message::no_space, QFI_FI_NO_SPACE, place.operation, {"the folder for temporary files"});
}

// Holes stay holes, and what comes after `size` is of another moment.
void copy_data(int from, int to, off_t size, const char *name, const CatalogPlace &place) {
    const std::string source = place.store + "/" + name, target = std::string("temporary copy of ") + name;
    std::string buffer(65536, '\0');
    for (off_t position = 0; position < size;) {
        position = lseek(from, position, SEEK_DATA);
        const off_t hole = position < 0 ? -1 : std::min(lseek(from, position, SEEK_HOLE), size);
        if (position < 0 && errno == ENXIO)
            return;
        if (hole < 0 || lseek(to, position, SEEK_SET) < 0)
            fail_call(place.operation, "lseek", source, errno, true);
        while (position < hole) {
            const auto most = static_cast<std::size_t>(std::min<off_t>(hole - position, 65536));
            const std::size_t count = read_at(from, buffer.data(), most, position, source, place.operation);
            if (count == 0)
                return;
            write_to(to, {buffer.data(), count}, target, place.operation);
            position += static_cast<off_t>(count);
        }
    }
}

void copy_file(int from_directory, int to_directory, const char *name, const CatalogPlace &place) {
    const Descriptor from(openat(from_directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!from && errno == ENOENT)
        return;
    if (!from)
        fail_call(place.operation, "open", place.store + "/" + name, errno, true);
    struct stat status {};
    if (fstat(from.get(), &status) != 0)
        fail_call(place.operation, "fstat", place.store + "/" + name, errno, true);
    require_reasonable(status, to_directory, place);
    const Descriptor to(openat(to_directory, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!to)
        fail_call(place.operation, "open", std::string("temporary copy of ") + name, errno, false);
    copy_data(from.get(), to.get(), status.st_size, name, place);
    if (ftruncate(to.get(), status.st_size) != 0)
        fail_call(place.operation, "ftruncate", std::string("temporary copy of ") + name, errno, false);
}

// What a file is at a moment; all zero for one that is not there.
struct Version {
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};
    bool operator==(const Version &other) const {
        return inode == other.inode && size == other.size && changed.tv_sec == other.changed.tv_sec &&
               changed.tv_nsec == other.changed.tv_nsec;
    }
};

Version version_of(int directory, const char *name) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    return {status.st_ino, status.st_size, status.st_ctim};
}

// Whether a file has what its copy has.
bool has_same_content(int one_directory, int other_directory, const char *name, const CatalogPlace &place) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const Descriptor one(openat(one_directory, name, flags)), other(openat(other_directory, name, flags));
    if (!one || !other)
        return false;
    std::string left(65536, '\0'), right(65536, '\0');
    for (off_t position = 0;;) {
        const std::size_t count =
            read_at(one.get(), left.data(), left.size(), position, place.store + "/" + name, place.operation);
        if (read_at(other.get(), right.data(), right.size(), position, name, place.operation) != count ||
            left.compare(0, count, right, 0, count) != 0)
            return false;
        if (count == 0)
            return true;
        position += static_cast<off_t>(count);
    }
}

// Whether a change that comes now could leave a file with the time of change that it has: times may move in ticks.
bool may_look_the_same(const Version &version, const timespec &now) {
    return version.changed.tv_sec > now.tv_sec ||
           (version.changed.tv_sec == now.tv_sec && version.changed.tv_nsec >= now.tv_nsec);
}

} // namespace

// Somebody who can write may move the log's changes into the database between the two copies, which then belong to
// different moments: they are made again until nothing changed meanwhile.
void copy_catalog(int from, int to, const CatalogPlace &place) {
    constexpr int most_tries = 100;
    off_t copied = 0;
    for (int tries = 0; tries < most_tries && copied <= most_copied; ++tries) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        const Version database = version_of(from, database_name), log = version_of(from, wal_name);
        copied += database.size + log.size;
        unlinkat(to, wal_name, 0);
        copy_file(from, to, database_name, place);
        copy_file(from, to, wal_name, place);
        const bool is_same = database == version_of(from, database_name) && log == version_of(from, wal_name);
        if (is_same && (!may_look_the_same(database, now) || has_same_content(from, to, database_name, place)))
            return;
    }
    fail(message::busy, QFI_FI_BUSY, place.operation, {place.store});
}

} // namespace qzfi::fi
