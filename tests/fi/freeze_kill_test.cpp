// Freezes that are killed before each of their calls that change something: earlier images stay, the new one is there
// whole or not at all, what is left goes, and a pre command that was begun is followed by its post command.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "earlier_image.h"
#include "traced_process.h"

namespace images {
namespace {

class FreezeKill : public EarlierImage {
protected:
    void SetUp() override {
        if (const auto obstacle = traced::obstacle())
            GTEST_SKIP() << *obstacle;
        EarlierImage::SetUp();
    }

    // Looks after a killed host, in a host of its own; what was made goes again. Gives the number of new images.
    int look_after(bool with_repair) const {
        const Framework framework(top / "root");
        std::set<std::string> ids = expect_whole();
        const int found = static_cast<int>(ids.size()) - 1;
        if (with_repair)
            EXPECT_EQ(repair(), 0) << last_error();
        else
            ids.insert(freeze({object}, store, method()).image_id());
        EXPECT_EQ(folders(), ids);
        remove_others();
        return found;
    }

    // Kills the first, or second, and every further step of that kind.
    void kill_each(int first, bool with_repair) const {
        int news = 0, olds = 0;
        for (int step = first;; step += 2) {
            const traced::Outcome outcome = traced::run({step, 0, traced::changes_something, false}, [&] {
                const Framework framework(top / "root");
                _exit(make("", "", traced::begin) == 0 ? 0 : 1);
            });
            if (!outcome.was_reached) {
                EXPECT_EQ(outcome.exit_code, 0);
                break;
            }
            ASSERT_EQ(outcome.exit_code, -SIGKILL);
            constexpr int none = 10, one = 11;
            const int code = in_child([&] {
                const int found = look_after(with_repair);
                fflush(stdout);
                _exit(HasFailure() ? 1 : none + found);
            });
            ASSERT_TRUE(code == none || code == one)
                << "step " << step << ": call " << outcome.call.number << " of " << outcome.path;
            (code == one ? news : olds) += 1;
        }
        EXPECT_GE(olds, 20);
        EXPECT_GE(news, 1);
    }

    std::string log(int step) const { return top / ("log-" + std::to_string(step)); }
    std::string said(int step) const { return fs::exists(log(step)) ? content_of(log(step)) : ""; }
    std::string note(int step, const std::string &word) const { return "echo " + word + " >>" + log(step); }

    // Folders without a guard go with the next freeze that needs one, unless they are so new that theirs may come.
    void expect_next_freeze_to_remove_idle_folders() const {
        const fs::path young = top / "tmp" / "qzfi-guard-young", old = top / "tmp" / "qzfi-guard-older",
                       held = top / "tmp" / "qzfi-guard-held.";
        for (const fs::path &folder : {young, old, held}) {
            ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
            ASSERT_EQ(mkfifo((folder / "in").c_str(), 0600), 0);
        }
        for (const fs::directory_entry &entry : fs::directory_iterator(top / "tmp"))
            if (entry.path() != young)
                fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::minutes(2));
        const int host = open((held / "in").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_EQ(in_child([&] {
                      const Framework framework(top / "root");
                      EXPECT_EQ(make("", "true", [] {}), 0) << last_error();
                      remove_others();
                  }),
                  0);
        close(host);
        std::set<fs::path> left;
        for (const fs::directory_entry &entry : fs::directory_iterator(top / "tmp"))
            left.insert(entry.path());
        EXPECT_EQ(left, (std::set<fs::path>{young, held}));
    }

    // Guards that have begun; gives the number of folders that were made for one that never did.
    int wait_for_guards() const {
        int idle = 0, waiting = 1;
        for (int tries = 0; tries < 6000 && waiting != 0; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(tries == 0 ? 0 : 10));
            idle = waiting = 0;
            for (const fs::directory_entry &entry : fs::directory_iterator(top / "tmp"))
                (fs::exists(entry.path() / "text") ? waiting : idle) += 1;
        }
        EXPECT_EQ(waiting, 0);
        return idle;
    }
};
INSTANTIATE_TEST_SUITE_P(On, FreezeKill, testing::Values("copy", "xfs", "btrfs"), name_of);

TEST_P(FreezeKill, before_any_change_leaves_whole_images_and_the_next_freeze_removes_the_rest) {
    kill_each(1, false);
}

TEST_P(FreezeKill, before_any_change_leaves_whole_images_and_a_repair_removes_the_rest) {
    kill_each(2, true);
}

using CommandsKill = FreezeKill;
INSTANTIATE_TEST_SUITE_P(On, CommandsKill, testing::Values("copy"), name_of);

// The commands do not depend on the method. The context process pauses before each of them, so few steps do, unless
// QZFI_TEST_LONG asks for more.
int stride(int usual) {
    return getenv("QZFI_TEST_LONG") != nullptr ? 3 : usual;
}

TEST_P(CommandsKill, before_a_change_lets_the_post_command_run_once_after_the_pre_command) {
    const int each = stride(23);
    int steps = 0;
    for (int step = 1;; step += each) {
        const traced::Outcome outcome = traced::run({step, 0, traced::changes_something, false}, [&] {
            const Framework framework(top / "root");
            _exit(make(note(step, "pre"), note(step, "post"), traced::begin) == 0 ? 0 : 1);
        });
        steps = step;
        if (!outcome.was_reached)
            break;
        ASSERT_EQ(outcome.exit_code, -SIGKILL);
    }
    const int idle = wait_for_guards();
    int silent = 0, without_pre = 0, with_pre = 0;
    for (int step = 1; step < steps; step += each) {
        const std::string words = said(step);
        EXPECT_TRUE(words == "" || words == "post\n" || words == "pre\npost\n") << "step " << step << ": " << words;
        silent += words.empty() ? 1 : 0;
        (words == "pre\npost\n" ? with_pre : without_pre) += 1;
    }
    EXPECT_EQ(said(steps), "pre\npost\n");
    EXPECT_LE(idle, silent) << "only a host that was killed before it had its guard leaves a folder behind";
    expect_next_freeze_to_remove_idle_folders();
    EXPECT_GE(without_pre, 1);
    EXPECT_GE(with_pre, 2);
}

TEST_P(CommandsKill, of_any_child_process_of_the_host_lets_the_post_command_run_after_the_pre_command) {
    const int each = stride(37);
    const fs::path told = top / "told";
    int steps = 0, done = 0;
    for (int step = 1;; step += each) {
        const traced::Outcome outcome = traced::run({step, 0, traced::changes_something, true}, [&] {
            const Framework framework(top / "root");
            const int32_t status = make(note(step, "pre"), note(step, "post"), traced::begin);
            write_file(told, std::to_string(status) + " " + last_error());
            const std::vector<int32_t> expected{0, QFI_FI_PRE_COMMAND, QFI_FI_POST_COMMAND, QFI_FI_NO_METHOD};
            _exit(static_cast<int>(std::find(expected.begin(), expected.end(), status) - expected.begin()));
        });
        steps = step;
        EXPECT_GE(outcome.exit_code, 0) << "the host itself lives";
        EXPECT_LE(outcome.exit_code, 3) << "step " << step << ": call " << outcome.call.number << " of " << outcome.path
                                        << ": " << content_of(told);
        const std::string words = said(step);
        if (outcome.exit_code == 3) { // a plugin whose trial was ended is refused
            EXPECT_EQ(content_of(told) + words, "1026 qzfi_make: no provider offers the method copy\n");
        }
        const bool has_pre = words.rfind("pre\n", 0) == 0;
        // A guard that was ended may have run it: better twice than not at all.
        EXPECT_TRUE(!has_pre || words == "pre\npost\n" || words == "pre\npost\npost\n" || outcome.exit_code == 2)
            << "step " << step << ": " << words;
        done += outcome.exit_code == 0 ? 1 : 0;
        if (!outcome.was_reached)
            break;
    }
    EXPECT_GE(steps, 20);
    EXPECT_GE(done, 1);
    EXPECT_EQ(in_child([&] { look_after(true); }), 0);
}

} // namespace
} // namespace images
