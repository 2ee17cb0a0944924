// Trees that change while they are read, on purpose or by chance.
#include "engine_support.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <qzfi_fi.h>

#include "providers/engine/engine_work.h"
#include "support/loop_filesystem.h"

using namespace qzfi::engine;

namespace {

std::string place;      // of the running test, for the hooks
std::atomic<int> times; // that a hook did its work

class Hostile : public EngineTest {
protected:
    Hostile() {
        place = at;
        times = 0;
        options.workers = 1;
    }
    ~Hostile() override { test_hook = nullptr; }
};

void sh_at_place(const std::string &command) {
    EXPECT_EQ(std::system(("cd " + place + " && " + command).c_str()), 0);
}

void append(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(::write(fd, "more", 4), 4);
    close(fd);
}

TEST_F(Hostile, a_file_that_changes_once_is_read_again) {
    sh("mkdir s; printf first > s/f");
    test_hook = [](Point point, const char *) {
        if (point == Point::read_once && times++ == 0)
            append(place + "/s/f");
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.remarks.empty());
    EXPECT_EQ(output("cat c/f"), "firstmore");
    expect_equal("s", "c");
}

TEST_F(Hostile, a_file_that_changes_always_is_kept_and_remarked_as_torn) {
    sh("mkdir s; printf first > s/f");
    test_hook = [](Point point, const char *name) {
        if (point == Point::read_once && name != nullptr)
            append(place + "/s/f");
    };
    options.entries = true;
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_TORN, "f"));
    EXPECT_EQ(output("cat c/f"), "firstmoremore");
    EXPECT_EQ(host.entries.at("f").entry.size, 13u);
}

TEST_F(Hostile, a_file_that_is_cut_while_it_is_read_is_read_again) {
    sh("mkdir s; head -c 900000 /dev/urandom > s/f");
    test_hook = [](Point point, const char *) {
        if (point == Point::created) {
            EXPECT_EQ(truncate((place + "/s/f").c_str(), 1000), 0);
        }
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.remarks.empty());
    expect_equal("s", "c");
}

TEST_F(Hostile, a_file_that_vanishes_after_it_was_listed_is_remarked) {
    sh("mkdir s; printf x > s/f; printf y > s/g");
    test_hook = [](Point point, const char *) {
        if (point == Point::listed)
            unlink((place + "/s/f").c_str());
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_VANISHED, "f"));
    EXPECT_EQ(output("ls c"), "g\n");
}

TEST_F(Hostile, a_directory_that_changes_while_it_is_read_is_remarked) {
    sh("mkdir -p s/still s/d; printf x > s/d/f; touch -d '1 hour ago' s/d");
    test_hook = [](Point point, const char *name) {
        if (point == Point::listed && std::string_view(name) == "d")
            sh_at_place("printf new > s/d/late");
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_WARNING, "d"));
    EXPECT_EQ(host.remarks.size(), 1u);
}

TEST_F(Hostile, a_directory_that_is_removed_while_it_is_listed_has_vanished_and_a_walk_goes_on) {
    options.entries = true;
    const auto removed_while = [&](auto &&act) {
        sh("mkdir -p s/d s/e; printf x > s/d/f; printf y > s/e/f");
        host.remarks.clear();
        host.entries.clear();
        test_hook = [](Point point, const char *name) {
            if (point == Point::listed && std::string_view(name) == "d")
                sh_at_place("rm -r s/d");
        };
        EXPECT_EQ(act().status, 0) << host.failed_operation << " " << host.failed_object;
        test_hook = nullptr;
        std::vector<std::string> said;
        for (const TestHost::Remark &remark : host.remarks)
            said.push_back(std::to_string(remark.kind) + " " + remark.path + ": " + remark.detail);
        const auto of_directory =
            std::to_string(QFI_REMARK_VANISHED) + " d: renamed or removed before all of it was read";
        EXPECT_EQ(std::count(said.begin(), said.end(), of_directory), 1) << testing::PrintToString(said);
        EXPECT_FALSE(host.has_remark(QFI_REMARK_UNREADABLE, "d"));
        EXPECT_EQ(host.entries.count("e/f"), 1u);
    };
    removed_while([&] { return copy("s", "c"); });
    removed_while([&] { return update("s", "c"); });
    removed_while([&] { return walk("s"); });
}

TEST_F(Hostile, what_somebody_else_removes_meanwhile_is_removed) {
    sh("mkdir -p s/d/e; printf x > s/d/f");
    test_hook = [](Point point, const char *name) {
        if (point == Point::listed && std::string_view(name) == "d")
            sh_at_place("rm -r s/d");
    };
    EXPECT_EQ(remove("s").status, 0) << host.failed_operation << " " << host.failed_object;
    EXPECT_EQ(output("ls"), "");
}

/// A file of two names that loses both once it was copied, and leaves its inode number to a new one.
struct Reuse {
    const char *name;
    std::vector<std::string> made_with; // mkfs
    bool entries;
    int links; // of the new file
};
void PrintTo(const Reuse &reuse, std::ostream *out) {
    *out << reuse.name;
}
class Reused : public Hostile, public testing::WithParamInterface<Reuse> {};

int links_of_new;
bool is_reused;

/// Makes files until one has the inode number of the removed one.
void reuse(const std::string &directory, ino_t inode) {
    for (int i = 0; i < 1000 && !is_reused; ++i) {
        const std::string name = directory + "/new" + std::to_string(i);
        const int file = open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
        EXPECT_EQ(::write(file, "new content", 11), 11);
        struct stat stat {};
        EXPECT_EQ(fstat(file, &stat), 0);
        close(file);
        is_reused = stat.st_ino == inode;
        if (is_reused && links_of_new == 2) {
            EXPECT_EQ(link(name.c_str(), (directory + "/again").c_str()), 0);
        }
    }
}

TEST_P(Reused, inode_numbers_are_those_of_other_files) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("ext4", 64, "", GetParam().made_with);
    use(disk.path());
    place = at;
    links_of_new = GetParam().links;
    is_reused = false;
    sh("mkdir -p s/a/below s/b/below; for d in a b; do printf old > s/$d/x; ln s/$d/x $d; done");
    options.entries = GetParam().entries;
    test_hook = [](Point point, const char *name) {
        const std::string listed = point == Point::listed ? name : "";
        if ((listed != "a" && listed != "b") || times++ == 0)
            return;
        const std::string other = listed == "a" ? "b" : "a", first = place + "/s/" + other + "/x";
        struct stat stat {};
        EXPECT_EQ(::stat(first.c_str(), &stat), 0);
        EXPECT_EQ(unlink(first.c_str()), 0);
        EXPECT_EQ(unlink((place + "/" + other).c_str()), 0);
        reuse(place + "/s/" + listed + "/below", stat.st_ino);
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(is_reused);
    EXPECT_EQ(output("cat c/?/x"), "oldold");
    EXPECT_EQ(output("cat c/?/below/* | sed 's/new content//g'"), "");
    EXPECT_EQ(output("stat -c %h c/?/below/* | sort -u | tail -n 1"), std::to_string(GetParam().links) + "\n");
}
INSTANTIATE_TEST_SUITE_P(, Reused,
                         testing::Values(Reuse{"listed", {}, false, 1}, Reuse{"told", {}, true, 1},
                                         Reuse{"linked", {}, false, 2},
                                         Reuse{"without_birth_times", {"-I", "128"}, false, 2}),
                         [](const auto &row) { return row.param.name; });

int most_writes;

/// Writes other content of the same length, until the file's time says so.
void write_over(const std::string &path) {
    const std::string content = "written " + std::to_string(times++);
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat before {
    }, after{};
    EXPECT_EQ(fstat(file, &before), 0);
    do {
        EXPECT_EQ(pwrite(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
        EXPECT_EQ(fstat(file, &after), 0);
    } while (after.st_mtim.tv_sec == before.st_mtim.tv_sec && after.st_mtim.tv_nsec == before.st_mtim.tv_nsec);
    close(file);
}

class Cloned : public Hostile, public testing::WithParamInterface<const char *> {};

TEST_P(Cloned, files_that_change_meanwhile_have_no_times_of_another_content) {
    if (const auto obstacle = LoopFilesystem::obstacle(GetParam()))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk(GetParam(), 320);
    use(disk.path());
    place = at;
    options.data = Data::clone;
    for (const int writes : {1, 1000}) {
        times = 0;
        most_writes = writes;
        sh("mkdir s; printf 'content 0' > s/f");
        test_hook = [](Point point, const char *name) {
            if (point == Point::read_once && name != nullptr && times < most_writes)
                write_over(place + "/s/f");
        };
        EXPECT_EQ(copy("s", "c").status, 0);
        test_hook = nullptr;
        EXPECT_TRUE(host.remarks.empty());
        if (writes == 1)
            expect_equal("s", "c");
        else
            EXPECT_NE(output("cat c/f"), output("cat s/f")) << "it changed after the last clone";
        EXPECT_EQ(update("s", "c").status, 0);
        EXPECT_EQ(output("cat c/f"), output("cat s/f"));
        sh("rm -r s c");
    }
}
INSTANTIATE_TEST_SUITE_P(, Cloned, testing::Values("xfs", "btrfs"), [](const auto &row) { return row.param; });

struct Swap {
    const char *name, *command;
};
class Swapped : public Hostile, public testing::WithParamInterface<Swap> {};

TEST_P(Swapped, entries_are_copied_as_what_they_became) {
    sh("mkdir s secret; printf x > s/f; printf hidden > secret/f");
    static std::string command;
    command = "cd " + at + "/s && rm -rf f && " + GetParam().command;
    test_hook = [](Point point, const char *name) {
        if (point == Point::listed && *name == '\0' && times++ == 0) {
            EXPECT_EQ(std::system(command.c_str()), 0);
        }
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_TRUE(host.has_remark(QFI_REMARK_WARNING, ""));
    EXPECT_EQ(host.remarks.size(), 1u) << "of the directory, which changed";
    expect_equal("s", "c");
}
INSTANTIATE_TEST_SUITE_P(, Swapped,
                         testing::Values(Swap{"fifo", "mkfifo f"}, Swap{"link", "ln -s ../secret/f f"},
                                         Swap{"directory", "mkdir f; printf in > f/g"}, Swap{"device", "mknod f c 1 3"},
                                         Swap{"file", "printf other > f"}),
                         [](const auto &row) { return row.param.name; });

TEST_F(Hostile, a_directory_that_becomes_a_link_is_not_followed) {
    sh("mkdir -p s/d secret; printf hidden > secret/f");
    test_hook = [](Point point, const char *name) {
        if (point == Point::listed && *name == '\0' && times++ == 0) {
            EXPECT_EQ(std::system(("cd " + place + "/s && rmdir d && ln -s ../secret d").c_str()), 0);
        }
    };
    EXPECT_EQ(copy("s", "c").status, 0);
    EXPECT_EQ(output("readlink c/d"), "../secret\n");
}

TEST_F(Hostile, racing_swaps_neither_hang_nor_leak_what_is_outside) {
    sh("mkdir s secret; printf hidden > secret/f; for i in $(seq 200); do printf x > s/f$i; done");
    options.workers = 2;
    std::atomic<bool> ends{false};
    std::thread racer([&] {
        const std::string base = at + "/s/f";
        for (unsigned i = 0; !ends; ++i) {
            const std::string name = base + std::to_string(i % 200 + 1);
            const std::string made = at + "/made";
            if (i % 3 == 0) {
                EXPECT_EQ(mkfifo(made.c_str(), 0600), 0);
            } else if (i % 3 == 1) {
                EXPECT_EQ(symlink("../secret/f", made.c_str()), 0);
            } else
                close(open(made.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            EXPECT_EQ(rename(made.c_str(), name.c_str()), 0);
        }
    });
    for (int round = 0; round < 20; ++round) {
        const std::string name = "c" + std::to_string(round);
        EXPECT_EQ(copy("s", name).status, 0) << host.failed_operation << host.failed_object;
        EXPECT_EQ(output("find " + name + " -type f -size +5c"), "");
        EXPECT_EQ(walk("s").status, 0);
        EXPECT_EQ(update("s", name).status, 0) << host.failed_operation << host.failed_object << host.failed_error;
    }
    ends = true;
    racer.join();
    EXPECT_EQ(output("cat secret/f"), "hidden");
}

/// A tree whose `p` is closed for want of descriptors when the deepest directory is listed, and renamed then.
class Renamed : public Hostile {
protected:
    void SetUp() override {
        sh("for i in a b c; do mkdir -p s/p/$i/1/2/3/4/5/6/7; printf x > s/p/$i/1/2/3/4/5/6/7/f; done; "
           "mkdir s/z; printf z > s/z/f; chmod 751 s/p");
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit few{40, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        test_hook = [](Point point, const char *name) {
            if (point == Point::listed && std::string_view(name) == "7" && times++ == 0) {
                EXPECT_EQ(rename((place + "/s/p").c_str(), (place + "/away").c_str()), 0);
            }
        };
    }
    void TearDown() override { setrlimit(RLIMIT_NOFILE, &before_); }
    /// What is in it is missing from there on, and said once.
    void expect_vanished(const Result &result) {
        EXPECT_EQ(result.status, 0) << host.failed_operation << " " << host.failed_object << host.failed_error;
        EXPECT_TRUE(host.has_remark(QFI_REMARK_VANISHED, "p"));
        const auto of_it = std::count_if(host.remarks.begin(), host.remarks.end(),
                                         [](const TestHost::Remark &remark) { return remark.path == "p"; });
        EXPECT_EQ(of_it, 1);
    }

private:
    rlimit before_{};
};

TEST_F(Renamed, a_directory_that_cannot_be_found_again_is_remarked_as_vanished) {
    expect_vanished(copy("s", "c"));
    EXPECT_EQ(output("find c -type f | wc -l"), "2\n");
    EXPECT_EQ(output("cat c/z/f; stat -c %a c/p"), "z751\n");
}

TEST_F(Renamed, another_directory_of_that_name_is_not_taken_for_it) {
    test_hook = [](Point point, const char *name) {
        if (point == Point::listed && std::string_view(name) == "7" && times++ == 0)
            sh_at_place("mv s/p away; mkdir -p s/p/a s/p/b s/p/c; echo other > s/p/a/f; echo other > s/p/f");
    };
    expect_vanished(copy("s", "c"));
    EXPECT_EQ(output("find c -type f | xargs cat"), "xz");
}

TEST_F(Renamed, a_walk_goes_on_without_it) {
    options.entries = true;
    expect_vanished(walk("s"));
    EXPECT_EQ(host.entries.count("z/f"), 1u);
}

TEST_F(Renamed, a_copy_that_somebody_renames_meanwhile_fails) {
    test_hook = [](Point point, const char *name) {
        if (point == Point::listed && std::string_view(name) == "7" && times++ == 0) {
            EXPECT_EQ(rename((place + "/c/p").c_str(), (place + "/away").c_str()), 0);
        }
    };
    EXPECT_EQ(copy("s", "c").status, static_cast<int32_t>(QFI_FI_WRITE));
    EXPECT_EQ(host.failed_object, "p");
}

/// A process that holds the lease of a file until somebody else opens it, as a file server does for its client.
class Lease {
public:
    explicit Lease(const std::string &path) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        holder_ = fork();
        if (holder_ == 0)
            hold(path, ends[1]);
        close(ends[1]);
        char word = 0;
        is_held_ = read(ends[0], &word, 1) == 1;
        close(ends[0]);
    }
    ~Lease() {
        kill(holder_, SIGKILL);
        waitpid(holder_, nullptr, 0);
    }
    Lease(const Lease &) = delete;
    Lease &operator=(const Lease &) = delete;
    bool is_held() const { return is_held_; }

private:
    [[noreturn]] static void hold(const std::string &path, int out) {
        sigset_t wanted;
        sigemptyset(&wanted);
        sigaddset(&wanted, SIGIO);
        sigprocmask(SIG_BLOCK, &wanted, nullptr);
        const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fcntl(file, F_SETLEASE, F_WRLCK) != 0 || ::write(out, "1", 1) != 1)
            _exit(1);
        int signal = 0;
        sigwait(&wanted, &signal);
        usleep(200'000);
        fcntl(file, F_SETLEASE, F_UNLCK);
        for (;;)
            pause();
    }
    pid_t holder_;
    bool is_held_;
};

TEST_F(Hostile, a_file_that_a_file_server_has_leased_to_a_client_is_waited_for) {
    sh("mkdir s; printf data > s/f; touch -a -d 2001-01-01 s/f");
    const std::string accessed = output("stat -c %x s/f");
    options.entries = options.digest = true;
    {
        const Lease lease(at + "/s/f");
        if (!lease.is_held())
            GTEST_SKIP() << "no leases on this file system";
        EXPECT_EQ(copy("s", "c").status, 0) << host.failed_operation;
    }
    EXPECT_TRUE(host.remarks.empty()) << host.remarks[0].detail << " " << host.remarks[0].error;
    EXPECT_EQ(output("stat -c %x s/f"), accessed);
    expect_equal("s", "c");
    host.entries.clear();
    const Lease lease(at + "/s/f");
    EXPECT_TRUE(lease.is_held());
    EXPECT_EQ(walk("s").status, 0) << host.failed_operation;
    EXPECT_NE(host.entries.at("f").digest, "");
}

TEST_F(Hostile, an_unreadable_file_is_remarked_and_the_rest_is_copied) {
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    sh("mkdir s t; printf x > s/f; printf y > s/g; chmod 0 s/f; mkdir s/d; chmod 0 s/d; chown 65534 t; chmod 755 .");
    // A process of its own: the rights of a thread alone would not be those of the engine's other threads.
    const pid_t child = fork();
    if (child == 0) {
        options.workers = 2;
        const bool is_dropped = setgid(65534) == 0 && setuid(65534) == 0;
        const Result result = copy_tree(Folder(at + "/s").fd, Folder(at + "/t").fd, "c", options, host.record);
        const bool is_right = is_dropped && result.status == 0 && host.has_remark(QFI_REMARK_UNREADABLE, "f") &&
                              host.has_remark(QFI_REMARK_UNREADABLE, "d") &&
                              host.has_remark(QFI_REMARK_ATTRIBUTE, "g"); // its owner
        const Result removed = remove_tree(Folder(at + "/t").fd, "c", options, host.record);
        _exit(is_right && removed.status == 0 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output("ls t"), "");
}

} // namespace
