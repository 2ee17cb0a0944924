// The descriptors of the context process: which are open, and closing all but its own.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <sys/syscall.h>
#include <ulimit.h>
#include <unistd.h>

#include <qzfi/system.h>

#include "common/qzfitext.h"
#include "util/qzfiutil_context.h"

namespace {

constexpr std::size_t path_size = 256;
constexpr int ulimit_open_files = 4; // has no name in the system's headers
constexpr int first_lifted = STDERR_FILENO + 1;
constexpr uint32_t not_listed = 1;

struct DirectoryCloser {
    void operator()(DIR *stream) const noexcept { qzfi_closedir(stream); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;
using List = std::unique_ptr<int32_t[], qzfi::FreeDeleter>;

/// Visits the names of the descriptors in a directory of them; false when it cannot be read to its end or the visitor
/// refuses one.
template <class Visitor>
bool visit_descriptors(const char *path, Visitor visitor) noexcept {
    const Directory directory{qzfi_opendir(path)};
    if (!directory)
        return false;
    errno = 0;
    for (const char *name = qzfi_dir(directory.get()); name != nullptr; name = qzfi_dir(directory.get())) {
        const bool is_descriptor = std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
        if (is_descriptor && !visitor(name))
            return false;
        errno = 0;
    }
    return errno == 0;
}

/// The descriptors that the sweep leaves open, in ascending order.
class Kept {
public:
    explicit Kept(const int32_t *record) noexcept
        : numbers_{STDOUT_FILENO,
                   STDERR_FILENO,
                   record[QFI_CONTEXT_COMMAND_READ],
                   record[QFI_CONTEXT_STATUS_WRITE],
                   record[QFI_CONTEXT_OUTPUT_WRITE],
                   record[QFI_CONTEXT_ERROR_WRITE]} {
        std::sort(std::begin(numbers_), std::end(numbers_));
    }

    bool contains(int fd) const noexcept { return std::binary_search(std::begin(numbers_), std::end(numbers_), fd); }

    const int *begin() const noexcept { return std::begin(numbers_); }
    const int *end() const noexcept { return std::end(numbers_); }

private:
    int numbers_[6];
};

/// Closes the descriptors from `first` up to `limit`, exclusive.
void close_between(int first, int limit) noexcept {
    if (first >= limit)
        return;
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, limit - 1, 0) == 0)
        return;
#endif
    for (int fd = first; fd < limit; ++fd)
        close(fd);
}

/// Closes the descriptors below the limit on open files: range by range, for the limit may be a thousand million.
void sweep_below_limit(const Kept &kept) noexcept {
    const long most = ulimit(ulimit_open_files);
    const int limit = static_cast<int>(std::clamp(most, 0L, long{INT_MAX}));
    int first = 0;
    for (const int fd : kept) {
        close_between(first, std::min(fd, limit));
        first = std::max(first, fd + 1);
    }
    close_between(first, limit);
}

/// Closes the listed descriptors. That of the listing itself is among them and no longer open, which is harmless.
void sweep_listed(const Kept &kept, const int32_t *list, int32_t count) noexcept {
    for (int32_t index = 0; index < count; ++index)
        if (!kept.contains(list[index]))
            close(list[index]);
}

/// Moves a slot off the standard descriptors, which are about to be replaced.
void lift(int32_t &slot) noexcept {
    if (slot < 0 || slot >= first_lifted)
        return;
    const int lifted = fcntl(slot, F_DUPFD_CLOEXEC, first_lifted);
    if (lifted != -1)
        slot = lifted;
}

} // namespace

uint32_t qzfi_get_open_fd_list(int32_t **list, int32_t *count) {
    char path[path_size];
    qzfi_snprintf(path, sizeof path, "/proc/%d/fd", getpid());
    int32_t most = 0;
    if (!visit_descriptors(path, [&most](const char *) noexcept { return ++most > 0; }))
        return not_listed;
    List found{static_cast<int32_t *>(std::malloc(static_cast<std::size_t>(most) * sizeof(int32_t)))};
    if (!found)
        return not_listed;
    int32_t next = 0;
    const bool is_listed = visit_descriptors(path, [&](const char *name) noexcept {
        if (next == most)
            return false;
        found[static_cast<std::size_t>(next++)] = static_cast<int32_t>(std::strtol(name, nullptr, 10));
        return true;
    });
    if (!is_listed)
        return not_listed;
    *list = found.release();
    *count = next;
    return 0;
}

void qzfi_closeall(int32_t *record) {
    for (const int slot :
         {QFI_CONTEXT_COMMAND_READ, QFI_CONTEXT_STATUS_WRITE, QFI_CONTEXT_OUTPUT_WRITE, QFI_CONTEXT_ERROR_WRITE})
        lift(record[slot]);
    (void)dup2(record[QFI_CONTEXT_OUTPUT_WRITE], STDOUT_FILENO);
    (void)dup2(record[QFI_CONTEXT_ERROR_WRITE], STDERR_FILENO);
    // Commands get the output ends, and must not get the others.
    fcntl(record[QFI_CONTEXT_OUTPUT_WRITE], F_SETFD, 0);
    fcntl(record[QFI_CONTEXT_ERROR_WRITE], F_SETFD, 0);
    fcntl(record[QFI_CONTEXT_COMMAND_READ], F_SETFD, FD_CLOEXEC);
    fcntl(record[QFI_CONTEXT_STATUS_WRITE], F_SETFD, FD_CLOEXEC);

    const Kept kept(record);
    int32_t *list = nullptr;
    int32_t count = 0;
    if (qzfi_get_open_fd_list(&list, &count) != 0) {
        sweep_below_limit(kept);
        return;
    }
    const List owned{list};
    sweep_listed(kept, list, count);
}
