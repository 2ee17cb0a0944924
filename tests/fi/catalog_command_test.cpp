// SQLite's own command and this library in one catalog: their locks are the same to each other, whoever holds and
// whoever waits.
#include <array>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fi/fi_store_sqlite.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";
const std::string locked = "database is locked";

// The command, as somebody who types into it.
class Command {
public:
    explicit Command(const std::string &database) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            throw Failure{QFI_FI_WRITE};
        child_ = fork();
        if (child_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            dup2(out[1], 2);
            execlp("sqlite3", "sqlite3", "-batch", database.c_str(), nullptr);
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        in_ = in[1];
        out_ = out[0];
        say(".timeout 0");
    }
    ~Command() { quit(); }
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;

    /// What it answers, without the last line end.
    std::string say(const std::string &line) {
        const std::string end = "that was all\n", text = line + "\n.print that was all\n";
        if (in_ < 0 || write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            return "it is gone";
        std::string answer;
        std::array<char, 4096> buffer;
        for (ssize_t size; !answer.ends_with(end) && (size = read(out_, buffer.data(), buffer.size())) > 0;)
            answer.append(buffer.data(), static_cast<std::size_t>(size));
        if (!answer.ends_with(end))
            return "it is gone: " + answer;
        answer.resize(answer.size() - end.size());
        while (answer.ends_with("\n"))
            answer.pop_back();
        return answer;
    }
    bool is_refused(const std::string &line) { return say(line).find(locked) != std::string::npos; }
    // Said in words: a child of this process may have the pipe's end, too.
    void quit() {
        if (in_ >= 0) {
            EXPECT_EQ(write(in_, ".quit\n", 6), 6);
        }
        reap();
    }
    void kill() {
        ::kill(child_, SIGKILL);
        reap();
    }

private:
    void reap() {
        if (child_ > 0)
            waitpid(std::exchange(child_, -1), nullptr, 0);
        for (int *const end : {&in_, &out_})
            if (*end >= 0)
                close(std::exchange(*end, -1));
    }
    pid_t child_ = -1;
    int in_ = -1, out_ = -1;
};

// One of ours, in a process of its own.
class Process {
public:
    explicit Process(const std::function<void()> &body) : child_(fork()) {
        if (child_ != 0)
            return;
        const int code = in_child(body);
        _exit(code < 0 ? 98 : code);
    }
    ~Process() { end(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    /// It is still at it after some time; who does not wait is done by then.
    bool waits() {
        for (int tries = 0; tries < 40; ++tries) {
            usleep(10000);
            if (waitpid(child_, &status_, WNOHANG) == child_) {
                child_ = -1;
                return false;
            }
        }
        return true;
    }
    int end() {
        if (child_ > 0)
            waitpid(std::exchange(child_, -1), &status_, 0);
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
    }

private:
    pid_t child_;
    int status_ = 0;
};

class CatalogCommand : public testing::Test {
protected:
    void SetUp() override {
        if (in_child([] {
                dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), 1);
                execlp("sqlite3", "sqlite3", "-version", nullptr);
                _exit(127);
            }) == 127)
            GTEST_SKIP() << "the command sqlite3 is not installed";
        make_image(*Store::open(path, true, op));
        Command command(database);
        EXPECT_EQ(command.say("CREATE TABLE visitor(n);"), "");
    }

    // Our own connection, as those of a store are.
    struct Close {
        void operator()(sqlite3 *connection) const { sqlite3_close(connection); }
    };
    std::unique_ptr<sqlite3, Close> connect() const {
        int result = 0, error = 0;
        std::unique_ptr<sqlite3, Close> connection(open_sqlite(database, SQLITE_OPEN_READWRITE, result, error));
        EXPECT_EQ(result, SQLITE_OK);
        return connection;
    }
    CatalogPlace place() const { return {path, op}; }
    int64_t visitors(sqlite3 *connection) const {
        Statement row(connection, "SELECT count(*) FROM visitor", place());
        EXPECT_TRUE(row.step());
        return row.number(0);
    }
    void make_another() const { make_image(*Store::open(path, false, op)); }
    std::size_t images() const { return ids_of(*Store::open(path, false, op)).size(); }

    Folder folder;
    const std::string path = folder.path() + "/store", database = path + "/catalog.db";
};

} // namespace

TEST_F(CatalogCommand, cannot_write_while_this_library_writes_and_reads_what_was_there) {
    const auto own = connect();
    Command command(database);
    {
        Transaction transaction(own.get(), place());
        run_sql(own.get(), "INSERT INTO visitor VALUES(1)", place());
        EXPECT_TRUE(command.is_refused("INSERT INTO visitor VALUES(2);"));
        EXPECT_TRUE(command.is_refused("BEGIN IMMEDIATE;"));
        EXPECT_EQ(command.say("SELECT count(*) FROM visitor;"), "0");
        transaction.commit();
    }
    EXPECT_EQ(command.say("INSERT INTO visitor VALUES(2); SELECT count(*) FROM visitor;"), "2");
    EXPECT_EQ(visitors(own.get()), 2);
}

TEST_F(CatalogCommand, is_waited_for_while_it_writes_by_writers_and_not_by_readers) {
    Command command(database);
    ASSERT_EQ(command.say("BEGIN IMMEDIATE; INSERT INTO visitor VALUES(1);"), "");
    Process maker([&] { make_another(); });
    EXPECT_TRUE(maker.waits());
    const auto own = connect();
    EXPECT_EQ(visitors(own.get()), 0);
    EXPECT_EQ(command.say("COMMIT;"), "");
    EXPECT_EQ(maker.end(), 0);
    EXPECT_EQ(visitors(own.get()), 1);
    EXPECT_EQ(images(), 2u);
}

TEST_F(CatalogCommand, that_has_the_catalog_to_itself_is_waited_for) {
    Command command(database);
    ASSERT_EQ(command.say("PRAGMA locking_mode=EXCLUSIVE; INSERT INTO visitor VALUES(1);"), "exclusive");
    Process maker([&] { make_another(); });
    EXPECT_TRUE(maker.waits());
    command.quit();
    EXPECT_EQ(maker.end(), 0);
    EXPECT_EQ(visitors(connect().get()), 1);
    EXPECT_EQ(images(), 2u);
}

TEST_F(CatalogCommand, that_is_killed_holds_nobody_up_and_what_it_began_is_not_there) {
    Command command(database);
    ASSERT_EQ(command.say("BEGIN IMMEDIATE; INSERT INTO visitor VALUES(1);"), "");
    Process maker([&] { make_another(); });
    EXPECT_TRUE(maker.waits());
    command.kill();
    EXPECT_EQ(maker.end(), 0);
    EXPECT_EQ(visitors(connect().get()), 0);
    EXPECT_EQ(images(), 2u);
}

TEST_F(CatalogCommand, goes_on_when_a_process_of_this_library_is_killed_while_it_writes) {
    Command command(database);
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        const auto own = connect();
        const Transaction transaction(own.get(), place());
        run_sql(own.get(), "INSERT INTO visitor VALUES(1)", place());
        if (write(ready[1], "x", 1) == 1)
            pause();
        _exit(1);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_TRUE(command.is_refused("INSERT INTO visitor VALUES(2);"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(command.say("INSERT INTO visitor VALUES(2); SELECT n FROM visitor; PRAGMA integrity_check;"), "2\nok");
    for (const int end : ready)
        close(end);
}

TEST_F(CatalogCommand, and_this_library_leave_each_other_the_log_when_they_close) {
    auto own = connect();
    EXPECT_EQ(visitors(own.get()), 0);
    {
        Command command(database);
        EXPECT_EQ(command.say("INSERT INTO visitor VALUES(1);"), "");
    }
    EXPECT_TRUE(std::filesystem::exists(database + "-wal")) << "this library still has it open";
    EXPECT_EQ(visitors(own.get()), 1);
    Command reader(database);
    EXPECT_EQ(reader.say("BEGIN; SELECT count(*) FROM visitor;"), "1");
    run_sql(own.get(), "INSERT INTO visitor VALUES(2)", place());
    own.reset();
    EXPECT_TRUE(std::filesystem::exists(database + "-wal")) << "the command still has it open";
    make_another();
    EXPECT_EQ(reader.say("SELECT count(*) FROM visitor;"), "1") << "as when it began to read";
    EXPECT_EQ(reader.say("COMMIT; SELECT count(*) FROM visitor; SELECT count(*) FROM image;"), "2\n2");
    reader.quit();
    EXPECT_FALSE(std::filesystem::exists(database + "-wal")) << "the last one clears up";
    EXPECT_EQ(images(), 2u);
}

TEST_F(CatalogCommand, cannot_empty_the_log_under_a_reader_nor_change_the_mode_of_an_open_catalog) {
    const auto own = connect();
    Command command(database);
    EXPECT_EQ(command.say("INSERT INTO visitor VALUES(1);"), "");
    {
        Statement reader(own.get(), "SELECT n FROM visitor UNION ALL SELECT 0", place());
        ASSERT_TRUE(reader.step());
        EXPECT_EQ(command.say("INSERT INTO visitor VALUES(2);"), "");
        EXPECT_EQ(command.say("PRAGMA wal_checkpoint(TRUNCATE);").substr(0, 2), "1|") << "busy";
        EXPECT_TRUE(reader.step());
        EXPECT_FALSE(reader.step()) << "not the second one";
    }
    EXPECT_EQ(command.say("PRAGMA wal_checkpoint(TRUNCATE);"), "0|0|0");
    EXPECT_TRUE(command.is_refused("PRAGMA journal_mode=DELETE;"));
    EXPECT_EQ(visitors(own.get()), 2);
    make_another();
    EXPECT_EQ(command.say("SELECT count(*) FROM image;"), "2");
}

TEST_F(CatalogCommand, and_this_library_lose_nothing_of_each_other_when_all_write_at_once) {
    constexpr int rows = 60, made = 12;
    const auto insert = [&] {
        std::string script = ".timeout 60000\n";
        for (int row = 0; row < rows; ++row)
            script += "INSERT INTO visitor VALUES(" + std::to_string(row) + ");\n";
        Command command(database);
        EXPECT_EQ(command.say(script), "");
    };
    const auto come_and_go = [&] { // each closes what it opened: the log is emptied, and made anew
        for (int row = 0; row < rows / 2; ++row) {
            Command command(database);
            EXPECT_EQ(command.say(".timeout 60000\nINSERT INTO visitor VALUES(1);"), "");
        }
    };
    const auto make = [&] {
        for (int image = 0; image < made; ++image)
            make_another();
    };
    std::vector<std::unique_ptr<Process>> all;
    for (const std::function<void()> &body : std::vector<std::function<void()>>{insert, come_and_go, make, make})
        all.push_back(std::make_unique<Process>(body));
    for (const std::unique_ptr<Process> &one : all)
        EXPECT_EQ(one->end(), 0);
    Command command(database);
    EXPECT_EQ(command.say("SELECT count(*) FROM visitor; PRAGMA integrity_check;"),
              std::to_string(rows + rows / 2) + "\nok");
    EXPECT_EQ(images(), std::size_t{1 + 2 * made});
}
