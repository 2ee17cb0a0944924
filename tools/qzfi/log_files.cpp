#include "tools/qzfi/log_files.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi/log.h>

namespace qzfi::tool {

namespace {

struct Level {
    const char *name;
    uint32_t bit;
};
constexpr std::array<Level, 7> levels = {{{"INFO", QFI_TRACE_INFO},
                                          {"WARN", QFI_TRACE_WARN},
                                          {"TRC_TOP", QFI_TRACE_TRC_TOP},
                                          {"TRC_LOW", QFI_TRACE_TRC_LOW},
                                          {"PARAM_IN", QFI_TRACE_PARAM_IN},
                                          {"PARAM_OUT", QFI_TRACE_PARAM_OUT},
                                          {"PARAM_FULL", QFI_TRACE_PARAM_FULL}}};

bool is_directory(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string folder_of(const std::string &root) {
    const char *const wanted = std::getenv("TMPDIR");
    if (wanted != nullptr && is_directory(wanted))
        return wanted;
    const std::string own = root + "/arcvault/logs/fisagent";
    return is_directory(own) ? own : "/tmp";
}

} // namespace

std::string trace_configuration(const std::string &root) {
    return root + "/lib/.qzms.rc";
}

uint32_t trace_mask(const std::string &root) {
    // The call opens a log as well, which holds nothing but its header and is not to be seen.
    FILE *const stream = get_qzfi_msgout();
    const uint32_t mask = init_qzfi_logFile(root.c_str());
    if (mask != 0 && get_qzfi_msgout() != nullptr && get_qzfi_logfile() != nullptr)
        (void)unlink(get_qzfi_logfile());
    set_qzfi_msgout(stream);
    return mask;
}

std::vector<std::string> trace_level_names(uint32_t mask) {
    std::vector<std::string> names;
    for (const Level &level : levels)
        if ((mask & level.bit) != 0)
            names.emplace_back(level.name);
    return names;
}

uint32_t trace_level(const std::string &name) {
    const auto *const level =
        std::find_if(levels.begin(), levels.end(), [&](const Level &each) { return name == each.name; });
    return level != levels.end() ? level->bit : 0;
}

LogFolder log_folder(const std::string &root) {
    LogFolder folder{folder_of(root), {}};
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(opendir(folder.path.c_str()), closedir);
    while (const dirent *const entry = stream ? readdir(stream.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        struct stat status = {};
        if (!name.starts_with("QzFI-") || !name.ends_with(".log") ||
            fstatat(dirfd(stream.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode))
            continue;
        LogFile file{folder.path + "/" + entry->d_name, static_cast<uint64_t>(status.st_size), {}};
        qzfi_xlat2_qfitime(&file.time.qzfi_sec, status.st_mtim.tv_sec);
        file.time.qzfi_nsec = static_cast<uint32_t>(status.st_mtim.tv_nsec);
        folder.files.push_back(std::move(file));
    }
    std::sort(folder.files.begin(), folder.files.end(), [](const LogFile &one, const LogFile &other) {
        return std::pair(one.time.qzfi_sec, one.time.qzfi_nsec) > std::pair(other.time.qzfi_sec, other.time.qzfi_nsec);
    });
    return folder;
}

} // namespace qzfi::tool
