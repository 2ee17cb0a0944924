#include "log/log_support.h"
#include "support/fault.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using namespace log_support;

const std::string unset_header = "Begin QzFI Session...\nLogmask set to 0x0\nCurrent Environment Variables\n"
                                 "QFI_ROOT = NULL\nQFI_API_LIB = NULL\nQFI_DIR = NULL\nQFI_UTIL_LIB = NULL\n";

class LogFile : public testing::Test {
protected:
    uint32_t open_log() { return init_qzfi_logFile(installation.root().c_str()); }
    static std::size_t open_descriptors() {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
    }

    static std::string name_of_log() { return qzfi_checkNull(get_qzfi_logfile()); }

    FreshLog fresh;
    Installation installation;
};

/// A root below a scratch directory, of a given length; nothing below it exists.
std::string root_of_length(const ScratchDir &scratch, std::size_t length) {
    std::string root = scratch.path();
    root += '/';
    root.append(length - root.size(), 'r');
    return root;
}

// Stands first: only the first log file of a process needs memory for a stream.
TEST_F(LogFile, without_memory_for_a_stream_leaves_its_name_and_the_mask_but_no_file) {
    installation.configure("debug_level=INFO\n");
    const std::size_t descriptors = open_descriptors();
    fault::for_each(fault::Call::fopen, [&](fault::Trial &trial) {
        trial.arm();
        const uint32_t mask = open_log();
        trial.disarm();
        if (!trial.fired()) {
            EXPECT_EQ(content_of(name_of_log()), unset_header);
            return;
        }
        const bool is_config = trial.nth() == 1;
        EXPECT_EQ(mask, is_config ? 0u : 0x100u);
        EXPECT_EQ(get_qzfi_logfile() == nullptr, is_config);
        EXPECT_EQ(get_qzfi_msgout(), nullptr);
        EXPECT_TRUE(installation.log_files().empty());
        EXPECT_EQ(open_descriptors(), descriptors);
        set_qzfi_logfile(nullptr);
    });
}

TEST_F(LogFile, opening_writes_the_header_and_flushes_it) {
    installation.configure("debug_level=INFO\n");
    EXPECT_EQ(open_log(), 0x100u);
    ASSERT_EQ(installation.log_files().size(), 1u);
    EXPECT_EQ(content_of(installation.log_files()[0]), unset_header);
    EXPECT_EQ(name_of_log(), installation.log_files()[0].string());
    EXPECT_NE(get_qzfi_msgout(), nullptr);
}

TEST_F(LogFile, the_header_shows_the_mask_held_before_and_leaves_it) {
    installation.configure("debug_level=INFO\n");
    set_qzfi_debuglevel(0x7f00);
    open_log();
    EXPECT_EQ(get_qzfi_debuglevel(), 0x7f00u);
    EXPECT_EQ(content_of(get_qzfi_logfile()),
              "Begin QzFI Session...\nLogmask set to 0x7f00\nCurrent Environment Variables\n"
              "QFI_ROOT = NULL\nQFI_API_LIB = NULL\nQFI_DIR = NULL\nQFI_UTIL_LIB = NULL\n");
}

TEST_F(LogFile, the_header_shows_the_environment) {
    installation.configure("debug_level=INFO\n");
    setenv("QFI_ROOT", "/r", 1);
    setenv("QFI_API_LIB", "", 1);
    setenv("QFI_DIR", "%s%n", 1);
    setenv("QFI_UTIL_LIB", "u v", 1);
    open_log();
    EXPECT_EQ(content_of(get_qzfi_logfile()),
              "Begin QzFI Session...\nLogmask set to 0x0\nCurrent Environment Variables\n"
              "QFI_ROOT = /r\nQFI_API_LIB = \nQFI_DIR = %s%n\nQFI_UTIL_LIB = u v\n");
}

TEST_F(LogFile, its_name_is_the_prefix_a_unique_part_and_the_suffix) {
    installation.configure("debug_level=INFO\n");
    open_log();
    const std::string name = fs::path(get_qzfi_logfile()).filename();
    EXPECT_EQ(name.substr(0, 5), "QzFI-");
    EXPECT_EQ(name.size(), 5u + 6 + 4);
    EXPECT_EQ(name.substr(11), ".log");
}

TEST_F(LogFile, it_is_created_with_the_permissions_that_the_umask_leaves) {
    installation.configure("debug_level=INFO\n");
    const mode_t before = umask(027);
    open_log();
    umask(before);
    struct stat status;
    ASSERT_EQ(stat(get_qzfi_logfile(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0640u);
}

TEST_F(LogFile, its_stream_can_be_read_back_and_is_closed_by_exec) {
    installation.configure("debug_level=INFO\n");
    open_log();
    FILE *log = get_qzfi_msgout();
    ASSERT_NE(log, nullptr);
    rewind(log);
    char line[64];
    EXPECT_STREQ(fgets(line, sizeof line, log), "Begin QzFI Session...\n");
    EXPECT_EQ(fcntl(fileno(log), F_GETFD), FD_CLOEXEC);
}

TEST_F(LogFile, the_temporary_directory_variable_goes_first) {
    installation.configure("debug_level=INFO\n");
    const ScratchDir other;
    setenv("TMPDIR", other.path().c_str(), 1);
    EXPECT_EQ(open_log(), 0x100u);
    unsetenv("TMPDIR");
    EXPECT_EQ(fs::path(get_qzfi_logfile()).parent_path(), other.path());
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header);
    EXPECT_TRUE(installation.log_files().empty());
}

TEST_F(LogFile, without_a_log_directory_it_lands_in_the_systems_own) {
    installation.configure("debug_level=INFO\n");
    fs::remove_all(installation.log_directory());
    EXPECT_EQ(open_log(), 0x100u);
    ASSERT_NE(get_qzfi_logfile(), nullptr);
    EXPECT_EQ(fs::path(get_qzfi_logfile()).parent_path(), "/tmp");
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header);
    fs::remove(get_qzfi_logfile());
}

TEST_F(LogFile, stays_open_for_those_who_hold_its_stream_and_leads_to_the_newest_file) {
    installation.configure("debug_level=INFO\n");
    open_log();
    FILE *const held = get_qzfi_msgout();
    ASSERT_NE(held, nullptr);
    const std::string first = get_qzfi_logfile();
    fputs("not flushed", held);
    open_log();
    EXPECT_EQ(content_of(first), unset_header + "not flushed");
    fputs("held", held);
    EXPECT_EQ(fflush(held), 0);
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header + "held");
    EXPECT_EQ(fcntl(fileno(held), F_GETFD), FD_CLOEXEC);
}

TEST_F(LogFile, begins_at_its_start_whatever_was_read_from_the_former_one) {
    installation.configure("debug_level=INFO\n");
    open_log();
    FILE *const log = get_qzfi_msgout();
    ASSERT_NE(log, nullptr);
    rewind(log);
    EXPECT_EQ(fgetc(log), 'B');
    open_log();
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header);
}

TEST_F(LogFile, holds_nothing_that_its_former_file_refused) {
    installation.configure("debug_level=INFO\n");
    open_log();
    FILE *const log = get_qzfi_msgout();
    ASSERT_NE(log, nullptr);
    const int full = open("/dev/full", O_WRONLY);
    ASSERT_EQ(dup2(full, fileno(log)), fileno(log));
    close(full);
    EXPECT_EQ(qzfi_logmsg("refused", 0, 0), EOF);
    open_log();
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header);
    EXPECT_EQ(ferror(log), 0);
}

TEST_F(LogFile, that_its_stream_cannot_be_turned_to_is_removed) {
    installation.configure("debug_level=INFO\n");
    int spare[4];
    for (int &fd : spare)
        fd = dup(STDIN_FILENO);
    open_log();
    for (const int fd : spare)
        close(fd);
    FILE *const held = get_qzfi_msgout();
    ASSERT_NE(held, nullptr);
    if (fileno(held) < spare[3])
        GTEST_SKIP() << "an earlier test of this process made the stream, below the spare descriptors";
    const std::string first = get_qzfi_logfile();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    // Descriptors below the stream's are to be had, the stream's own number is not.
    const rlimit below_the_stream{static_cast<rlim_t>(fileno(held)), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &below_the_stream), 0);
    const uint32_t mask = open_log();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(mask, 0x100u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_NE(name_of_log(), first);
    EXPECT_EQ(installation.log_files(), std::vector<fs::path>{first});
    fputs("held", held);
    EXPECT_EQ(fflush(held), 0);
    EXPECT_EQ(content_of(first), unset_header + "held");
}

TEST_F(LogFile, a_second_opening_releases_what_the_first_made) {
    installation.configure("debug_level=INFO\n");
    open_log();
    const std::string first = get_qzfi_logfile();
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(open_log(), 0x100u);
    EXPECT_NE(name_of_log(), first);
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header);
    EXPECT_EQ(content_of(first), unset_header);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(installation.log_files().size(), 2u);
}

TEST_F(LogFile, what_the_setters_gave_is_not_released) {
    installation.configure("debug_level=INFO\n");
    open_log();
    const std::size_t descriptors = open_descriptors();
    FILE *mine = tmpfile();
    char path[] = "mine";
    set_qzfi_msgout(mine);
    set_qzfi_logfile(path);
    EXPECT_EQ(get_qzfi_msgout(), mine);
    EXPECT_EQ(get_qzfi_logfile(), path);
    open_log();
    EXPECT_NE(get_qzfi_msgout(), mine);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    EXPECT_STREQ(path, "mine");
    EXPECT_EQ(fputs("still open", mine), 1);
    EXPECT_EQ(fclose(mine), 0);
}

TEST_F(LogFile, a_run_that_opens_nothing_leaves_the_log_as_it_is) {
    installation.configure("debug_level=INFO\n");
    open_log();
    FILE *const log = get_qzfi_msgout();
    char *const path = get_qzfi_logfile();
    installation.configure("debug_level=\n");
    EXPECT_EQ(open_log(), 0u);
    EXPECT_EQ(init_qzfi_logFile(nullptr), 0u);
    EXPECT_EQ(get_qzfi_msgout(), log);
    EXPECT_EQ(get_qzfi_logfile(), path);
    EXPECT_EQ(qzfi_logmsg("more\n", 0, 0), 0);
    EXPECT_EQ(content_of(path), unset_header + "more\n");
}

TEST_F(LogFile, paths_are_cut_at_249_characters) {
    const ScratchDir scratch;
    const std::string root = root_of_length(scratch, 240);
    write_file(root + "/lib/.qzm", "debug_level=INFO\n"); // what 249 characters leave of the configuration's name
    fs::create_directories(root + "/arcvault");           // and of the log directory's
    EXPECT_EQ(init_qzfi_logFile(root.c_str()), 0x100u);
    // The log file's name is cut to that of the directory, which cannot be opened as a new file.
    EXPECT_EQ(name_of_log(), root + "/arcvault");
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
}

TEST_F(LogFile, a_root_of_any_length_is_safe) {
    EXPECT_EQ(init_qzfi_logFile(std::string(100000, '/').c_str()), 0u);
    EXPECT_EQ(init_qzfi_logFile(""), 0u);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
}

/// An installation whose log file name is cut to its fixed part, so that it can be known beforehand.
class GuessableLogFile : public LogFile {
protected:
    GuessableLogFile() : root(root_of_length(scratch, 249 - 6 - 23)) {
        write_file(root + "/lib/.qzms.rc", "debug_level=INFO\n");
        fs::create_directories(root + "/arcvault/logs/fisagent");
        name = root + "/arcvault/logs/fisagent/QzFI-";
    }
    ScratchDir scratch;
    std::string root;
    std::string name;
};

TEST_F(GuessableLogFile, is_used_when_it_is_free) {
    EXPECT_EQ(init_qzfi_logFile(root.c_str()), 0x100u);
    EXPECT_EQ(name_of_log(), name);
    EXPECT_EQ(content_of(name), unset_header);
}

TEST_F(GuessableLogFile, is_never_opened_through_a_planted_link) {
    write_file(scratch.path() / "victim", "precious");
    fs::create_symlink(scratch.path() / "victim", name);
    EXPECT_EQ(init_qzfi_logFile(root.c_str()), 0x100u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(name_of_log(), name);
    EXPECT_EQ(content_of(scratch.path() / "victim"), "precious");
    EXPECT_EQ(qzfi_logmsg("nowhere", 0, 0), 0);
}

TEST_F(GuessableLogFile, is_not_created_through_a_dangling_link) {
    fs::create_symlink(scratch.path() / "planted", name);
    EXPECT_EQ(init_qzfi_logFile(root.c_str()), 0x100u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_FALSE(fs::exists(scratch.path() / "planted"));
}

TEST_F(GuessableLogFile, is_not_truncated_when_it_exists) {
    write_file(name, "older");
    EXPECT_EQ(init_qzfi_logFile(root.c_str()), 0x100u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(content_of(name), "older");
}

TEST_F(GuessableLogFile, that_is_taken_has_no_name_once_names_run_out) {
    write_file(name, "older");
    fault::for_each(fault::Call::tempnam, [&](fault::Trial &trial) {
        set_qzfi_msgout(nullptr);
        trial.arm();
        const uint32_t mask = init_qzfi_logFile(root.c_str());
        trial.disarm();
        EXPECT_EQ(mask, trial.fired() ? 0u : 0x100u);
        EXPECT_EQ(get_qzfi_msgout(), nullptr);
        EXPECT_EQ(name_of_log(), trial.fired() ? "NULL" : name);
        EXPECT_LE(trial.nth(), 17);
    });
}

TEST_F(LogFile, another_name_is_taken_when_the_first_is_taken_meanwhile) {
    installation.configure("debug_level=INFO\n");
    const fault::Armed second_open(fault::Call::open, 2, {.error = EEXIST});
    EXPECT_EQ(open_log(), 0x100u);
    EXPECT_TRUE(fault::Armed::fired());
    ASSERT_NE(get_qzfi_logfile(), nullptr);
    EXPECT_NE(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(content_of(get_qzfi_logfile()), unset_header);
    EXPECT_EQ(installation.log_files().size(), 1u);
}

TEST_F(LogFile, without_memory_for_its_path_has_no_name_and_is_not_made) {
    installation.configure("debug_level=INFO\n");
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        const std::size_t files = installation.log_files().size();
        set_qzfi_msgout(nullptr);
        trial.arm();
        const uint32_t mask = open_log();
        trial.disarm();
        EXPECT_EQ(mask, trial.fired() ? 0u : 0x100u);
        EXPECT_EQ(get_qzfi_logfile() == nullptr, trial.fired());
        EXPECT_EQ(get_qzfi_msgout() == nullptr, trial.fired());
        EXPECT_EQ(installation.log_files().size(), files + (trial.fired() ? 0 : 1));
    });
}

TEST_F(LogFile, an_earlier_log_survives_without_a_name_when_memory_is_short) {
    installation.configure("debug_level=INFO\n");
    open_log();
    FILE *const log = get_qzfi_msgout();
    const std::string path = get_qzfi_logfile();
    {
        const fault::Armed short_memory(fault::Call::allocation, 1);
        EXPECT_EQ(open_log(), 0u);
    }
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
    EXPECT_EQ(get_qzfi_msgout(), log);
    EXPECT_EQ(qzfi_logmsg("more\n", 0, 0), 0);
    EXPECT_EQ(content_of(path), unset_header + "more\n");
    const std::size_t descriptors = open_descriptors();
    EXPECT_EQ(open_log(), 0x100u);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(LogFile, that_cannot_be_opened_leaves_its_name_and_the_mask_but_no_stream) {
    installation.configure("debug_level=INFO\n");
    fault::for_each(fault::Call::open, [&](fault::Trial &trial) {
        open_log();
        const std::string former = get_qzfi_logfile();
        FILE *const former_log = get_qzfi_msgout();
        const std::size_t files = installation.log_files().size();
        const std::size_t descriptors = open_descriptors();
        trial.arm();
        const uint32_t mask = open_log();
        trial.disarm();
        if (trial.fired() && trial.nth() == 1) { // the configuration's call
            EXPECT_EQ(mask, 0u);
            EXPECT_EQ(name_of_log(), former);
            EXPECT_EQ(get_qzfi_msgout(), former_log);
            EXPECT_EQ(open_descriptors(), descriptors);
            return;
        }
        EXPECT_EQ(mask, 0x100u);
        EXPECT_NE(name_of_log(), former);
        EXPECT_EQ(get_qzfi_msgout() == nullptr, trial.fired());
        EXPECT_EQ(fs::exists(get_qzfi_logfile()), !trial.fired());
        EXPECT_EQ(installation.log_files().size(), files + (trial.fired() ? 0 : 1));
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(content_of(get_qzfi_logfile()), trial.fired() ? "" : unset_header);
    });
}

TEST_F(LogFile, a_name_that_cannot_be_made_leaves_the_path_null) {
    installation.configure("debug_level=INFO\n");
    const fault::Armed no_name(fault::Call::tempnam, 1);
    EXPECT_EQ(open_log(), 0u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
    EXPECT_TRUE(installation.log_files().empty());
}

TEST_F(LogFile, in_a_refused_directory_is_tried_once_and_leaves_its_name_and_the_mask) {
    installation.configure("debug_level=INFO\n");
    const fault::Armed refused(fault::Call::open, 2, {.error = EACCES, .from_then_on = true});
    EXPECT_EQ(open_log(), 0x100u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_NE(get_qzfi_logfile(), nullptr);
    EXPECT_TRUE(installation.log_files().empty());
}

TEST_F(LogFile, a_configuration_that_cannot_be_examined_is_none) {
    installation.configure("debug_level=INFO\n");
    const std::size_t descriptors = open_descriptors();
    const fault::Armed refused(fault::Call::stat, 1);
    EXPECT_EQ(open_log(), 0u);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
