// Stores within what is frozen, restored or compared.
#include "fi/fi_left_out.h"

#include <fcntl.h>
#include <set>
#include <sys/stat.h>

namespace qzfi::fi {

LeftOut::LeftOut(const TreeFilesystem &filesystem, const std::string &object) {
    const std::string &mount_point = filesystem.mount.mount_point;
    std::set<std::string> paths;
    for (const std::string &path : known_stores())
        paths.insert(path);
    paths.insert((mount_point == "/" ? "" : mount_point) + "/" + store_folder_name);
    std::erase_if(paths, [&](const std::string &path) { return !lies_at_or_below(path, object); });
    if (filesystem.store) // none before a tree is prepared
        paths.insert(filesystem.store->path());
    for (const std::string &path : paths)
        add(path);
}

// One that is gone has nothing to be left out.
void LeftOut::add(const std::string &path) {
    Descriptor directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0)
        return;
    excluded_.push_back({status.st_dev, status.st_ino, directory.get()});
    open_.push_back(std::move(directory));
}

} // namespace qzfi::fi
