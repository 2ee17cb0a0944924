// A copy has everything that its source has.
#include "engine_support.h"

#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qzfi_fi.h>

#include "support/loop_filesystem.h"

using namespace qzfi::engine;

namespace {

class Zoo : public EngineTest {};

TEST_F(Zoo, is_copied_with_every_attribute) {
    make_zoo("zoo");
    const auto before = described("zoo");
    EXPECT_EQ(copy("zoo", "copy").status, 0);
    EXPECT_TRUE(host.remarks.empty()) << host.remarks[0].path << " " << host.remarks[0].detail;
    expect_equal("zoo", "copy");
    EXPECT_EQ(described("zoo"), before);
}

TEST_F(Zoo, is_copied_alike_by_one_worker_and_by_many_and_under_any_umask) {
    make_zoo("zoo");
    const mode_t old = umask(0177);
    for (const uint32_t workers : {1u, 64u}) {
        options.workers = workers;
        const std::string name = "copy" + std::to_string(workers);
        EXPECT_EQ(copy("zoo", name).status, 0);
        umask(0);
    }
    umask(old);
    expect_equal("zoo", "copy1");
    expect_equal("zoo", "copy64");
}

TEST_F(Zoo, leaves_the_access_times_of_files_and_folders) {
    make_zoo("zoo");
    sh("find zoo -not -type l -print0 > list; xargs -0 touch -a -d '2001-01-01' < list");
    const auto atimes = output("xargs -0 stat -c '%n %x' < list");
    EXPECT_EQ(copy("zoo", "copy").status, 0);
    EXPECT_EQ(output("xargs -0 stat -c '%n %x' < list"), atimes);
}

TEST_F(Zoo, keeps_holes) {
    make_zoo("zoo");
    EXPECT_EQ(copy("zoo", "copy").status, 0);
    EXPECT_EQ(output("stat -c %b copy/all_hole"), "0\n");
    EXPECT_LT(std::stol(output("stat -c %b copy/holes")), 200);
    EXPECT_EQ(output("stat -c %s copy/holes"), "2000000\n");
}

TEST_F(Zoo, of_read_only_entries_is_whole_without_root) {
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    sh("mkdir -p s/d t; printf x > s/f; printf y > s/d/acl; printf z > s/set; setfattr -n user.a -v b s s/d s/f "
       "s/d/acl "
       "s/set; chown -R 65534:65534 s t; setfacl -m u:77:r s/d/acl; chmod 444 s/f s/d/acl; chmod 6555 s/set; "
       "chmod 555 s/d s; chmod 755 .");
    const pid_t child = fork(); // the rights of a thread alone would not be those of the engine's other threads
    if (child == 0) {
        const bool is_dropped = setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
        const Folder source(at + "/s"), target(at + "/t");
        bool is_right = is_dropped;
        for (int times = 0; times < 2; ++times) { // the second time it is there
            const Result result = times == 0 ? copy_tree(source.fd, target.fd, "c", options, host.record)
                                             : bring_up_to_date(source.fd, target.fd, "c", options, host.record);
            is_right = is_right && result.status == 0 && host.remarks.empty();
            sh("cd t/c && chmod u+w f && setfattr -n user.a -v changed f && setfattr -n user.extra -v e f && "
               "chmod 400 f && touch -r ../../s/f f");
        }
        const Result last = bring_up_to_date(source.fd, target.fd, "c", options, host.record);
        _exit(is_right && last.status == 0 && host.remarks.empty() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(described("t/c"), described("s"));
}

TEST_F(Zoo, has_sockets_remarked_and_not_copied) {
    sh("mkdir zoo; python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"zoo/s\")'");
    EXPECT_EQ(copy("zoo", "copy").status, 0);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, "s"));
    EXPECT_EQ(output("ls copy"), "");
}

TEST_F(Zoo, is_told_entry_by_entry_with_digests) {
    make_zoo("zoo");
    options.entries = options.digest = true;
    const Result result = copy("zoo", "copy");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(host.entries.size(), described("zoo").size());
    EXPECT_EQ(result.entries, host.entries.size());
    EXPECT_EQ(host.entries.at("plain").digest, digest_of("abc"));
    EXPECT_EQ(host.entries.at("deep/hard1").digest, digest_of("abc"));
    EXPECT_EQ(host.entries.at("all_hole").digest, digest_of(std::string(3000000, '\0')));
    EXPECT_EQ(host.entries.at("holes").digest,
              digest_of(std::string(500000, '\0') + "middle" + std::string(2000000 - 500006, '\0')));
    EXPECT_EQ(host.entries.at("deep/link").target, "../plain");
    EXPECT_EQ(host.entries.at("deep/hard1").entry.inode, host.entries.at("plain").entry.inode);
    EXPECT_NE(host.entries.at("plain").entry.inode, 0u);
    EXPECT_EQ(host.entries.at("medium").entry.inode, 0u);
    EXPECT_EQ(host.entries.at("medium").entry.mtime_ns, -1500000000);
    EXPECT_EQ(host.entries.at("").entry.type, static_cast<uint32_t>(QFI_ENTRY_DIRECTORY));
    EXPECT_EQ(host.entries.at("setuid").entry.mode, 06755u);

    auto told = std::move(host.entries);
    host.entries.clear();
    EXPECT_EQ(walk("copy").status, 0);
    ASSERT_EQ(host.entries.size(), told.size());
    for (const auto &[path, entry] : told) {
        EXPECT_EQ(host.entries.at(path).digest, entry.digest) << path;
        EXPECT_EQ(host.entries.at(path).entry.size, entry.entry.size) << path;
        EXPECT_EQ(host.entries.at(path).entry.mtime_ns, entry.entry.mtime_ns) << path;
    }
}

TEST_F(Zoo, is_removed_also_when_nothing_may_be_changed) {
    make_zoo("zoo");
    sh("chattr +i zoo/plain zoo/wide zoo/wide/f7; chattr +a zoo/medium zoo/deep; chmod 0 zoo/acl");
    EXPECT_EQ(remove("zoo").status, 0) << host.failed_operation << host.failed_object << host.failed_error;
    EXPECT_EQ(output("ls -A"), "");
    EXPECT_EQ(remove("zoo").status, 0);
}

class LoopZoo : public EngineTest, public testing::WithParamInterface<const char *> {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle(GetParam()))
            GTEST_SKIP() << *obstacle;
        disk_.emplace(GetParam(), 512);
        use(disk_->path());
    }
    std::optional<LoopFilesystem> disk_;
};

TEST_P(LoopZoo, is_cloned_and_copied_with_its_inode_flags) {
    make_zoo("zoo");
    const bool is_btrfs = std::string(GetParam()) == "btrfs";
    sh("printf a > zoo/append; printf i > zoo/immutable; ln zoo/immutable zoo/deep/immutable2; mkdir zoo/frozen; "
       "printf f > zoo/frozen/f; printf n > zoo/nodump; chattr +a zoo/append; chattr +i zoo/immutable zoo/frozen; "
       "chattr +d zoo/nodump");
    if (is_btrfs)
        sh("mkdir zoo/nocow; : > zoo/nocow/before; chattr -f +C zoo/nocow; head -c 9000 /dev/urandom > zoo/nocow/in; "
           "mkdir zoo/compressed; chattr +c zoo/compressed; head -c 99000 /dev/zero > zoo/compressed/z; "
           "printf z > zoo/zstd; btrfs property set zoo/zstd compression zstd");
    for (const Data data : {Data::clone, Data::clone_or_copy, Data::copy}) {
        if (data == Data::clone && std::string(GetParam()) == "ext4")
            continue;
        options.data = data;
        options.sync = true;
        host.remarks.clear();
        EXPECT_EQ(copy("zoo", "copy").status, 0) << host.failed_operation << host.failed_object;
        EXPECT_TRUE(host.remarks.empty()) << host.remarks[0].path << " " << host.remarks[0].detail;
        expect_equal("zoo", "copy");
        const Result again = update("zoo", "copy");
        EXPECT_EQ(again.status, 0) << host.failed_operation << host.failed_object;
        EXPECT_EQ(again.changed, 0u);
        EXPECT_EQ(remove("copy").status, 0) << host.failed_operation << host.failed_object;
    }
    EXPECT_EQ(remove("zoo").status, 0);
}
TEST_P(LoopZoo, inherits_no_flags_from_the_folder_that_the_copy_is_made_in) {
    make_zoo("zoo");
    const bool is_btrfs = std::string(GetParam()) == "btrfs";
    sh(is_btrfs ? "mkdir store; chattr +C store; mkdir compressed; chattr +c compressed"
                : "mkdir store; chattr +d +A +S store");
    for (const char *const store : {"store", "compressed"}) {
        if (!is_btrfs && std::string(store) == "compressed")
            continue;
        for (const Data data : {Data::clone, Data::copy}) {
            if (data == Data::clone && std::string(GetParam()) == "ext4")
                continue;
            options.data = data;
            const Result result =
                copy_tree(Folder(at + "/zoo").fd, Folder(at + "/" + store).fd, "copy", options, host.record);
            EXPECT_EQ(result.status, 0) << host.failed_operation << host.failed_object << host.failed_error;
            EXPECT_TRUE(host.remarks.empty()) << host.remarks[0].path << " " << host.remarks[0].detail;
            EXPECT_EQ(described(std::string(store) + "/copy"), described("zoo"));
            sh("chattr -R -f -i -a " + std::string(store) + "; rm -rf " + store + "/copy");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, LoopZoo, testing::Values("btrfs", "xfs", "ext4"), [](const auto &row) { return row.param; });

/// What was remarked of attributes, each "path: detail".
std::set<std::string> attributes_of(const TestHost &host) {
    std::set<std::string> all;
    for (const TestHost::Remark &remark : host.remarks)
        if (remark.kind == QFI_REMARK_ATTRIBUTE)
            all.insert(remark.path + ": " + remark.detail);
    return all;
}

TEST_F(Zoo, on_a_file_system_without_nanoseconds_is_remarked_where_it_loses_them) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("ext4", 32, "", {"-I", "128"});
    sh("mkdir -p s/d/e; printf x > s/f; printf y > s/d/g; ln -s f s/d/l; mkfifo s/p; chmod 4751 s/f; chown 3:4 s/p;"
       "touch -h -d '2020-01-02 03:04:05.5' s/d/l s/d/g s/p; touch -d '2020-01-02 03:04:05' s/f s/d/e s/d s");
    const std::set<std::string> expected{"d/g: times", "d/l: times", "p: times"};
    const Folder source(at + "/s"), target(disk.path());
    EXPECT_EQ(copy_tree(source.fd, target.fd, "c", options, host.record).status, 0);
    EXPECT_EQ(attributes_of(host), expected);
    EXPECT_EQ(output("find " + disk.path() + "/c -printf '%P %m %U:%G %Ts\\n' | sort"),
              output("find s -printf '%P %m %U:%G %Ts\\n' | sort"));
    host.remarks.clear();
    EXPECT_EQ(bring_up_to_date(source.fd, target.fd, "c", options, host.record).status, 0);
    EXPECT_EQ(attributes_of(host), expected) << "as in a copy";
}

TEST_F(Zoo, on_a_file_system_that_keeps_no_modes_is_remarked_entry_by_entry) {
    if (const auto obstacle = LoopFilesystem::obstacle("exfat"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("exfat", 64);
    sh("mkdir -p s/d; printf x > s/f; printf y > s/d/g; printf z > s/d/G; printf z > s/mine; ln s/f s/d/hard; ln -s f "
       "s/l;"
       "chmod 700 s s/d s/d/g s/d/G s/mine; chmod 640 s/f; chown 3:4 s/d/g; chown 3:4 s/d/G;"
       "find s -exec touch -h -d '2020-01-02 03:04:06' {} +; touch -d '2020-01-02 03:04:06.5' s/mine");
    options.workers = 1;
    EXPECT_EQ(copy_tree(Folder(at + "/s").fd, Folder(disk.path()).fd, "c", options, host.record).status, 0);
    std::set<std::string> told = attributes_of(host);
    const std::string kept = output("ls " + disk.path() + "/c/d"), other = kept[0] == 'g' ? "d/G" : "d/g";
    const std::string first = kept[0] == 'g' ? "d/g" : "d/G";
    EXPECT_TRUE(host.has_remark(QFI_REMARK_WARNING, other));
    EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, "l"));
    EXPECT_EQ(told.erase("f: hard link") + told.erase("d/hard: hard link"), 1u);
    EXPECT_EQ(told, (std::set<std::string>{first + ": owner", "f: mode", "d/hard: mode", "mine: times"}));
}

class Mounted : public EngineTest {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
            GTEST_SKIP() << *obstacle;
    }
};

TEST_F(Mounted, other_file_systems_and_subvolumes_are_remarked_and_left_out) {
    const LoopFilesystem disk("btrfs", 256);
    use(disk.path());
    sh("mkdir -p s/mounted s/plain; : > s/bound; printf x > s/f; mount -t tmpfs none s/mounted; : > s/mounted/in; "
       "mount --bind s/f s/bound; btrfs -q subvolume create s/sub; printf y > s/sub/f");
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, "mounted"));
    EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, "bound"));
    EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, "sub"));
    EXPECT_EQ(output("ls c"), "f\nplain\n");
    options.nested_volumes = true;
    EXPECT_EQ(copy("s", "n").status, 0);
    EXPECT_EQ(output("ls n n/sub"), "n:\nf\nplain\nsub\n\nn/sub:\nf\n");
    EXPECT_EQ(remove("s").status, static_cast<int32_t>(QFI_FI_UNSAFE));
    EXPECT_TRUE(host.failed_error == EXDEV || host.failed_error == EBUSY);
    sh("test -f s/sub/f; test -f s/mounted/in; umount s/bound s/mounted");
}

TEST_F(Mounted, an_excluded_directory_is_left_out_and_left_alone) {
    sh("mkdir -p s/store/x s/a t/gone/store; printf x > s/a/f; printf k > t/gone/store/keep");
    struct stat stat {};
    ASSERT_EQ(::stat((at + "/s/store").c_str(), &stat), 0);
    qfi_excluded excluded[] = {{1, stat.st_ino, -1}, {stat.st_dev, 1, -1}, {stat.st_dev, stat.st_ino, -1}};
    options.excluded = excluded;
    options.excluded_count = 2;
    EXPECT_EQ(copy("s", "all").status, 0);
    EXPECT_EQ(output("ls all"), "a\nstore\n") << "half of the numbers is no match";
    options.excluded_count = 3;
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_EQ(output("ls c"), "a\n");
    ASSERT_EQ(::stat((at + "/t/gone/store").c_str(), &stat), 0);
    excluded[2].inode = stat.st_ino;
    EXPECT_EQ(update("c", "t").status, 0);
    EXPECT_EQ(output("cat t/gone/store/keep t/a/f"), "kx");
    EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, "gone"));
}

} // namespace
