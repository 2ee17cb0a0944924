#include "support/private_root.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace private_root {
namespace {

namespace fs = std::filesystem;

const fs::path root = "/usr/lumen";

void require(bool succeeded, const std::string &what) {
    if (!succeeded)
        throw std::system_error(errno, std::generic_category(), what);
}

void write(const fs::path &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

void mount_or_throw(const char *source, const fs::path &target, const char *type, unsigned long flags) {
    require(mount(source, target.c_str(), type, flags, nullptr) == 0, "mount on " + target.string());
}

/// A user who is not root becomes root of a user namespace, which a process with threads cannot enter.
void own_the_namespace() {
    if (geteuid() == 0) {
        require(unshare(CLONE_NEWNS) == 0, "unshare of the mounts");
        return;
    }
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    require(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare of user and mounts");
    write("/proc/self/setgroups", "deny");
    write("/proc/self/uid_map", "0 " + user + " 1");
    write("/proc/self/gid_map", "0 " + group + " 1");
}

/// Shows one entry of a directory in another.
void show(const fs::directory_entry &entry, const fs::path &directory) {
    const fs::path target = directory / entry.path().filename();
    if (entry.is_symlink()) {
        fs::copy_symlink(entry.path(), target);
        return;
    }
    if (entry.is_directory())
        fs::create_directory(target);
    else
        write(target, "");
    mount_or_throw(entry.path().c_str(), target, nullptr, MS_BIND | MS_REC);
}

/// Adds the mount point without a change to the real /usr: a directory in memory with all of its entries takes its
/// place.
void add_mount_point() {
    std::string scratch = "/tmp/qzfi-root-XXXXXX";
    require(mkdtemp(scratch.data()) != nullptr, "mkdtemp");
    mount_or_throw("tmpfs", scratch, "tmpfs", 0);
    for (const fs::directory_entry &entry : fs::directory_iterator(root.parent_path()))
        show(entry, scratch);
    fs::create_directory(scratch + "/lumen");
    fs::permissions(scratch, fs::perms(0755));
    mount_or_throw(scratch.c_str(), root.parent_path(), nullptr, MS_MOVE);
    fs::remove(scratch);
}

void enter_or_throw() {
    own_the_namespace();
    mount_or_throw(nullptr, "/", nullptr, MS_REC | MS_PRIVATE);
    if (!fs::exists(root))
        add_mount_point();
    mount_or_throw("tmpfs", root, "tmpfs", 0);
}

std::optional<std::string> try_to_enter() {
    try {
        enter_or_throw();
        return std::nullopt;
    } catch (const std::exception &failure) {
        return std::string("no private /usr/lumen here: ") + failure.what();
    }
}

void run(std::vector<std::string> command) {
    std::vector<char *> arguments;
    for (std::string &word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t child = 0;
    errno = posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ);
    require(errno == 0, command[0]);
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    if (status != 0)
        throw std::runtime_error(command[0] + " ended with status " + std::to_string(status));
}

} // namespace

std::optional<std::string> enter() {
    static const std::optional<std::string> obstacle = try_to_enter();
    if (!obstacle)
        for (const fs::directory_entry &entry : fs::directory_iterator(root))
            fs::remove_all(entry);
    return obstacle;
}

std::string make_directories(const std::string &below) {
    const fs::path path = root / below;
    fs::create_directories(path);
    return path;
}

std::string write_file(const std::string &below, const std::string &content) {
    const fs::path path = root / below;
    fs::create_directories(path.parent_path());
    write(path, content);
    return path;
}

std::string make_bundles(const std::string &below, const std::map<std::string, std::string> &sources) {
    const std::string directory = make_directories(below);
    std::vector<std::string> command = {"genrb",       "--quiet", "--encoding", "UTF-8",
                                        "--sourcedir", directory, "--destdir",  directory};
    for (const auto &[name, text] : sources) {
        write(directory + "/" + name + ".txt", text);
        command.push_back(name + ".txt");
    }
    run(command);
    return directory;
}

} // namespace private_root
