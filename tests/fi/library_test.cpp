// What every room of the library shares.
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <qzfi_provider.h>

#include "fi/fi_tree.h"
#include "store_support.h"
#include "support/fault.h"

using namespace qzfi::fi;
using store_support::Folder;
using store_support::last_error;
using store_support::status_of_call;

TEST(Raise, a_record_holds_the_format_and_every_argument) {
    const std::string path = "/with\0nul";
    raise(message::read_failed, QFI_FI_READ, "qzfi_split", {"openat", std::string_view("/data/x", 5), "why"});

    EXPECT_EQ(last_error(), "1039 MSG_QFI_E2022: %s: %s of %s failed: %s\n|qzfi_split|openat|/data|why");
}

TEST(Raise, a_message_without_arguments_holds_format_and_operation) {
    raise(message::no_memory, QFI_STATUS_NO_MEMORY, "qzfi_split", {});

    EXPECT_EQ(last_error(), "5 MSG_QFI_E2001: %s: out of memory\n|qzfi_split");
}

TEST(Raise, an_argument_is_cut_and_told_when_its_copy_finds_no_memory) {
    const std::string argument(1000, 'a');
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        trial.arm();
        raise(message::busy, QFI_FI_BUSY, "qzfi_split", {argument});
        trial.disarm();
        const std::string told = last_error();
        const std::string cut = "1034 MSG_QFI_E2017: %s: %s is in use by another operation\n|qzfi_split|";
        if (trial.nth() == 1) {
            EXPECT_EQ(told, cut + argument.substr(0, 255));
        }
        if (!trial.fired()) {
            EXPECT_EQ(told, cut + argument);
        }
    });
}

TEST(Hush, a_hushed_failure_is_thrown_and_not_recorded) {
    fi_del_all_errors();
    EXPECT_EQ(status_of_call([] {
                  const Hush hush;
                  fail(message::cancelled, QFI_FI_CANCELLED, "qzfi_split", {"/x"});
              }),
              QFI_FI_CANCELLED);
    EXPECT_EQ(last_error(), "none");
}

TEST(Status, every_errno_that_has_its_own_status_gives_it) {
    const struct {
        int error;
        int32_t status;
    } rows[] = {{ENOSPC, QFI_FI_NO_SPACE},        {EDQUOT, QFI_FI_NO_SPACE}, {EACCES, QFI_FI_NO_RIGHT},
                {EPERM, QFI_FI_NO_RIGHT},         {EROFS, QFI_FI_NO_RIGHT},  {ENOENT, QFI_FI_NO_SUCH_OBJECT},
                {ENOTDIR, QFI_FI_NO_SUCH_OBJECT}, {ELOOP, QFI_FI_UNSAFE},    {EXDEV, QFI_FI_UNSAFE},
                {ENOMEM, QFI_STATUS_NO_MEMORY},   {EIO, QFI_FI_WRITE},       {EBADF, QFI_FI_WRITE}};
    for (const auto &row : rows)
        EXPECT_EQ(status_of(row.error, QFI_FI_WRITE), row.status) << row.error;
}

TEST(FailCall, the_record_names_operation_object_and_cause) {
    const struct {
        int error;
        bool reading;
        const char *record;
    } rows[] = {
        {EIO, true, "1039 MSG_QFI_E2022: %s: %s of %s failed: %s\n|qzfi_split|open|/a|Input/output error (5)"},
        {EIO, false, "1040 MSG_QFI_E2023: %s: %s of %s failed: %s\n|qzfi_split|open|/a|Input/output error (5)"},
        {ENOSPC, false, "1029 MSG_QFI_E2012: %s: no space left on the file system of %s\n|qzfi_split|/a"},
        {EPERM, false, "1041 MSG_QFI_E2024: %s: no right to %s %s\n|qzfi_split|open|/a"},
        {ENOENT, true, "1025 MSG_QFI_E2006: %s: %s: %s\n|qzfi_split|/a|No such file or directory (2)"},
        {ELOOP, true,
         "1038 MSG_QFI_E2021: %s: %s leaves its place: %s\n|qzfi_split|/a|Too many levels of symbolic links (40)"},
        {ENOMEM, true, "5 MSG_QFI_E2001: %s: out of memory\n|qzfi_split"},
    };
    for (const auto &row : rows) {
        EXPECT_NE(status_of_call([&] { fail_call("qzfi_split", "open", "/a", row.error, row.reading); }), 0);
        EXPECT_EQ(last_error(), row.record);
    }
}

TEST(Require, a_condition_that_does_not_hold_is_an_invalid_argument) {
    require(true, "qzfi_split", "unused");
    EXPECT_EQ(status_of_call([] { require(false, "qzfi_split", "count is 0"); }), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "3 MSG_QFI_E2003: %s: invalid argument: %s\n|qzfi_split|count is 0");
}

TEST(ErrorText, an_errno_is_named_with_its_number) {
    EXPECT_EQ(error_text(ENOENT), "No such file or directory (2)");
    EXPECT_EQ(error_text(9999), "Unknown error (9999)");
}

TEST(Fenced, exceptions_become_statuses) {
    EXPECT_EQ(fenced("qzfi_split", [] {}), 0);
    EXPECT_EQ(fenced("qzfi_split", [] { throw Failure{1034}; }), 1034);
    EXPECT_EQ(fenced("qzfi_split", [] { throw std::bad_alloc(); }), QFI_STATUS_NO_MEMORY);
    EXPECT_EQ(last_error(), "5 MSG_QFI_E2001: %s: out of memory\n|qzfi_split");
    EXPECT_EQ(fenced("qzfi_split", [] { throw std::out_of_range("at"); }), QFI_STATUS_INTERNAL);
    EXPECT_EQ(last_error(), "1 MSG_QFI_E2002: %s: internal error: %s\n|qzfi_split|at");
}

TEST(OpenBeneath, links_and_ways_out_are_refused) {
    const Folder folder;
    std::filesystem::create_directories(folder.path() + "/a/b");
    std::filesystem::create_symlink("a", folder.path() + "/link");
    const Descriptor at(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY));

    const Descriptor inner(open_beneath(at.get(), "a/b", O_RDONLY | O_DIRECTORY));
    EXPECT_TRUE(inner);
    EXPECT_EQ(fcntl(inner.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(open_beneath(at.get(), "link/b", O_RDONLY), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(open_beneath(at.get(), "a/../..", O_RDONLY), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(open_beneath(at.get(), "/etc", O_RDONLY), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(open_beneath(at.get(), "none", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(OpenBeneath, a_file_that_somebody_has_a_lease_of_is_waited_for_without_spinning) {
    const Folder folder;
    const std::string path = folder.path() + "/file";
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        sigset_t wanted;
        sigemptyset(&wanted);
        sigaddset(&wanted, SIGIO);
        sigprocmask(SIG_BLOCK, &wanted, nullptr);
        const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const bool is_held = fcntl(file, F_SETLEASE, F_WRLCK) == 0;
        if (write(ends[1], is_held ? "1" : "0", 1) != 1)
            _exit(1);
        int signal = 0;
        sigwait(&wanted, &signal);
        usleep(200'000);
        fcntl(file, F_SETLEASE, F_UNLCK);
        _exit(0);
    }
    char is_held = '0';
    EXPECT_EQ(read(ends[0], &is_held, 1), 1);
    close(ends[0]);
    close(ends[1]);
    if (is_held == '1') {
        const Descriptor at(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY));
        rusage before{}, after{};
        getrusage(RUSAGE_THREAD, &before);
        EXPECT_TRUE(Descriptor(open_beneath(at.get(), "file", O_RDONLY)));
        getrusage(RUSAGE_THREAD, &after);
        EXPECT_GT(after.ru_nvcsw, before.ru_nvcsw) << "it sleeps meanwhile";
    } else {
        kill(holder, SIGKILL);
    }
    waitpid(holder, nullptr, 0);
    if (is_held != '1')
        GTEST_SKIP() << "no leases on this file system";
}

TEST(OpenBeneath, a_fifo_does_not_block) {
    const Folder folder;
    ASSERT_EQ(mkfifo((folder.path() + "/fifo").c_str(), 0600), 0);
    const Descriptor at(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY));

    EXPECT_TRUE(Descriptor(open_beneath(at.get(), "fifo", O_RDONLY)));
}

TEST(StaysBelow, only_names_do) {
    for (const char *const path : {"", "a", "a/b", "...", "a/..b", ".a/b."})
        EXPECT_TRUE(stays_below(path)) << path;
    for (const char *const path : {"/", "/a", "a/", "a//b", ".", "..", "a/..", "../a", "a/./b"})
        EXPECT_FALSE(stays_below(path)) << path;
}

TEST(LiesBelow, whole_names_count) {
    for (const auto &[path, folder] : {std::pair("/a/b", "/a"), {"/a", "/"}, {"/a/b/c", "/a"}, {"a/b", "a"}, {"a", ""}})
        EXPECT_TRUE(lies_below(path, folder)) << path << " " << folder;
    for (const auto &[path, folder] :
         {std::pair("/a", "/a"), {"/ab", "/a"}, {"/", "/"}, {"/a", "/a/b"}, {"/b/a", "/a"}})
        EXPECT_FALSE(lies_below(path, folder)) << path << " " << folder;
    EXPECT_TRUE(lies_at_or_below("/a", "/a"));
    EXPECT_TRUE(lies_at_or_below("/", "/"));
    EXPECT_FALSE(lies_at_or_below("/ab", "/a"));
}

TEST(TimeOf, nanoseconds_count_on_also_before_1970) {
    const qfi_time_t start = time_of(0), before = time_of(-1), earlier = time_of(-1'000'000'000);
    EXPECT_EQ(start.qzfi_nsec, 0u);
    EXPECT_EQ(before.qzfi_sec, start.qzfi_sec - 1);
    EXPECT_EQ(before.qzfi_nsec, 999'999'999u);
    EXPECT_EQ(earlier.qzfi_sec, start.qzfi_sec - 1);
    EXPECT_EQ(earlier.qzfi_nsec, 0u);
    EXPECT_EQ(time_of(1'500'000'001).qzfi_sec, start.qzfi_sec + 1);
    EXPECT_EQ(time_of(1'500'000'001).qzfi_nsec, 500'000'001u);
}

TEST(Descriptor, closing_keeps_errno) {
    Descriptor file(open("/dev/null", O_RDONLY));
    const int number = file.get();
    errno = ENOSPC;
    file.reset(-1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

TEST(InstallationRoot, a_root_that_was_set_goes_before_the_fixed_one) {
    ASSERT_EQ(qzfi_set_install_root("/tmp/root"), 0);
    EXPECT_EQ(installation_root(), "/tmp/root");
}

TEST(Block, a_record_and_all_that_it_points_at_are_one_block) {
    auto *const entry = static_cast<qfi_diff_entry *>(Block::build([](Block &block) {
        auto *const made = block.array<qfi_diff_entry>(1);
        const char *const object = block.text("/object");
        const char *const path = block.text("");
        if (block.measuring())
            return;
        made->object = object;
        made->path = path;
    }));
    EXPECT_STREQ(entry->object, "/object");
    EXPECT_STREQ(entry->path, "");
    EXPECT_EQ(entry->old_size, 0u);
    free(entry);
}

namespace {

struct Host {
    qfi_progress_handler progress{};
    qfi_handler handler{};
    std::vector<std::string> told;
    int32_t answer = 0;
};
Host *current_host = nullptr;

int32_t take(qfi_progress_handler *, const qfi_progress *progress) {
    current_host->told.push_back(std::string(progress->operation) + " " + progress->object + " " +
                                 std::to_string(progress->entries_done) + "/" +
                                 std::to_string(progress->entries_total) + " " + std::to_string(progress->bytes_done) +
                                 "/" + std::to_string(progress->bytes_total));
    return current_host->answer;
}

class ProgressTest : public testing::Test {
protected:
    ProgressTest() {
        host.progress.size = sizeof host.progress;
        host.progress.progress = take;
        host.handler.reserved1 = &host.progress;
        current_host = &host;
        set_host(&host.handler);
    }
    ~ProgressTest() override { set_host(nullptr); }
    Host host;
};

} // namespace

TEST_F(ProgressTest, the_first_and_the_last_are_told_and_many_between_are_not) {
    Progress progress("qzfi_split", "/home");
    progress.totals(3, 30);
    for (int step = 0; step < 3; ++step)
        EXPECT_EQ(progress.advance(1, 10), 0);
    progress.finish();

    ASSERT_GE(host.told.size(), 2u);
    EXPECT_EQ(host.told.front(), "split /home 1/3 10/30");
    EXPECT_EQ(host.told.back(), "split /home 3/3 30/30");
    EXPECT_EQ(progress.counts().bytes_done, 30u);
}

TEST_F(ProgressTest, a_host_that_cancels_is_obeyed_from_then_on) {
    host.answer = 1;
    Progress progress("qzfi_split", "/home");
    EXPECT_EQ(progress.set(1, 1), QFI_FI_CANCELLED);
    EXPECT_EQ(progress.advance(1, 1), QFI_FI_CANCELLED);
    EXPECT_TRUE(progress.cancelled());
}

TEST_F(ProgressTest, hosts_without_a_usable_handler_are_left_alone) {
    host.progress.size = 4;
    Progress small("qzfi_split", "/home");
    EXPECT_EQ(small.advance(1, 1), 0);
    host.handler.reserved1 = nullptr;
    small.finish();
    set_host(nullptr);
    small.finish();
    EXPECT_TRUE(host.told.empty());
}

TEST_F(ProgressTest, threads_tell_together_and_nothing_is_lost) {
    Progress progress("qzfi_split", "/home");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            for (int step = 0; step < 10'000; ++step)
                progress.advance(1, 2);
        });
    for (std::thread &thread : threads)
        thread.join();
    progress.finish();
    EXPECT_EQ(host.told.back(), "split /home 40000/0 80000/0");
}
