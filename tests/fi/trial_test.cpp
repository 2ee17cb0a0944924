// Trials of plugins, with a limit that a test can wait for.
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fi/fi_provider_trial.h"

using namespace qzfi::fi;

namespace {

// The program lies in the folder above the plugins'.
class Trial : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "/qzfi-trial-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        top_ = pattern;
        std::filesystem::create_directory(top_ / "plugins");
        std::filesystem::create_symlink(TRIAL_PROGRAM, top_ / trial_program);
    }
    void TearDown() override { std::filesystem::remove_all(top_); }

    std::string plugin(const std::string &name) const {
        const std::string file = "qzfi_provider_" + name + ".so";
        std::filesystem::create_symlink(std::filesystem::path(BAD_PLUGIN_DIRECTORY) / file, top_ / "plugins" / file);
        return top_ / "plugins" / file;
    }

private:
    std::filesystem::path top_;
};

TEST_F(Trial, of_a_plugin_that_hangs_ends_at_the_limit_with_its_process) {
    EXPECT_EQ(failed_trial(plugin("hang_start").c_str(), std::chrono::milliseconds(2000)),
              "did not come back from starting");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "its process is gone, and reaped";
}

TEST_F(Trial, of_a_plugin_that_closes_all_files_and_hangs_ends_at_the_limit) {
    EXPECT_EQ(failed_trial(plugin("hang_closed").c_str(), std::chrono::milliseconds(2000)),
              "did not come back from starting");
}

TEST_F(Trial, gives_the_plugin_no_file_of_the_hosts) {
    const int open_for_all = fcntl(STDIN_FILENO, F_DUPFD, 100);
    ASSERT_GE(open_for_all, 100);
    EXPECT_EQ(failed_trial(plugin("find_files").c_str()), "");
    close(open_for_all);
}

TEST_F(Trial, is_not_confused_by_what_the_plugin_prints) {
    EXPECT_EQ(failed_trial(plugin("talk").c_str()), "");
}

TEST_F(Trial, of_a_good_plugin_gives_no_reason) {
    EXPECT_EQ(failed_trial(plugin("good").c_str()), "");
}

} // namespace
