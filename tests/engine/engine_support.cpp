#include "engine_support.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <xxhash.h>

#include <filesystem>

namespace fs = std::filesystem;
using namespace qzfi::engine;

TestHost::TestHost() {
    record.size = sizeof record;
    record.context = this;
    record.entry = [](void *self, const qfi_entry *entry) -> int32_t {
        auto &host = *static_cast<TestHost *>(self);
        const std::lock_guard lock(host.mutex);
        Entry noted{*entry, entry->target != nullptr ? entry->target : "", {}};
        if (entry->digest != nullptr)
            noted.digest.assign(reinterpret_cast<const char *>(entry->digest), 16);
        EXPECT_TRUE(host.entries.emplace(entry->path, noted).second) << entry->path;
        return static_cast<int>(host.entries.size()) == host.refuse_entry_at ? 1037 : 0;
    };
    record.remark = [](void *self, const qfi_remark *remark) {
        auto &host = *static_cast<TestHost *>(self);
        const std::lock_guard lock(host.mutex);
        host.remarks.push_back({remark->kind, remark->path, remark->detail, remark->error});
    };
    record.progress = [](void *self, uint64_t, uint64_t) -> int32_t {
        auto &host = *static_cast<TestHost *>(self);
        const std::lock_guard lock(host.mutex);
        return ++host.progress_calls == host.cancel_at;
    };
    record.fail = [](void *self, const char *operation, const char *object, int32_t error) {
        auto &host = *static_cast<TestHost *>(self);
        const std::lock_guard lock(host.mutex);
        host.failed_operation = operation;
        host.failed_object = object;
        host.failed_error = error;
    };
}

bool TestHost::has_remark(uint32_t kind, const std::string &path) const {
    return std::any_of(remarks.begin(), remarks.end(),
                       [&](const Remark &remark) { return remark.kind == kind && remark.path == path; });
}

std::string digest_of(const std::string &data) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(data.data(), data.size()));
    return {reinterpret_cast<const char *>(canonical.digest), sizeof canonical.digest};
}

Folder::Folder(const std::string &path) : fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    EXPECT_GE(fd, 0) << path;
}
Folder::~Folder() {
    close(fd);
}

EngineTest::EngineTest() {
    char name[] = "/tmp/qzfi_engine_XXXXXX";
    at = mkdtemp(name);
}

EngineTest::~EngineTest() {
    if (at.find("/qzfi_engine_") != std::string::npos)
        sh("chattr -R -f -i -a . ; chmod -R u+rwx . 2>/dev/null; rm -rf " + at);
}

void EngineTest::use(const std::string &directory) {
    rmdir(at.c_str());
    at = directory;
}

void EngineTest::sh(const std::string &command) {
    EXPECT_EQ(std::system(("cd '" + at + "' && { " + command + "\n}").c_str()), 0) << command;
}

std::string EngineTest::output(const std::string &command) {
    std::string all;
    FILE *const stream = popen(("cd '" + at + "' && { " + command + "\n} 2>&1").c_str(), "r");
    char buffer[4096];
    for (std::size_t size; (size = fread(buffer, 1, sizeof buffer, stream)) > 0;)
        all.append(buffer, size);
    EXPECT_EQ(pclose(stream), 0) << command << "\n" << all;
    return all;
}

void EngineTest::write(const std::string &path, const std::string &data) {
    std::ofstream(at + "/" + path, std::ios::binary) << data;
}

Result EngineTest::copy(const std::string &from, const std::string &name) {
    return copy_tree(Folder(at + "/" + from).fd, Folder(at).fd, name.c_str(), options, host.record);
}
Result EngineTest::update(const std::string &from, const std::string &name) {
    return bring_up_to_date(Folder(at + "/" + from).fd, Folder(at).fd, name.c_str(), options, host.record);
}
Result EngineTest::remove(const std::string &name) {
    return remove_tree(Folder(at).fd, name.c_str(), options, host.record);
}
Result EngineTest::walk(const std::string &from) {
    return walk_tree(Folder(at + "/" + from).fd, options, host.record);
}

// One of everything. Names of odd bytes, every attribute, every type, holes in the middle and at the end.
void EngineTest::make_zoo(const std::string &path) {
    const std::string root = at + "/" + path;
    fs::create_directory(root);
    sh("cd " + path + R"(
mkdir -p deep/er/est wide empty acl setgid .hidden
printf abc > plain; : > nothing; printf x > .dot
truncate -s 3000000 all_hole
printf middle | dd of=holes bs=1 seek=500000 status=none; truncate -s 2000000 holes
head -c 700000 /dev/urandom > large; head -c 70000 /dev/urandom > medium
for i in $(seq 300); do printf $i > wide/f$i; done
ln -s nowhere dangling; ln -s ../plain deep/link; ln -s / deep/root; chown -h 12:34 dangling
touch -h -d '2001-02-03 04:05:06.123456789' dangling
mkfifo pipe; chmod 602 pipe; mknod null c 1 3; mknod block b 7 250; chown 5:6 null
ln plain deep/hard1; ln plain deep/er/hard2; ln pipe deep/pipe2; ln dangling deep/dangling2
printf s > setuid; chown 7:8 setuid; chmod 6755 setuid; chmod 2775 setgid; chmod 1777 empty; chmod 0 nothing
chown 1000:1001 deep/er; chmod 700 deep/er
setfattr -n user.text -v value plain; setfattr -n user.empty deep; setfattr -n trusted.t -v 0x00ff00 medium
setfattr -h -n trusted.l -v link dangling; setfattr -h -n trusted.p -v pipe pipe
setcap cap_net_raw+ep setuid 2>/dev/null || setfattr -n security.capability -v 0x0100000200200000000000000000000000000000 setuid
setfacl -m u:77:rw,g:88:r medium; setfacl -m u:77:rwx,d:u:78:r-x,d:m::rwx acl
printf inherited > acl/file; mkdir acl/sub
touch -d '1969-12-31 23:59:58.5' medium; touch -d '2031-01-01 00:00:00.000000001' plain
touch -d '2010-01-01 01:02:03.987654321' deep/er wide .
)");
    for (const char *name : {"\xff\xfe", "new\nline", " space ", "-rf", "*", "\\", "\x01"})
        std::ofstream(root + "/" + name) << name;
    std::ofstream(root + "/" + std::string(255, 'n')) << "long";
}

namespace {

std::string xattrs_of(const std::string &path) {
    std::vector<char> names(65536), value(65536);
    const ssize_t size = llistxattr(path.c_str(), names.data(), names.size());
    std::vector<std::string> all;
    for (const char *at = names.data(); at < names.data() + size; at += strlen(at) + 1) {
        const ssize_t length = lgetxattr(path.c_str(), at, value.data(), value.size());
        all.push_back(std::string(at) + "=" +
                      std::string(value.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))));
    }
    std::sort(all.begin(), all.end());
    std::string text;
    for (const std::string &one : all)
        text += " " + one;
    return text;
}

long flags_of_file(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    long flags = 0;
    if (fd < 0 || ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0)
        flags = 0;
    if (fd >= 0)
        close(fd);
    return flags & (FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL | FS_NOCOW_FL | FS_COMPR_FL);
}

} // namespace

std::vector<std::string> EngineTest::described(const std::string &path) {
    std::vector<std::string> all;
    std::map<std::pair<dev_t, ino_t>, std::string> first; // of the names of one file
    std::vector<std::string> names{""};
    const std::string root = at + "/" + path;
    for (const auto &entry : fs::recursive_directory_iterator(root))
        names.push_back(entry.path().string().substr(root.size()));
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        const std::string full = root + name;
        struct stat stat {};
        EXPECT_EQ(lstat(full.c_str(), &stat), 0) << full;
        char numbers[256];
        const bool has_size = S_ISREG(stat.st_mode) || S_ISLNK(stat.st_mode);
        snprintf(numbers, sizeof numbers, " %o %u:%u size %lld device %x mtime %lld.%09ld flags %lx", stat.st_mode,
                 stat.st_uid, stat.st_gid, has_size ? static_cast<long long>(stat.st_size) : 0LL,
                 static_cast<unsigned>(stat.st_rdev), static_cast<long long>(stat.st_mtim.tv_sec), stat.st_mtim.tv_nsec,
                 S_ISREG(stat.st_mode) || S_ISDIR(stat.st_mode) ? flags_of_file(full) : 0);
        std::string line = name + numbers + xattrs_of(full);
        if (S_ISREG(stat.st_mode)) {
            std::ifstream in(full, std::ios::binary);
            const std::string data{std::istreambuf_iterator<char>(in), {}};
            line += " data " + std::to_string(std::hash<std::string>()(data));
        }
        if (S_ISLNK(stat.st_mode))
            line += " -> " + fs::read_symlink(full).string();
        if (!S_ISDIR(stat.st_mode) && stat.st_nlink > 1)
            line += " is " + first.try_emplace({stat.st_dev, stat.st_ino}, name).first->second;
        all.push_back(line);
    }
    return all;
}

void EngineTest::expect_equal(const std::string &a, const std::string &b) {
    EXPECT_EQ(described(a), described(b));
    EXPECT_EQ(output("rsync -aHAXn --checksum --delete --itemize-changes " + a + "/ " + b + "/"), "");
}
