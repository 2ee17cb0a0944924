// The files of an installation: root, libraries, messages, log.
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi/catalogs.h>
#include <qzfi/system.h>

#include "tools/qzfi/doctor.h"
#include "tools/qzfi/library.h"
#include "tools/qzfi/log_files.h"
#include "tools/qzfi/text.h"
#include "tools/qzfi/trial.h"

namespace qzfi::tool {

namespace {

constexpr int patience_seconds = 60;

// Empty when it can be read; else why not.
std::string obstacle_to(const std::string &path, int wanted) {
    return access(path.c_str(), wanted) == 0 ? "" : std::strerror(errno);
}

std::string real_path(const std::string &path) {
    const std::unique_ptr<char, void (*)(void *)> real(realpath(path.c_str(), nullptr), std::free);
    return real ? real.get() : path;
}

// In the child: loading runs the library's code. The names that are missing, or the text of the loader's failure.
Json look_at_entries(const std::string &path) {
    try {
        return missing_entries(path);
    } catch (const std::exception &error) {
        return error.what();
    }
}

} // namespace

void check_root(const Settings &settings, Findings &findings) {
    for (const char *const folder : {"", "/lib", "/lib/qzfi/plugins", "/lib/qzfi/data"}) {
        const std::string path = settings.root + folder;
        const std::string obstacle = obstacle_to(path + "/.", R_OK | X_OK);
        if (!obstacle.empty()) {
            findings.push_back({Health::failure, "root", path, obstacle,
                                "install below it, or name another root with --root or QFI_ROOT"});
            return;
        }
    }
    findings.push_back({Health::ok, "root", settings.root, "complete", ""});
}

void check_library(const Settings &settings, Findings &findings) {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void *>(qzfiapi_start), &info) == 0 || info.dli_fname == nullptr) {
        findings.push_back({Health::warning, "library", "libqzfi.so", "its file is not known", ""});
        return;
    }
    const std::string path = real_path(info.dli_fname);
    constexpr std::string_view mark = ".so.";
    const std::size_t at = path.rfind(mark);
    const std::string version = at != std::string::npos ? path.substr(at + mark.size()) : "without a number";
    const bool is_of_root = path.starts_with(real_path(settings.root) + "/");
    findings.push_back(
        {Health::ok, "library", path, "version " + version + (is_of_root ? "" : ", not of this root"), ""});
}

void check_entries(const Settings &settings, Findings &findings) {
    const std::string path = library_of(settings.root);
    const std::string obstacle = obstacle_to(path, R_OK);
    const std::string hint = "install it there, or name another one with QFI_API_LIB";
    if (!obstacle.empty()) {
        findings.push_back({Health::failure, "entries", path, obstacle, hint});
        return;
    }
    const TrialResult trial = try_out(look_at_entries, path, patience_seconds);
    const std::string all = std::to_string(entry_count);
    if (!trial.failure.empty()) {
        findings.push_back({Health::failure, "entries", path, "loading it " + trial.failure, hint});
    } else if (trial.result.is_string()) {
        findings.push_back({Health::failure, "entries", path, trial.result.get<std::string>(), hint});
    } else if (!trial.result.empty()) {
        const auto missing = trial.result.get<std::vector<std::string>>();
        findings.push_back({Health::failure, "entries", path,
                            std::to_string(missing.size()) + " of " + all + " missing: " + joined(missing),
                            "it is of another version than libqzfi.so: install both from one build"});
    } else {
        findings.push_back({Health::ok, "entries", path, "all " + all, ""});
    }
}

void check_probe(const Settings &settings, Findings &findings) {
    const std::string path = settings.root + "/lib/qzfi/qzfi_provider_probe";
    const std::string obstacle = obstacle_to(path, X_OK);
    if (obstacle.empty())
        findings.push_back({Health::ok, "probe program", path, "there", ""});
    else
        findings.push_back({Health::warning, "probe program", path, obstacle,
                            "install it: plugins are loaded untried, and one that crashes ends the program"});
}

namespace {

std::vector<std::string> missing_messages(const std::string &folder) {
    std::vector<std::string> missing;
    for (const char *const file : {"ZELTqzfi.cat", "ja_JP.UTF-8/ZELTqzfi.cat", "zh_CN.UTF-8/ZELTqzfi.cat",
                                   "libfi/root.res", "libfi/ja.res", "libfi/zh.res"})
        if (!obstacle_to(folder + file, R_OK).empty())
            missing.emplace_back(file);
    return missing;
}

} // namespace

void check_messages(const Settings &settings, Findings &findings) {
    const std::string folder = qzfi_msgcatalogdir();
    const std::vector<std::string> missing = missing_messages(folder);
    if (missing.empty())
        findings.push_back({Health::ok, "catalogs", folder, "complete", ""});
    else
        findings.push_back({Health::warning, "catalogs", folder, "cannot read " + joined(missing),
                            "messages are in English; " +
                                // What the root has not either, as when both are the same, cannot come from there.
                                (missing_messages(settings.root + "/resources/").empty()
                                     ? "install " + settings.root + "/resources there"
                                     : "install them again")});

    const char *const locale = qzfi_getlocale();
    std::string text = "no catalog: messages are in English";
    const int32_t catalog = locale != nullptr ? qzfi_findMsgCatalog(locale, 1) : -1;
    if (catalog >= 0) {
        text = "catalog " + real_path("/proc/self/fd/" + std::to_string(catalog));
        close(catalog);
    }
    findings.push_back({Health::ok, "locale", locale != nullptr ? locale : "none", text, ""});

    const char *const icu = std::getenv("ICU_DATA");
    if (icu == nullptr)
        findings.push_back({Health::ok, "ICU_DATA", "not set", "messages do not go to a program's error handler", ""});
    else
        findings.push_back({Health::ok, "ICU_DATA", icu, "messages go to a program's error handler", ""});
}

void check_log(const Settings &settings, Findings &findings) {
    const LogFolder folder = log_folder(settings.root);
    uint64_t bytes = 0;
    for (const LogFile &file : folder.files)
        bytes += file.bytes;
    const std::string files =
        grouped(folder.files.size()) + (folder.files.size() == 1 ? " log file, " : " log files, ") + size_text(bytes);
    const std::vector<std::string> levels = trace_level_names(trace_mask(settings.root));
    const std::string obstacle = obstacle_to(folder.path, W_OK | X_OK);
    struct stat status = {};
    const bool is_own = folder.path == settings.root + "/arcvault/logs/fisagent";
    const bool is_open = is_own && stat(folder.path.c_str(), &status) == 0 && (status.st_mode & 0077u) != 0;
    if (!levels.empty() && !obstacle.empty())
        findings.push_back({Health::warning, "log", folder.path, obstacle, "make it writable, or set TMPDIR"});
    else if (!levels.empty())
        findings.push_back({Health::warning, "log", folder.path, files + "; traced: " + joined(levels),
                            "every call is traced, and nobody removes old files; `qzfi log --off` ends it"});
    else if (is_open)
        findings.push_back({Health::warning, "log", folder.path, files + "; others can look into it",
                            "chmod 700: the log shows paths"});
    else
        findings.push_back({Health::ok, "log", folder.path, files + "; the trace is off", ""});
}

} // namespace qzfi::tool
