#include "fi/fi_temporary.h"

#include <fcntl.h>
#include <unistd.h>

#include "fi/fi_store_folders.h"

namespace qzfi::fi {

std::string temporary_base() {
    const char *const wanted = secure_getenv("TMPDIR");
    return wanted != nullptr && wanted[0] == '/' ? wanted : "/tmp";
}

TemporaryFolder::TemporaryFolder(const char *prefix, const char *operation)
    : path_(temporary_base() + "/" + prefix + "XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr)
        fail_call(operation, "mkdtemp", path_, errno, false);
    directory_.reset(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory_)
        return;
    const int error = errno;
    rmdir(path_.c_str());
    fail_call(operation, "open", path_, error, true);
}

TemporaryFolder::~TemporaryFolder() {
    try {
        const Hush hush;
        for (const std::string &name : names_in(directory_.get(), path_, ""))
            unlinkat(directory_.get(), name.c_str(), 0);
    } catch (...) {
        return; // without memory it stays
    }
    rmdir(path_.c_str());
}

} // namespace qzfi::fi
