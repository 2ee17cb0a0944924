// Trees that lie within each other, and volumes within trees.
#include "engine_support.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <qzfi_fi.h>

#include "support/loop_filesystem.h"

using namespace qzfi::engine;

namespace {

class Within : public EngineTest {
protected:
    void expect_refused(const Result &result) {
        EXPECT_EQ(result.status, static_cast<int32_t>(QFI_FI_UNSAFE));
        EXPECT_EQ(host.failed_operation, "the tree and its copy lie one within the other");
    }
};

TEST_F(Within, a_copy_into_its_own_source_is_refused) {
    sh("mkdir -p s/d/e; printf x > s/f");
    for (const char *into : {"/s", "/s/d", "/s/d/e"})
        expect_refused(copy_tree(Folder(at + "/s").fd, Folder(at + into).fd, "c", options, host.record));
    EXPECT_EQ(output("find s | sort"), "s\ns/d\ns/d/e\ns/f\n");
}

TEST_F(Within, a_copy_into_an_excluded_directory_of_its_source_is_made) {
    sh("mkdir -p s/store/deep s/a; printf x > s/a/f");
    struct stat status {};
    ASSERT_EQ(stat((at + "/s/store").c_str(), &status), 0);
    const qfi_excluded store{status.st_dev, status.st_ino, -1};
    options.excluded = &store;
    options.excluded_count = 1;
    EXPECT_EQ(copy_tree(Folder(at + "/s").fd, Folder(at + "/s/store/deep").fd, "c", options, host.record).status, 0);
    EXPECT_EQ(output("cd s/store/deep; find c | sort"), "c\nc/a\nc/a/f\n");
    const Folder image(at + "/s/store/deep/c");
    sh("printf other > s/a/g");
    EXPECT_EQ(bring_up_to_date(image.fd, Folder(at).fd, "s", options, host.record).status, 0);
    EXPECT_EQ(output("ls s/a s/store/deep"), "s/a:\nf\n\ns/store/deep:\nc\n");
}

TEST_F(Within, an_update_from_or_into_itself_is_refused) {
    sh("mkdir -p s/d/e; printf x > s/f; printf y > s/d/f");
    expect_refused(update("s/d", "s"));
    expect_refused(update("s/d/e", "s"));
    expect_refused(update("s", "s"));
    expect_refused(bring_up_to_date(Folder(at + "/s").fd, Folder(at + "/s").fd, "d", options, host.record));
    EXPECT_EQ(output("find s | sort"), "s\ns/d\ns/d/e\ns/d/f\ns/f\n");
}

class Volumes : public EngineTest {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
            GTEST_SKIP() << *obstacle;
    }
};

TEST_F(Volumes, what_a_snapshot_has_in_place_of_nested_ones_is_removed) {
    const LoopFilesystem disk("btrfs", 256);
    use(disk.path());
    sh("btrfs -q subvolume create s; btrfs -q subvolume create s/sub; mkdir s/d; btrfs -q subvolume create s/d/sub; "
       "btrfs -q subvolume snapshot s n; mkdir t; mv n/d t/d");
    EXPECT_EQ(remove("t").status, 0) << host.failed_operation << host.failed_object << host.failed_error;
    EXPECT_EQ(remove("n").status, 0) << host.failed_operation << host.failed_object << host.failed_error;
    EXPECT_EQ(output("ls"), "s\n");
    sh("test -d s/sub; test -d s/d/sub");
}

TEST_F(Volumes, many_that_are_left_out_do_not_cost_descriptors) {
    const LoopFilesystem disk("btrfs", 512);
    use(disk.path());
    sh("mkdir s; cd s; for i in $(seq 30); do btrfs -q subvolume create a$i; done; "
       "for i in $(seq 40); do d=$d/d; mkdir -p .$d/x .$d/y; done");
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{48, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const Result result = copy("s", "c");
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(result.status, 0) << host.failed_operation << host.failed_object << host.failed_error;
    EXPECT_EQ(result.remarks, 30u);
    EXPECT_EQ(result.entries, 121u);
}

TEST_F(Within, an_update_can_be_cancelled_while_it_removes) {
    sh("mkdir s c c/extra; cd c/extra; seq 1000 | xargs touch");
    host.cancel_at = 5; // the source has no entries to tell of
    EXPECT_EQ(update("s", "c").status, static_cast<int32_t>(QFI_FI_CANCELLED));
    EXPECT_NE(output("ls c/extra"), "");
}

TEST_F(Within, flags_that_statx_does_not_tell_are_kept) {
    sh("mkdir s s/d; printf x > s/f; chattr +A s/f; chattr +D s/d; chattr +S s/d");
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_EQ(output("lsattr -d c/f c/d | cut -c1-20"), output("lsattr -d s/f s/d | cut -c1-20"));
    EXPECT_NE(output("lsattr c/f").find('A'), std::string::npos);
}

} // namespace
