#include "fi/fi_temporary.h"

#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace qzfi::fi {

std::string temporary_base() {
    const char *const wanted = secure_getenv("TMPDIR");
    return wanted != nullptr && wanted[0] == '/' ? wanted : "/tmp";
}

TemporaryFolder::TemporaryFolder(const char *prefix, const char *operation)
    : path_(temporary_base() + "/" + prefix + "XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr)
        fail_call(operation, "mkdtemp", path_, errno, false);
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    directory_.reset(open(path_.c_str(), flags));
    to_list_.reset(directory_ ? openat(directory_.get(), ".", flags) : -1);
    if (to_list_)
        return;
    const int error = errno;
    rmdir(path_.c_str());
    fail_call(operation, "open", path_, error, true);
}

// Without memory it stays.
TemporaryFolder::~TemporaryFolder() {
    DIR *const stream = fdopendir(to_list_.get());
    if (stream == nullptr)
        return;
    to_list_.release();
    while (const dirent *const entry = readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            unlinkat(directory_.get(), entry->d_name, 0);
    }
    closedir(stream);
    rmdir(path_.c_str());
}

} // namespace qzfi::fi
