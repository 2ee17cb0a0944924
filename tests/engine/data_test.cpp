// How file data reaches a copy: shared, copied by the kernel, or read and written.
#include "engine_support.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi_fi.h>

#include "providers/engine/engine_work.h"
#include "support/extents.h"
#include "support/loop_filesystem.h"
#include "support/sanitized.h"

using namespace qzfi::engine;

namespace {

struct Case {
    const char *from, *to; // file system types; the same one when equal
    uint32_t workers;
};

void PrintTo(const Case &one, std::ostream *out) {
    *out << one.from << " to " << one.to << " by " << one.workers;
}

/// A source and a target that may be two file systems.
class Between : public EngineTest, public testing::WithParamInterface<Case> {
protected:
    void SetUp() override {
        for (const char *const type : {GetParam().from, GetParam().to})
            if (const auto obstacle = LoopFilesystem::obstacle(type))
                GTEST_SKIP() << *obstacle;
        EngineTest::SetUp();
        disk = std::make_unique<LoopFilesystem>(GetParam().from, 900);
        if (!is_one())
            other = std::make_unique<LoopFilesystem>(GetParam().to, 600);
        source = disk->path() + "/s";
        target = (is_one() ? disk : other)->path() + "/c";
        sh("mkdir " + source);
        options.workers = GetParam().workers;
    }
    bool is_one() const { return std::string(GetParam().from) == GetParam().to; }
    bool shares_blocks() const { return is_one() && std::string(GetParam().from) != "ext4"; }
    int32_t copied() {
        const std::string parent = target.substr(0, target.rfind('/'));
        return copy_tree(Folder(source).fd, Folder(parent).fd, "c", options, host.record).status;
    }
    void expect_same() { EXPECT_EQ(output("rsync -aHAXn --checksum -i " + source + "/ " + target + "/"), ""); }

    std::unique_ptr<LoopFilesystem> disk, other;
    std::string source, target;
};

/// Whether another file has the blocks of a file's beginning too.
bool is_shared(const std::string &path) {
    return (first_extent(path).fe_flags & FIEMAP_EXTENT_SHARED) != 0;
}

TEST_P(Between, files_of_all_sizes_arrive_with_their_holes) {
    const long large = is_sanitized ? 70'000'000 : 150'000'000;
    sh("cd " + source + R"(
: > empty; printf a > one; head -c 2048 /dev/urandom > inline; head -c 4096 /dev/urandom > block
head -c 262143 /dev/urandom > buffer; head -c 262145 /dev/urandom > over; head -c 1000001 /dev/urandom > odd
truncate -s 3000000 hole; cp odd end; truncate -s 20000000 end; printf x | dd of=start bs=1 seek=9000000 status=none
head -c )" +
       std::to_string(large) + " /dev/urandom > large; truncate -s 200000000 large");
    EXPECT_EQ(copied(), 0);
    expect_same();
    EXPECT_TRUE(host.remarks.empty());
    EXPECT_LT(std::stol(output("stat -c %b " + target + "/large")), (large + 1'000'000) / 512);
    EXPECT_EQ(output("stat -c %b " + target + "/hole"), "0\n");
    EXPECT_LT(std::stol(output("stat -c %b " + target + "/start")), 100'000 / 512);
    EXPECT_EQ(is_shared(target + "/large"), shares_blocks());
    EXPECT_EQ(is_shared(target + "/buffer"), shares_blocks());
    EXPECT_EQ(is_shared(target + "/block"), shares_blocks() && std::string(GetParam().from) == "btrfs");
}

TEST_P(Between, a_copy_with_digests_has_blocks_of_its_own) {
    sh("cd " + source + "; head -c 4096 /dev/urandom > block; head -c 1000001 /dev/urandom > odd");
    options.digest = options.entries = true;
    EXPECT_EQ(copied(), 0);
    expect_same();
    EXPECT_FALSE(is_shared(target + "/block"));
    EXPECT_FALSE(is_shared(target + "/odd"));
    for (const char *const name : {"block", "odd"})
        EXPECT_EQ(host.entries.at(name).digest, digest_of(output("cat " + source + "/" + name))) << name;
}

TEST_P(Between, a_copy_is_what_was_there_when_it_was_made) {
    sh("cd " + source + "; head -c 300000 /dev/urandom > f; cp f ../before"); // not yet on the disk
    EXPECT_EQ(copied(), 0);
    sh("printf changed | dd of=" + source + "/f bs=1 seek=100 conv=notrunc status=none");
    EXPECT_EQ(output("cmp " + disk->path() + "/before " + target + "/f"), "");
}

TEST_P(Between, a_large_file_can_be_cancelled) {
    sh("head -c 200000000 /dev/zero > " + source + "/f");
    host.cancel_at = 2;
    EXPECT_EQ(copied(), static_cast<int32_t>(QFI_FI_CANCELLED));
    if (options.workers == 1) { // another one may tell more before this one has taken in what its call returned
        EXPECT_LE(host.progress_calls, 3);
    }
}

class Xfs : public EngineTest {
protected:
    /// How often the file was taken over at once, and not in ranges by several workers.
    int times_at_once(const std::string &made_with) {
        const LoopFilesystem disk("xfs", 400, "", {"-m", made_with});
        sh("mkdir " + disk.path() + "/s; head -c 70000000 /dev/urandom > " + disk.path() + "/s/f");
        static std::atomic<int> times;
        times = 0;
        test_hook = [](Point point, const char *) { times += point == Point::read_once ? 1 : 0; };
        EXPECT_EQ(copy_tree(Folder(disk.path() + "/s").fd, Folder(disk.path()).fd, "c", options, host.record).status,
                  0);
        test_hook = nullptr;
        EXPECT_EQ(output("cmp " + disk.path() + "/s/f " + disk.path() + "/c/f"), "");
        return times;
    }
};

TEST_F(Xfs, without_shared_blocks_has_a_large_file_copied_by_several_workers) {
    if (const auto obstacle = LoopFilesystem::obstacle("xfs"))
        GTEST_SKIP() << *obstacle;
    options.workers = 2;
    EXPECT_EQ(times_at_once("reflink=1"), 1);
    EXPECT_EQ(times_at_once("reflink=0"), 0);
}

class Btrfs : public EngineTest {};

TEST_F(Btrfs, a_file_without_checksums_is_copied_where_new_ones_have_them_and_the_others_are_cloned) {
    if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("btrfs", 256, "nodatasum");
    use(disk.path());
    sh("mkdir s; head -c 100000 /dev/urandom > s/without; touch -d 2001-01-01 s/without; sync; "
       "mount -o remount,datasum .; head -c 100000 /dev/urandom > s/with; sync");
    options.data = Data::clone;
    for (const bool digest : {false, true}) {
        options.digest = digest;
        host.remarks.clear();
        EXPECT_EQ(copy("s", "c").status, 0) << host.failed_operation << " " << host.failed_error;
        expect_equal("s", "c");
        EXPECT_TRUE(host.has_remark(QFI_REMARK_WARNING, "without"));
        EXPECT_EQ(host.remarks.size(), 1u);
        sh("sync");
        EXPECT_TRUE(is_shared(at + "/c/with"));
        EXPECT_FALSE(is_shared(at + "/c/without"));
        sh("rm -r c");
    }
}

INSTANTIATE_TEST_SUITE_P(, Between,
                         testing::Values(Case{"btrfs", "btrfs", 2}, Case{"xfs", "xfs", 2}, Case{"ext4", "ext4", 2},
                                         Case{"ext4", "ext4", 1}, Case{"ext4", "xfs", 2}, Case{"xfs", "btrfs", 2},
                                         Case{"xfs", "ext4", 1}),
                         [](const auto &one) {
                             return std::string(one.param.from) + "_to_" + one.param.to + "_by_" +
                                    std::to_string(one.param.workers);
                         });

} // namespace
