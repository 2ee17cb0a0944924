// An existing tree becomes equal to its source, and what was equal is left alone.
#include "engine_support.h"

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi_fi.h>

#include "providers/engine/engine_work.h"
#include "support/fault.h"
#include "support/loop_filesystem.h"

using namespace qzfi::engine;

namespace {

class Update : public EngineTest {
protected:
    /// Changes a copy of the zoo, and brings it up to date.
    void repairs(const std::string &damage) {
        make_zoo("zoo");
        ASSERT_EQ(copy("zoo", "copy").status, 0);
        sh("cd copy; " + damage);
        const Result result = update("zoo", "copy");
        EXPECT_EQ(result.status, 0) << host.failed_operation << " " << host.failed_object << host.failed_error;
        EXPECT_GT(result.changed, 0u);
        expect_equal("zoo", "copy");
        EXPECT_EQ(update("zoo", "copy").changed, 0u);
    }
};

TEST_F(Update, of_an_equal_tree_changes_nothing) {
    make_zoo("zoo");
    ASSERT_EQ(copy("zoo", "copy").status, 0);
    const auto inodes = output("find copy -not -type d -printf '%i %C@ %p\\n' | sort");
    const Result result = update("zoo", "copy");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.changed, 0u);
    EXPECT_EQ(output("find copy -not -type d -printf '%i %C@ %p\\n' | sort"), inodes);
}
TEST_F(Update, makes_a_tree_that_is_not_there) {
    make_zoo("zoo");
    EXPECT_EQ(update("zoo", "copy").status, 0);
    expect_equal("zoo", "copy");
}
TEST_F(Update, replaces_changed_files) {
    repairs("printf other > plain; printf longer >> medium; : > large");
}
TEST_F(Update, adds_what_is_missing) {
    repairs("rm -r deep wide pipe null dangling plain");
}
TEST_F(Update, removes_what_the_source_does_not_have) {
    repairs("mkdir -p extra/er; printf x > extra/er/f; printf y > wide/y; ln -s / extra/link; chattr +i extra/er/f");
}
TEST_F(Update, changes_types) {
    repairs("rm -r deep plain wide; printf d > deep; mkdir -p plain/x; ln -s /etc wide; rm pipe dangling null; "
            "mkdir pipe; printf n > dangling; mkfifo null");
}
TEST_F(Update, mends_attributes_in_place) {
    repairs("chmod 777 plain deep; chown 9:9 medium wide; touch large nothing deep; touch -h dangling; "
            "setfattr -n user.extra -v 1 large; setfattr -x user.text plain; setfacl -b acl; setfacl -m u:5:r wide; "
            "chmod 600 pipe; chattr +d medium; chattr +i large; chattr +a holes");
}
TEST_F(Update, restores_the_structure_of_hard_links) {
    repairs("rm deep/hard1; cp -p plain deep/hard1; rm wide/f1; ln wide/f22 wide/f1; rm wide/f3; ln plain wide/f3; "
            "ln .dot extra_link");
}
TEST_F(Update, gives_no_file_away_that_somebody_linked_or_moved_into_the_tree) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, who can give files away";
    for (const char *const puts : {"ln", "mv"}) {
        sh("rm -rf zoo copy secret; mkdir zoo copy; printf public > zoo/a; ln zoo/a zoo/b; printf public > zoo/c; "
           "printf public > secret; cp secret zoo/d; mkfifo zoo/pipe; chown 9:9 zoo/*; chmod 666 zoo/*; cp -a zoo/. "
           "copy; "
           "printf secret > secret; chmod 600 secret; mkfifo -m 600 secret_pipe; touch -d 2001-01-01 zoo/* copy/* "
           "secret*");
        sh(std::string("for f in a b c d; do rm copy/$f; cp -p secret secret_$f; ") + puts +
           " secret_$f copy/$f; done; rm copy/pipe; " + puts + " secret_pipe copy/pipe; ");
        const std::string before = output("stat -c '%n %u %a %i' secret*; cat secret_?; true");
        EXPECT_EQ(update("zoo", "copy").status, 0);
        EXPECT_EQ(output("stat -c '%n %u %a %i' secret*; cat secret_?; true"), before) << puts;
        EXPECT_EQ(output("cat copy/a copy/b copy/c copy/d"), "publicpublicpublicpublic") << puts;
        expect_equal("zoo", "copy");
        EXPECT_EQ(update("zoo", "copy").changed, 0u);
        sh("rm -f secret*");
    }
}
TEST_F(Update, leaves_files_alone_that_have_links_outside) {
    sh("mkdir zoo copy; for f in 1 2 3; do printf same > zoo/$f; done; ln zoo/1 zoo/one; mkfifo zoo/pipe; "
       "touch -d 2001-01-01 zoo/*; cp -a zoo/. copy; cp -al copy outside");
    const std::string before = output("cd copy; stat -c '%n %i' *");
    EXPECT_EQ(update("zoo", "copy").changed, 0u);
    EXPECT_EQ(output("cd copy; stat -c '%n %i' *"), before);
    // What are several files in the source are several.
    sh("rm -r outside; ln -f copy/2 copy/3");
    EXPECT_EQ(update("zoo", "copy").changed, 1u);
    expect_equal("zoo", "copy");
    EXPECT_EQ(update("zoo", "copy").changed, 0u);
}
TEST_F(Update, gives_what_it_makes_in_a_folder_that_passes_on_its_group_the_right_one) {
    repairs("chown :9 . deep; chmod 2775 . deep; rm pipe null dangling plain deep/pipe2 deep/link deep/dangling2");
    EXPECT_EQ(output("find copy -name '.qzfi-*'"), "");
}

/// A folder of a user, who may rename in it also what is root's.
class Users : public Update {
protected:
    void SetUp() override {
        sh("mkdir s home; mkfifo s/p; ln -s text s/l; mknod s/n c 1 3; chmod 644 s/p s/n; chown -hR 65534:65534 s "
           "home");
        place = at;
        make_secret();
    }
    void TearDown() override {
        test_hook = nullptr;
        close(secret);
    }
    void make_secret() {
        close(secret);
        sh("mkfifo -m 600 secret");
        secret = open((at + "/secret").c_str(), O_PATH | O_CLOEXEC);
    }
    void expect_roots() const {
        struct stat stat {};
        EXPECT_EQ(fstat(secret, &stat), 0);
        EXPECT_EQ(stat.st_uid, 0u);
        EXPECT_EQ(stat.st_mode & 0777, 0600u);
    }
    static std::string place;
    int secret = -1;
};
std::string Users::place;

TEST_F(Users, folders_get_fifos_of_their_own_where_one_of_root_lies) {
    sh("mv secret home/p");
    EXPECT_EQ(update("s", "home").status, 0);
    expect_roots();
    expect_equal("s", "home");
}

TEST_F(Users, folders_are_given_nothing_that_is_put_there_meanwhile) {
    for (const char *const name : {"p", "l", "n"}) {
        sh("rm -f home/*");
        static std::string replaced;
        replaced = name;
        test_hook = [](Point point, const char *reached) {
            if (point == Point::created && reached == replaced) {
                EXPECT_EQ(rename((place + "/secret").c_str(), (place + "/home/" + replaced).c_str()), 0);
            }
        };
        host.remarks.clear();
        EXPECT_EQ(update("s", "home").status, 0);
        test_hook = nullptr;
        expect_roots();
        EXPECT_TRUE(host.has_remark(QFI_REMARK_WARNING, name)) << name;
        EXPECT_EQ(output("find home -name '.qzfi-*'"), "");
        EXPECT_EQ(update("s", "home").status, 0);
        expect_roots();
        expect_equal("s", "home");
        make_secret();
    }
}

TEST_F(Update, finds_other_content_by_digests) {
    make_zoo("zoo");
    options.digest = true;
    ASSERT_EQ(copy("zoo", "copy").status, 0);
    sh("cd copy; printf xyz > plain; touch -r ../zoo/plain plain");
    EXPECT_EQ(update("zoo", "copy").status, 0);
    expect_equal("zoo", "copy");
}
TEST_F(Update, writes_through_no_link_of_the_target) {
    sh("mkdir -p zoo/dir outside; printf inside > zoo/dir/f; printf inside > zoo/file; printf safe > outside/f; "
       "mkdir copy; ln -s ../outside copy/dir; ln -s ../outside/f copy/file; touch -d 2001-01-01 outside outside/f");
    EXPECT_EQ(update("zoo", "copy").status, 0);
    EXPECT_EQ(output("cat outside/f; stat -c %Y outside outside/f"), "safe978307200\n978307200\n");
    expect_equal("zoo", "copy");
}
TEST_F(Update, refuses_a_link_in_place_of_the_tree) {
    sh("mkdir zoo outside; printf x > zoo/f; ln -s outside copy");
    EXPECT_EQ(update("zoo", "copy").status, static_cast<int32_t>(QFI_FI_UNSAFE));
    EXPECT_EQ(output("ls outside"), "");
}
TEST_F(Update, leaves_no_temporary_names) {
    repairs("for f in wide/*; do printf other > $f; done");
    EXPECT_EQ(output("find . -name '.qzfi-*'"), "");
}

TEST_F(Update, takes_no_attribute_away_because_those_of_the_source_cannot_be_read) {
    sh("mkdir -p s; printf x > s/f; setfattr -n user.a -v b s s/f; cp -a s c; chmod 711 c c/f");
    int told = 0;
    for (const int error : {EIO, EACCES})
        fault::for_each(fault::Call::xattr,
                        [&](fault::Trial &trial) {
                            sh("chmod 700 c c/f");
                            const Folder source(at + "/s"), target(at);
                            host.remarks.clear();
                            trial.arm();
                            const Result result = bring_up_to_date(source.fd, target.fd, "c", options, host.record);
                            trial.disarm();
                            EXPECT_EQ(output("cd c; getfattr --only-values -n user.a . f"), "bb");
                            const bool was_told = result.status != 0 || !host.remarks.empty();
                            EXPECT_TRUE(trial.fired() || !was_told);
                            told += was_told ? 1 : 0;
                            // A call of a comparison that fails has what it compares kept once more: nothing is lost.
                            if (!was_told) {
                                EXPECT_EQ(output("stat -c '%a %Y' c c/f"), output("stat -c '%a %Y' s s/f"));
                            }
                        },
                        {.error = error});
    EXPECT_GE(told, 8);
}

TEST_F(Update, remarks_flags_that_can_be_read_on_neither_side) {
    sh("mkdir -p s c; printf x > s/f; cp -a s/f c/f; touch -r s c");
    const Folder source(at + "/s"), target(at);
    Result result;
    {
        const fault::Armed armed(fault::Call::ioctl, 1, {.error = EIO, .from_then_on = true});
        result = bring_up_to_date(source.fd, target.fd, "c", options, host.record);
    }
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.changed, 0u);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_ATTRIBUTE, "f"));
}

TEST_F(Update, of_an_immutable_file_that_cannot_be_replaced_leaves_it_immutable) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("ext4", 16);
    sh("mkdir s; head -c 20000000 /dev/urandom > s/f");
    const std::string there = disk.path() + "/c";
    sh("mkdir " + there + "; printf x > " + there + "/f; chattr +i " + there + "/f");
    const Folder source(at + "/s"), target(disk.path());
    EXPECT_EQ(bring_up_to_date(source.fd, target.fd, "c", options, host.record).status,
              static_cast<int32_t>(QFI_FI_NO_SPACE));
    EXPECT_EQ(output("lsattr " + there + "/f | cut -c5; cat " + there + "/f; ls " + there), "i\nxf\n");
    sh("printf y > s/f");
    EXPECT_EQ(bring_up_to_date(source.fd, target.fd, "c", options, host.record).status, 0);
    EXPECT_EQ(output("lsattr " + there + "/f | cut -c5; cat " + there + "/f"), "-\ny");
}

TEST_F(Update, leaves_the_sockets_of_the_target_alone) {
    const auto bind = [&](const std::string &path) {
        sh("python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"" + path + "\")'");
    };
    sh("mkdir -p s/d c/d c/extra; printf x > s/file; printf y > c/other; touch -r s c");
    for (const char *const path : {"s/both", "c/both", "c/d/only", "c/file", "s/other", "c/extra/gone"})
        bind(path);
    const std::string inodes = output("stat -c '%n %i' c/both c/d/only");
    EXPECT_EQ(update("s", "c").status, 0) << host.failed_operation << " " << host.failed_object;
    EXPECT_EQ(output("stat -c '%n %i' c/both c/d/only"), inodes);
    EXPECT_EQ(output("find c -printf '%P %y\\n' | sort"), " d\nboth s\nd d\nd/only s\nfile f\n");
    for (const char *const path : {"both", "d/only", "other"})
        EXPECT_TRUE(host.has_remark(QFI_REMARK_SKIPPED, path)) << path;
    EXPECT_EQ(update("s", "c").changed, 0u);
}

TEST_F(Update, clones_into_a_folder_that_would_pass_on_its_flags) {
    if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("btrfs", 256);
    use(disk.path());
    sh("mkdir -p s/d c/d; chattr +C c c/d; head -c 100000 /dev/urandom > s/d/f; touch c/d/f");
    options.data = Data::clone;
    EXPECT_EQ(update("s", "c").status, 0) << host.failed_operation << " " << host.failed_object;
    EXPECT_TRUE(host.remarks.empty()) << host.remarks[0].path << " " << host.remarks[0].detail;
    expect_equal("s", "c");
}

} // namespace
