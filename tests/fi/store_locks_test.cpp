// Processes that have a store open keep their hold on it, whatever else this process does.
#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fi/fi_fiid.h"
#include "fi/fi_store_locks.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";

// A process that was there before anything was opened, and so has nothing of this one's, and works when it is told.
class Process {
public:
    explicit Process(const std::function<void()> &body) {
        if (pipe2(start_, O_CLOEXEC) != 0)
            throw Failure{QFI_FI_WRITE};
        child_ = fork();
        if (child_ != 0)
            return;
        close(start_[1]);
        char go = 0;
        if (read(start_[0], &go, 1) != 1)
            _exit(2);
        const int code = in_child(body);
        _exit(code < 0 ? 98 : code);
    }
    ~Process() {
        close(start_[0]);
        close(start_[1]);
        if (child_ > 0)
            waitpid(child_, nullptr, 0);
    }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    /// Gives its exit code.
    int work() {
        EXPECT_EQ(write(start_[1], "x", 1), 1);
        int status = 0;
        EXPECT_GT(waitpid(std::exchange(child_, -1), &status, 0), 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    int start_[2] = {-1, -1};
    pid_t child_ = -1;
};

class StoreLocks : public testing::Test {
protected:
    Folder folder;
    std::string path = folder.path() + "/store", list = folder.path() + "/list";

    void make_another() { make_image(*Store::open(path, false, op)); }
    void write_list() {
        std::ofstream out(list);
        for (const std::string &id : ids_of(*Store::open(path, false, op)))
            out << id << '\n';
    }
    std::vector<std::string> read_list() {
        std::ifstream in(list);
        std::vector<std::string> ids;
        for (std::string id; std::getline(in, id);)
            ids.push_back(id);
        return ids;
    }
    bool is_listed(const std::string &id) {
        const std::vector<std::string> ids = read_list();
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    }
};

} // namespace

TEST_F(StoreLocks, an_image_is_there_although_this_process_opened_and_closed_the_catalogs_file) {
    Process other([&] { make_another(); }), last([&] { write_list(); });
    const std::shared_ptr<Store> store = Store::open(path, true, op);
    EXPECT_FALSE(std::ifstream(path + "/catalog.db").get() < 0);
    EXPECT_EQ(other.work(), 0);
    const std::string id = make_image(*store);
    EXPECT_EQ(last.work(), 0);
    EXPECT_TRUE(is_listed(id));
    EXPECT_EQ(read_list().size(), 2u);
}

TEST_F(StoreLocks, an_image_is_there_although_this_process_looked_for_a_sister_of_another_one) {
    const std::string elsewhere = folder.path() + "/elsewhere";
    Process maker([&] {
        const ImageRecord sister = record_of(new_image_id());
        ImageRecord record = record_of(new_image_id());
        record.state = 0;
        const std::shared_ptr<Store> own = Store::open(elsewhere, true, op);
        NewImage image = own->begin(record.id, op);
        image.commit(record, write_fiid({record.set_id, {{sister, path}, {record, elsewhere}}}, op), op);
        _exit(7);
    });
    Process other([&] { make_another(); }), last([&] { write_list(); });
    EXPECT_EQ(maker.work(), 7);
    const std::shared_ptr<Store> store = Store::open(path, true, op);
    EXPECT_TRUE(Store::open(elsewhere, false, op)->list(op).empty());
    EXPECT_EQ(names_in(elsewhere + "/images").size(), 0u) << "the sister was not looked for";
    EXPECT_EQ(other.work(), 0);
    const std::string id = make_image(*store);
    EXPECT_EQ(last.work(), 0);
    EXPECT_TRUE(is_listed(id));
    EXPECT_EQ(read_list().size(), 2u);
}

TEST_F(StoreLocks, a_forked_childs_image_is_there_although_its_parent_let_go_of_the_store) {
    Process other([&] { make_another(); }), last([&] { write_list(); });
    std::shared_ptr<Store> store = Store::open(path, true, op);
    const std::string made = folder.path() + "/made";
    int opened[2] = {-1, -1}, go[2] = {-1, -1};
    ASSERT_EQ(pipe2(opened, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(go, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte = 0;
        const std::shared_ptr<Store> own = Store::open(path, false, op);
        if (write(opened[1], "x", 1) != 1 || read(go[0], &byte, 1) != 1)
            _exit(2);
        try {
            std::ofstream(made) << make_image(*own);
        } catch (...) {
            _exit(3);
        }
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(opened[0], &byte, 1), 1);
    store.reset();
    EXPECT_EQ(other.work(), 0);
    ASSERT_EQ(write(go[1], "x", 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(last.work(), 0);
    std::string id;
    std::getline(std::ifstream(made) >> std::ws, id);
    EXPECT_EQ(id.size(), 25u);
    EXPECT_TRUE(is_listed(id));
    EXPECT_EQ(read_list().size(), 2u);
    for (const int end : {opened[0], opened[1], go[0], go[1]})
        close(end);
}

TEST_F(StoreLocks, who_holds_up_a_store_is_waited_for_with_limits) {
    Store::open(path, true, op);
    const int lock = open((path + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op); }), QFI_FI_BUSY);
    EXPECT_NE(last_error().find(path), std::string::npos);
    ASSERT_EQ(flock(lock, LOCK_UN), 0);
    EXPECT_EQ(status_of_call([&] { Store::open(path, false, op); }), 0);
    close(lock);
}

TEST_F(StoreLocks, a_store_of_another_user_is_only_read) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can look into it";
    const std::string id = make_image(*Store::open(path, true, op)),
                      half = path + "/images/.new-20260101T000000Z-00000001";
    std::filesystem::create_directory(half);
    std::filesystem::remove(path + "/reserve");
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    const std::vector<std::string> before = names_in(path);
    const int lock = open((path + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const std::shared_ptr<Store> store = Store::open(path, false, op);
    EXPECT_EQ(ids_of(*store), std::vector<std::string>{id});
    EXPECT_EQ(status_of_call([&] { store->remove(id, op, remove_all); }), QFI_FI_NO_RIGHT);
    EXPECT_TRUE(std::filesystem::exists(half));
    EXPECT_EQ(names_in(path), before);
    close(lock);
    ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    Store::open(path, false, op)->remove(id, op, remove_all);
    EXPECT_FALSE(std::filesystem::exists(half));
}

TEST_F(StoreLocks, a_store_that_others_may_change_is_only_read) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs the right to give files away";
    const std::string id = make_image(*Store::open(path, true, op)),
                      half = path + "/images/.new-20260101T000000Z-00000001";
    std::filesystem::create_directory(half);
    std::filesystem::remove(path + "/reserve");
    const std::vector<std::string> before = names_in(path);
    const int lock = open((path + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const auto expect_only_read = [&](const char *why) {
        SCOPED_TRACE(why);
        const std::shared_ptr<Store> store = Store::open(path, false, op);
        EXPECT_EQ(ids_of(*store), std::vector<std::string>{id});
        EXPECT_EQ(status_of_call([&] { store->remove(id, op, remove_all); }), QFI_FI_NO_RIGHT);
        EXPECT_TRUE(std::filesystem::exists(half));
        EXPECT_EQ(names_in(path), before);
    };
    ASSERT_EQ(chmod(path.c_str(), 01777), 0);
    expect_only_read("everybody's folder");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    for (const char *const name : {"/catalog.db", "/images"}) {
        ASSERT_EQ(chown((path + name).c_str(), 65534, 65534), 0);
        expect_only_read(name);
        ASSERT_EQ(chown((path + name).c_str(), 0, 0), 0);
    }
    close(lock);
    ASSERT_EQ(chown((path + "/catalog.db").c_str(), 65534, 65534), 0);
    ASSERT_EQ(chmod(path.c_str(), 0770), 0); // a group's: a member made it
    Store::open(path, false, op)->remove(id, op, remove_all);
    EXPECT_FALSE(std::filesystem::exists(half));
}

TEST_F(StoreLocks, what_is_locked_is_the_file_itself_and_no_link_to_it) {
    Store::open(path, true, op);
    const std::string catalog = path + "/catalog.db", other = folder.path() + "/other";
    DatabaseLock lock, second;
    ASSERT_TRUE(lock.open(catalog.c_str(), true));
    EXPECT_TRUE(lock.is_of(catalog.c_str()));
    std::filesystem::rename(catalog, other);
    EXPECT_FALSE(lock.is_of(catalog.c_str()));
    std::filesystem::copy_file(other, catalog);
    EXPECT_FALSE(lock.is_of(catalog.c_str()));
    EXPECT_EQ(errno, ESTALE);
    std::filesystem::remove(catalog);
    std::filesystem::create_symlink(other, catalog);
    EXPECT_FALSE(second.open(catalog.c_str(), true));
    EXPECT_EQ(errno, ELOOP);
}
