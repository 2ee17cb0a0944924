#include "paths/device_support.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "util/qzfiutilmachdep_path.h"

namespace device {
namespace {

StatRecord *recording = nullptr;

Name taken(char *result) {
    if (result == nullptr)
        return std::nullopt;
    std::string name = result;
    std::memset(result, 'x', qzfi::device_name_size);
    std::free(result);
    return name;
}

void must(bool done, const char *what) {
    if (!done)
        FAIL() << what << ": " << std::strerror(errno);
}

} // namespace

StatRecord::StatRecord() {
    recording = this;
}

StatRecord::~StatRecord() {
    recording = nullptr;
}

std::vector<std::string> StatRecord::candidates(const std::string &given) const {
    std::vector<std::string> others;
    std::copy_if(names_.begin(), names_.end(), std::back_inserter(others),
                 [&given](const std::string &name) { return name != given; });
    return others;
}

void record_stat(const char *path) {
    if (recording != nullptr)
        recording->names_.emplace_back(path);
}

Inside::Inside(const std::string &root)
    : root_(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), directory_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    must(root_ >= 0 && directory_ >= 0 && chroot(root.c_str()) == 0 && chdir("/") == 0, "enter");
}

Inside::~Inside() {
    must(fchdir(root_) == 0 && chroot(".") == 0 && fchdir(directory_) == 0, "leave");
    close(root_);
    close(directory_);
}

void Devices::SetUp() {
    std::string name = testing::TempDir() + "/devicesXXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    root = name;
    const std::string probe = root + "/probe";
    if (geteuid() != 0 || mknod(probe.c_str(), S_IFBLK | 0600, makedev(7, 200)) != 0 || chroot("/") != 0)
        GTEST_SKIP() << "this process may not make device nodes or change the root directory";
    ASSERT_EQ(unlink(probe.c_str()), 0);
}

void Devices::TearDown() {
    if (!root.empty())
        std::filesystem::remove_all(root);
}

std::string Devices::made(const std::string &path) const {
    const std::string whole = root + path;
    std::filesystem::create_directories(std::filesystem::path(whole).parent_path());
    return whole;
}

void Devices::node(const std::string &path, unsigned type, unsigned major, unsigned minor) {
    must(mknod(made(path).c_str(), type | 0600, makedev(major, minor)) == 0, path.c_str());
}

void Devices::block(const std::string &path, unsigned major, unsigned minor) {
    node(path, S_IFBLK, major, minor);
}

void Devices::character(const std::string &path, unsigned major, unsigned minor) {
    node(path, S_IFCHR, major, minor);
}

void Devices::file(const std::string &path) {
    std::ofstream(made(path)) << "text";
}

void Devices::directory(const std::string &path) {
    std::filesystem::create_directories(root + path);
}

void Devices::link(const std::string &path, const std::string &target) {
    must(symlink(target.c_str(), made(path).c_str()) == 0, path.c_str());
}

Name raw_of(const std::string &block) {
    return taken(qzfi_block_to_char(block.c_str()));
}

Name block_of(const std::string &raw) {
    return taken(qzfi_char_to_block(raw.c_str()));
}

} // namespace device

/// Takes the place of the system's call for the whole program: the same, and recorded.
extern "C" int stat(const char *path, struct stat *out) noexcept {
    device::record_stat(path);
    return fstatat(AT_FDCWD, path, out, 0);
}
