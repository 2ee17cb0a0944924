#include "fi/fi_guard_folder.h"

#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_library.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr int directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr time_t beginning_s = 60; // of a folder, before its host holds the FIFO

bool is_left(int folder) {
    struct stat status {};
    if (fstat(folder, &status) != 0 || status.st_uid != geteuid() || (status.st_mode & 07777) != 0700 ||
        status.st_mtim.tv_sec + beginning_s > time(nullptr))
        return false;
    const Descriptor in(openat(folder, "in", O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    return !in && (errno == ENXIO || errno == ENOENT);
}

} // namespace

void remove_left_guard_folders(const std::string &base) noexcept {
    try {
        const Hush hush;
        const Descriptor directory(open(base.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
        if (!directory)
            return;
        for (const std::string &name : names_in(directory.get(), base, "qzfi_quiesce")) {
            if (!name.starts_with(guard_folder_prefix))
                continue;
            const Descriptor folder(openat(directory.get(), name.c_str(), directory_flags));
            if (!folder || !is_left(folder.get()))
                continue;
            for (const char *const one : guard_folder_names)
                unlinkat(folder.get(), one, 0);
            unlinkat(directory.get(), name.c_str(), AT_REMOVEDIR);
        }
    } catch (...) {
        return; // the next one tries again
    }
}

} // namespace qzfi::fi
