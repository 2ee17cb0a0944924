#include "support/loop_filesystem.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <linux/loop.h>
#include <map>
#include <sched.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

void require(bool succeeded, const std::string &what) {
    if (!succeeded)
        throw std::system_error(errno, std::generic_category(), what);
}

struct Descriptor {
    explicit Descriptor(int opened) : fd(opened) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        if (fd >= 0)
            close(fd);
    }
    const int fd;
};

/// A sparse file that loses its name with the object; the loop device keeps the data.
struct BackingFile {
    explicit BackingFile(unsigned megabytes) {
        const char *directory = std::getenv("TMPDIR");
        path = std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") + "/qzfi-loop-XXXXXX";
        fd = mkostemp(path.data(), O_CLOEXEC);
        require(fd >= 0, "mkostemp of " + path);
        if (ftruncate(fd, off_t{megabytes} << 20) != 0) {
            const int error = errno;
            this->~BackingFile();
            throw std::system_error(error, std::generic_category(), "ftruncate of " + path);
        }
    }
    BackingFile(const BackingFile &) = delete;
    BackingFile &operator=(const BackingFile &) = delete;
    ~BackingFile() {
        if (fd < 0)
            return;
        close(fd);
        unlink(path.c_str());
        fd = -1;
    }
    std::string path;
    int fd = -1;
};

std::vector<std::string> mkfs_command(const std::string &type) {
    if (type == "btrfs")
        return {"mkfs.btrfs", "-q", "-f"};
    if (type == "xfs")
        return {"mkfs.xfs", "-q", "-f"};
    if (type == "ext4")
        return {"mkfs.ext4", "-q", "-F"};
    if (type == "exfat")
        return {"mkfs.exfat"};
    throw std::runtime_error("no loop file system of type " + type);
}

std::string path_of_program(const std::string &name) {
    for (const char *directory : {"/usr/sbin/", "/sbin/", "/usr/local/sbin/", "/usr/bin/", "/bin/"})
        if (access((directory + name).c_str(), X_OK) == 0)
            return directory + name;
    return {};
}

void run(std::vector<std::string> command) {
    const std::string program = path_of_program(command[0]);
    if (program.empty())
        throw std::runtime_error("no program " + command[0]);
    std::vector<char *> arguments;
    for (std::string &word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // Advice goes to the standard output, failures to the other one.
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    errno = posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    require(errno == 0, program);
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    if (status != 0)
        throw std::runtime_error(program + " ended with status " + std::to_string(status));
}

/// Attaches a file to a free loop device that detaches itself after its last use. Another process may take the free
/// one first.
int attach(int file, std::string &device) {
    const Descriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    require(control.fd >= 0, "open of /dev/loop-control");
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int number = ioctl(control.fd, LOOP_CTL_GET_FREE);
        require(number >= 0, "LOOP_CTL_GET_FREE");
        device = "/dev/loop" + std::to_string(number);
        const int loop = open(device.c_str(), O_RDWR | O_CLOEXEC);
        require(loop >= 0, "open of " + device);
        loop_config config{};
        config.fd = static_cast<uint32_t>(file);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (ioctl(loop, LOOP_CONFIGURE, &config) == 0)
            return loop;
        const int error = errno;
        close(loop);
        errno = error;
        require(error == EBUSY, "LOOP_CONFIGURE of " + device);
    }
    throw std::runtime_error("no loop device stays free");
}

void enter_or_throw() {
    require(geteuid() == 0, "not root"); // in a user namespace no block device can be mounted
    require(unshare(CLONE_NEWNS) == 0, "unshare of the mounts");
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

std::optional<std::string> try_to_enter() {
    if (geteuid() != 0)
        return "no loop file systems here: only root can mount them";
    try {
        enter_or_throw();
        return std::nullopt;
    } catch (const std::exception &failure) {
        return std::string("no loop file systems here: ") + failure.what();
    }
}

/// Whether one can be made is only known after one was made: a kernel knows types that it cannot load.
std::optional<std::string> try_to_make(const std::string &type) {
    try {
        const LoopFilesystem sample(type, 320);
        return std::nullopt;
    } catch (const std::exception &failure) {
        return "no " + type + " file systems here: " + failure.what();
    }
}

} // namespace

std::optional<std::string> LoopFilesystem::obstacle(const std::string &type) {
    static const std::optional<std::string> namespace_obstacle = try_to_enter();
    if (namespace_obstacle)
        return namespace_obstacle;
    static std::map<std::string, std::optional<std::string>> known;
    const auto found = known.find(type);
    return found != known.end() ? found->second : known[type] = try_to_make(type);
}

LoopFilesystem::LoopFilesystem(const std::string &type, unsigned megabytes, const std::string &options,
                               const std::vector<std::string> &made_with) {
    path_ = "/tmp/qzfi-mount-XXXXXX";
    require(mkdtemp(path_.data()) != nullptr, "mkdtemp of " + path_);
    try {
        make(type, megabytes, options, made_with);
    } catch (...) {
        release();
        throw;
    }
}

void LoopFilesystem::make(const std::string &type, unsigned megabytes, const std::string &options,
                          const std::vector<std::string> &made_with) {
    if (type == "tmpfs") {
        const std::string all =
            "mode=0755,size=" + std::to_string(megabytes) + "m" + (options.empty() ? "" : "," + options);
        require(mount("tmpfs", path_.c_str(), "tmpfs", 0, all.c_str()) == 0, "mount of tmpfs");
        return;
    }
    std::vector<std::string> mkfs = mkfs_command(type);
    const BackingFile file(megabytes);
    if (type == "xfs" && made_with.empty())
        mkfs.insert(mkfs.end(), {"-m", "reflink=1"});
    mkfs.insert(mkfs.end(), made_with.begin(), made_with.end());
    mkfs.push_back(file.path);
    run(mkfs);
    const Descriptor loop(attach(file.fd, device_));
    if (type == "exfat") {
        // It is mounted when the program ends; a process that it leaves behind ends with the mount.
        run({"mount.exfat-fuse", "-o", "umask=077", device_, path_});
        return;
    }
    require(mount(device_.c_str(), path_.c_str(), type.c_str(), 0, options.c_str()) == 0,
            "mount of " + device_ + " as " + type);
    require(chmod(path_.c_str(), 0755) == 0, "chmod of " + path_);
}

void LoopFilesystem::remount(bool read_only) {
    const unsigned long flags = read_only ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT;
    require(mount(nullptr, path_.c_str(), nullptr, flags, nullptr) == 0, "remount of " + path_);
}

LoopFilesystem::~LoopFilesystem() {
    release();
}

/// What is still open below keeps the file system, not its place.
void LoopFilesystem::release() noexcept {
    if (umount2(path_.c_str(), 0) != 0)
        umount2(path_.c_str(), MNT_DETACH);
    rmdir(path_.c_str());
}
