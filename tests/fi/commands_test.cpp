// Pre and post commands: whatever happens between them, and to the process that ran the first, the second one runs.
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <qzfi_provider.h>

#include "host.h"

namespace {

class Commands : public Host {
protected:
    void SetUp() override {
        Host::SetUp();
        object_ = make_object("object");
    }

    // Appends a word to the log when it runs.
    std::string note(const std::string &word) const { return "echo " + word + " >>" + path("log"); }
    std::string log() const { return read_file(path("log")); }

    qfi_domain *selected(const std::string &pre, const std::string &post) const {
        qfi_domain *const tree = tree_of({object_});
        EXPECT_EQ(qfi_op_config(tree, "pre_command", 0, pre.c_str()), 0);
        EXPECT_EQ(qfi_op_config(tree, "post_command", 0, post.c_str()), 0);
        EXPECT_EQ(qfi_op_select(tree, nullptr, "copy", nullptr), 0) << last_error();
        return tree;
    }
    qfi_domain *prepared(const std::string &pre, const std::string &post) const {
        qfi_domain *const tree = selected(pre, post);
        EXPECT_EQ(qfi_op_prepare(tree, 0, nullptr, nullptr), 0) << last_error();
        return tree;
    }
    std::vector<std::string> images() const { return names_in(copy_store() + "/images"); }

    // Runs a host in a process of its own, which then kills itself.
    void in_killed_process(const std::function<void()> &work) {
        stop();
        const pid_t child = fork();
        if (child == 0) {
            start();
            work();
            kill(getpid(), SIGKILL);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status));
        start();
    }

    // What other processes do is waited for as long as it takes, within reason.
    void wait_for_log(const std::string &content) const {
        for (int tries = 0; tries < 6000 && log() != content; ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(log(), content);
    }
    // No guard is left when its folder is gone.
    void wait_for_no_guards() const {
        for (int tries = 0; tries < 6000 && !names_in(path("tmp")).empty(); ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_TRUE(names_in(path("tmp")).empty());
    }

    std::string object_;
};

TEST_F(Commands, run_before_and_after_the_instant) {
    qfi_domain *const tree = prepared(note("pre"), note("post"));
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    EXPECT_EQ(log(), "pre\n");
    ASSERT_EQ(qfi_op_split(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(log(), "pre\n");
    ASSERT_EQ(qfi_op_unquiesce(tree), 0) << last_error();
    EXPECT_EQ(log(), "pre\npost\n");
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
    EXPECT_EQ(log(), "pre\npost\n") << "once";
    EXPECT_TRUE(names_in(path("tmp")).empty());
}

TEST_F(Commands, run_both_in_the_folder_of_the_host) {
    stop(); // the context process stands where the host stood when it was made
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::create_directory(path("app 'x'"));
    std::filesystem::current_path(path("app 'x'"));
    start();
    qfi_domain *const tree = selected("echo pre >>here", "echo post >>here");
    EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(read_file(path("app 'x'/here")), "pre\npost\n");
    EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0);
    std::filesystem::current_path(before);
}

TEST_F(Commands, a_failed_pre_command_freezes_nothing_says_what_it_said_and_the_post_command_runs) {
    const std::string pre = note("pre") + "; echo 'it'\\''s locked' >&2; exit 3";
    qfi_domain *const tree = selected("", "");
    auto options = sized_record<qfi_freeze_options>();
    const std::string post = note("post");
    options.fim_id = "copy";
    options.pre_command = pre.c_str();
    options.post_command = post.c_str();
    qfi_fiid *fiid = nullptr;
    EXPECT_EQ(qfi_op_make(tree, &options, &fiid), 1030);
    EXPECT_EQ(last_error(), "qzfi_make: pre command \"" + pre + "\" failed with exit code 3: it's locked");
    EXPECT_EQ(fiid, nullptr);
    EXPECT_EQ(log(), "pre\npost\n");
    EXPECT_TRUE(images().empty());
    EXPECT_EQ(qfi_op_unquiesce(tree), 0) << "the post command was run";
    EXPECT_EQ(log(), "pre\npost\n");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, what_they_said_last_begins_with_a_line) {
    std::string numbers;
    for (int number = 35; number < 100; ++number)
        numbers += std::to_string(number) + "\n";
    const std::string line(199, 'b'), character = "\u00e4";
    const std::pair<std::string, std::string> cases[] = {
        {"seq 100; exit 3", numbers + "100"},                           // cut in a line
        {"echo a; echo " + line + "; exit 3", line},                    // cut just before one
        {"printf %s x" + line + "yyy; exit 3", line.substr(2) + "yyy"}, // a line that is longer
        {"printf %s " + character + line + "; exit 3", line},           // cut in a character
        {"printf '%s\\n' c" + line + "; exit 3", line}};
    for (const auto &[command, said] : cases) {
        qfi_domain *const tree = prepared(command, command);
        EXPECT_EQ(qfi_op_quiesce(tree), 1030);
        EXPECT_EQ(last_error(), "qzfi_quiesce: pre command \"" + command + "\" failed with exit code 3: " + said);
        EXPECT_EQ(qfi_op_unquiesce(tree), 1031);
        EXPECT_EQ(last_error(), "qzfi_unquiesce: post command \"" + command + "\" failed with exit code 3: " + said);
        qfi_op_detach(tree, nullptr, 0, nullptr);
    }
}

TEST_F(Commands, a_failed_post_command_is_told_while_the_images_are_there) {
    qfi_domain *const tree = selected("", "echo out of order; exit 9");
    qfi_fiid *fiid = nullptr;
    EXPECT_EQ(qfi_op_make(tree, nullptr, &fiid), 1031);
    EXPECT_EQ(last_error(),
              "qzfi_make: post command \"echo out of order; exit 9\" failed with exit code 9: out of order");
    ASSERT_NE(fiid, nullptr);
    EXPECT_EQ(images().size(), 1u);
    qfi_op_free_fiid(fiid);
    EXPECT_EQ(qfi_op_build_alttree(tree, nullptr, nullptr), 0);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, a_post_command_that_fails_after_a_failed_pre_command_does_not_hide_that_one) {
    qfi_domain *const tree = prepared("exit 1", "exit 2");
    EXPECT_EQ(qfi_op_quiesce(tree), 1030);
    EXPECT_EQ(last_error(), "qzfi_quiesce: pre command \"exit 1\" failed with exit code 1: it said nothing");
    EXPECT_EQ(qfi_op_unquiesce(tree), 1031);
    EXPECT_EQ(last_error(), "qzfi_unquiesce: post command \"exit 2\" failed with exit code 2: it said nothing");
    EXPECT_EQ(qfi_op_unquiesce(tree), 1027);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, a_post_command_that_fails_when_the_tree_is_let_go_of_is_told_and_the_image_stays) {
    qfi_domain *tree = prepared("", "exit 4");
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    ASSERT_EQ(qfi_op_split(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), QFI_FI_POST_COMMAND);
    EXPECT_EQ(last_error(), "qzfi_detach: post command \"exit 4\" failed with exit code 4: it said nothing");
    EXPECT_EQ(images().size(), 1u);
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), QFI_STATUS_INVALID_ARGUMENT) << "it was let go of";
    tree = prepared("", "exit 4");
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), QFI_FI_POST_COMMAND);
    EXPECT_EQ(images().size(), 1u) << "of the first tree";
}

// Texts that the host was told.
std::vector<std::string> told;
void take_text(qfi_handler *, const char *text, const char *, uint32_t) {
    told.emplace_back(text);
}

TEST_F(Commands, a_failed_post_command_is_told_to_the_host_once) {
    stop();
    setenv("ICU_DATA", path("tmp").c_str(), 1); // without it nothing is told
    handler_.error = take_text;
    start();
    const auto told_by = [&](auto &&work) {
        qfi_domain *const tree = prepared("", "exit 4");
        EXPECT_EQ(qfi_op_quiesce(tree), 0) << last_error();
        told.clear();
        work(tree);
        std::vector<std::string> of_it;
        for (const std::string &text : told)
            if (text.find("post command \"exit 4\" failed with exit code 4") != std::string::npos)
                of_it.push_back(text.substr(0, text.find(':')));
        return of_it;
    };
    using Said = std::vector<std::string>;
    EXPECT_EQ(told_by([](qfi_domain *tree) {
                  EXPECT_EQ(qfi_op_split(tree, nullptr, nullptr), 0);
                  EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 1031);
              }),
              Said{"qzfi_detach"});
    EXPECT_EQ(told_by([](qfi_domain *tree) { EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 1031); }),
              Said{"qzfi_detach"});
    EXPECT_EQ(told_by([](qfi_domain *tree) {
                  EXPECT_EQ(qfi_op_unquiesce(tree), 1031);
                  EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
              }),
              Said{"qzfi_unquiesce"});
    EXPECT_EQ(told_by([&](qfi_domain *) { stop(); }), Said{"qzfi_shutdown"});
    unsetenv("ICU_DATA");
    handler_.error = nullptr;
    start();
}

TEST_F(Commands, the_post_command_runs_after_a_failed_split) {
    qfi_domain *const tree = prepared(note("pre"), note("post"));
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    std::filesystem::remove_all(object_);
    EXPECT_EQ(qfi_op_split(tree, nullptr, nullptr), 1025);
    EXPECT_EQ(log(), "pre\npost\n");
    EXPECT_TRUE(images().empty());
    EXPECT_EQ(qfi_op_unquiesce(tree), 0);
    EXPECT_EQ(log(), "pre\npost\n");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, unquiesce_without_a_split_runs_the_post_command_and_unmakes_the_image) {
    qfi_domain *const tree = prepared("", note("post"));
    ASSERT_EQ(qfi_op_quiesce(tree), 0);
    EXPECT_EQ(images().size(), 1u);
    EXPECT_EQ(qfi_op_unquiesce(tree), 0) << last_error();
    EXPECT_EQ(log(), "post\n");
    EXPECT_TRUE(images().empty());
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, a_split_tree_whose_image_is_removed_lets_the_application_go_on_first) {
    qfi_domain *const tree = prepared("", "ls " + copy_store() + "/images | wc -l >>" + path("log"));
    ASSERT_EQ(qfi_op_quiesce(tree), 0);
    ASSERT_EQ(qfi_op_split(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    EXPECT_EQ(log(), "1\n") << "the image was there still";
    EXPECT_TRUE(images().empty());
}

TEST_F(Commands, the_post_command_runs_when_the_tree_is_let_go_of_or_the_library_is_shut_down) {
    qfi_domain *const tree = prepared("", note("detached"));
    ASSERT_EQ(qfi_op_quiesce(tree), 0);
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
    EXPECT_EQ(log(), "detached\n");
    qfi_domain *const other = prepared("", note("shut"));
    ASSERT_EQ(qfi_op_quiesce(other), 0);
    stop();
    EXPECT_EQ(log(), "detached\nshut\n");
    start();
}

TEST_F(Commands, a_command_may_hold_any_text_and_leave_something_running) {
    qfi_domain *const tree =
        prepared("printf '%s\\n' \"a 'quoted' \\$x\" >" + path("log") + "; sleep 600 & echo $! >" + path("pid"), "");
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    EXPECT_EQ(log(), "a 'quoted' $x\n");
    kill(std::stoi(read_file(path("pid"))), SIGKILL);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

struct Canceller : qfi_progress_handler {
    Canceller() : qfi_progress_handler{} {}
    int calls = 0, cancel_at = 0;
};

TEST_F(Commands, cancelling_leaves_nothing_and_runs_the_post_command) {
    stop();
    Canceller canceller;
    canceller.size = sizeof(qfi_progress_handler);
    canceller.cancel_at = 1;
    canceller.progress = [](qfi_progress_handler *self, const qfi_progress *progress) {
        auto *const me = static_cast<Canceller *>(self);
        EXPECT_STREQ(progress->operation, "make");
        return ++me->calls >= me->cancel_at ? 1 : 0;
    };
    handler_.reserved1 = &canceller;
    start();
    qfi_domain *const tree = selected(note("pre"), note("post"));
    EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 1035);
    EXPECT_EQ(last_error(), "qzfi_make: " + object_ + ": cancelled");
    EXPECT_EQ(canceller.calls, 1);
    EXPECT_EQ(log(), "pre\npost\n");
    EXPECT_TRUE(images().empty());
    auto status = sized_record<qfi_operation_status>();
    EXPECT_EQ(qfi_op_get_status(tree, &status), 0);
    EXPECT_EQ(status.status, 1035);
    canceller.cancel_at = 1000;
    EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << "it can be tried again" << last_error();
    EXPECT_EQ(images().size(), 1u);
    EXPECT_GE(canceller.calls, 2);
    qfi_op_detach(tree, nullptr, 0, nullptr);
    stop();
    handler_.reserved1 = nullptr;
    start();
}

TEST_F(Commands, a_process_that_is_killed_after_quiescing_has_its_post_command_run) {
    in_killed_process([&] {
        qfi_domain *const tree = prepared(note("pre"), note("post"));
        EXPECT_EQ(qfi_op_quiesce(tree), 0);
    });
    wait_for_log("pre\npost\n");
    wait_for_no_guards();
}

TEST_F(Commands, a_process_that_is_killed_after_the_split_has_its_post_command_run_and_keeps_the_image) {
    in_killed_process([&] {
        qfi_domain *const tree = prepared(note("pre"), note("post"));
        EXPECT_EQ(qfi_op_quiesce(tree), 0);
        EXPECT_EQ(qfi_op_split(tree, nullptr, nullptr), 0);
    });
    wait_for_log("pre\npost\n");
    wait_for_no_guards();
    ASSERT_EQ(images().size(), 1u);
    qfi_domain *tree = nullptr;
    EXPECT_EQ(qfi_op_reaccess_tree(nullptr, &tree, images()[0].c_str(), nullptr, nullptr, 0), 0) << last_error();
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, a_process_that_is_killed_in_the_middle_of_the_split_leaves_no_image) {
    qfi_progress_handler killer{};
    killer.size = sizeof killer;
    killer.progress = [](qfi_progress_handler *, const qfi_progress *) -> int32_t { return kill(getpid(), SIGKILL); };
    handler_.reserved1 = &killer;
    in_killed_process([&] {
        qfi_domain *const tree = prepared(note("pre"), note("post"));
        EXPECT_EQ(qfi_op_quiesce(tree), 0);
        qfi_op_split(tree, nullptr, nullptr);
        write_file(path("log"), "survived");
    });
    wait_for_log("pre\npost\n");
    wait_for_no_guards();
    EXPECT_EQ(images().size(), 1u) << "what was half-made";
    stop();
    handler_.reserved1 = nullptr;
    start();
    qfi_domain *const tree = selected("", "");
    EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(images().size(), 1u) << "the next freeze removed it";
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Commands, without_a_guard_for_the_post_command_the_pre_command_is_not_run) {
    qfi_domain *const tree = prepared(note("pre"), note("post"));
    setenv("TMPDIR", path("missing").c_str(), 1);
    EXPECT_EQ(qfi_op_quiesce(tree), 1031);
    EXPECT_EQ(last_error(), "qzfi_quiesce: cannot make sure that the post command will run: mkdtemp in " +
                                path("missing") + ": No such file or directory (2)");
    EXPECT_EQ(log(), "");
    EXPECT_TRUE(images().empty());
    setenv("TMPDIR", path("tmp").c_str(), 1);
    EXPECT_EQ(qfi_op_prepare(tree, 0, nullptr, nullptr), 0) << "it can be tried again";
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

// With a program of the test's own in the place of the one that starts the guard.
class Starter : public Commands {
protected:
    void TearDown() override {
        setenv("PATH", usual_.c_str(), 1);
        Commands::TearDown();
    }
    void use(const std::string &script) const {
        std::filesystem::create_directory(path("bin"));
        write_file(path("bin/setsid"), "#!/bin/bash\n" + script + "\n");
        std::filesystem::permissions(path("bin/setsid"), std::filesystem::perms::owner_all);
        setenv("PATH", (path("bin") + ":" + usual_).c_str(), 1);
    }

private:
    const std::string usual_ = getenv("PATH");
};

TEST_F(Starter, that_fails_is_not_waited_for) {
    use("exit 1");
    qfi_domain *const tree = prepared(note("pre"), note("post"));
    EXPECT_EQ(qfi_op_quiesce(tree), 1031);
    EXPECT_EQ(last_error(), "qzfi_quiesce: cannot make sure that the post command will run: the shell that is to wait "
                            "for it did not start");
    EXPECT_EQ(log(), "");
    EXPECT_TRUE(images().empty());
    EXPECT_TRUE(names_in(path("tmp")).empty());
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0) << last_error();
}

TEST_F(Starter, that_is_slow_is_waited_for) {
    use("sleep 3\nexec /usr/bin/setsid \"$@\"");
    qfi_domain *const tree = prepared("", note("post"));
    EXPECT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    EXPECT_EQ(qfi_op_unquiesce(tree), 0) << last_error();
    EXPECT_EQ(log(), "post\n");
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0) << last_error();
}

TEST_F(Commands, a_guard_that_somebody_ended_is_stood_in_for) {
    qfi_domain *const tree = prepared("", note("post"));
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    const std::string folder = names_in(path("tmp")).at(0);
    // Its folder tells it from the guards of others.
    const std::string find = "kill -9 $(grep -lsz '^" + path("tmp") + "/" + folder +
                             "$' /proc/[0-9]*/cmdline | cut -d/ -f3) && touch " + path("ended");
    ASSERT_EQ(std::system(find.c_str()), 0);
    EXPECT_EQ(qfi_op_unquiesce(tree), 0) << last_error();
    EXPECT_EQ(log(), "post\n");
    EXPECT_TRUE(names_in(path("tmp")).empty());
    qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr);
}

TEST_F(Commands, the_post_command_waits_for_a_pre_command_that_outlives_its_process) {
    const std::string pre = note("pre") + "; kill -9 $(cat " + path("host") + "); sleep 1; " + note("still");
    in_killed_process([&] {
        write_file(path("host"), std::to_string(getpid()));
        qfi_domain *const tree = prepared(pre, note("post"));
        qfi_op_quiesce(tree);
    });
    wait_for_log("pre\nstill\npost\n");
    wait_for_no_guards();
}

TEST_F(Commands, the_post_command_that_was_begun_is_run_once_when_the_process_dies_meanwhile) {
    const std::string post = note("post") + "; kill -9 $(cat " + path("host") + "); sleep 1; " + note("ended");
    in_killed_process([&] {
        write_file(path("host"), std::to_string(getpid()));
        qfi_domain *const tree = prepared("", post);
        qfi_op_quiesce(tree);
        qfi_op_unquiesce(tree);
    });
    wait_for_log("post\nended\n");
    wait_for_no_guards();
    EXPECT_EQ(log(), "post\nended\n");
}

TEST_F(Commands, a_child_that_holds_the_processes_files_does_not_hold_up_the_post_command) {
    in_killed_process([&] {
        qfi_domain *const tree = prepared("", note("post"));
        EXPECT_EQ(qfi_op_quiesce(tree), 0);
        if (fork() == 0) {
            write_file(path("child"), std::to_string(getpid()));
            for (;;)
                pause();
        }
        while (read_file(path("child")).empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    wait_for_log("post\n");
    kill(std::stoi(read_file(path("child"))), SIGKILL);
    wait_for_no_guards();
}

TEST_F(Commands, signals_to_the_processes_group_do_not_reach_the_guard) {
    stop();
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        start();
        qfi_domain *const tree = prepared("", note("post"));
        EXPECT_EQ(qfi_op_quiesce(tree), 0);
        for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGKILL})
            kill(0, signal);
        pause();
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    start();
    wait_for_log("post\n");
    wait_for_no_guards();
}

} // namespace
