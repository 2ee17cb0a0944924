// Processes that freeze sets of two objects on two file systems, remove them, read and list them at the same time: a
// set is seen, and goes, as a whole. For a minute instead of some seconds with QZFI_TEST_LONG in the environment.
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include <qzfi_provider.h>

#include "images_support.h"

namespace images {
namespace {

using Clock = std::chrono::steady_clock;
using Sets = std::set<std::string>;

class SetTogether : public testing::Test {
public: // what a process may be given to do
    // The sets of which a store lists an image. A set may go while they are listed, nothing else may be wrong.
    Sets sets_in(int disk) const {
        Sets sets;
        qfi_image_list *list = nullptr;
        const int32_t status = qfi_op_snapreplica_list(nullptr, store(disk).c_str(), &list);
        EXPECT_EQ(status, 0) << last_error();
        for (const qfi_image_list *one = list; one != nullptr; one = one->next) {
            EXPECT_EQ(one->image.state, 1u);
            EXPECT_TRUE(sets.insert(one->image.set_id).second) << "one image of each set in a store";
        }
        qfi_op_free_snapreplica_list(list);
        return sets;
    }
    // Noted before anybody begins to remove it.
    Sets doomed() const {
        Sets sets;
        std::ifstream in(top() / "doomed");
        for (std::string set; std::getline(in, set);)
            sets.insert(set);
        return sets;
    }
    void doom(const std::string &set) const {
        const std::string line = set + "\n";
        const int file = open((top() / "doomed").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        EXPECT_EQ(write(file, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        close(file);
    }
    static bool may_fail(int32_t status) { return status == QFI_FI_NO_SUCH_IMAGE || status == QFI_FI_BUSY; }

    int freeze_once() const {
        constexpr std::size_t most = 25;
        if (sets_in(0).size() > most)
            return 0;
        const Tree tree({object(0), object(1)});
        EXPECT_EQ(qfi_op_make(tree.get(), nullptr, nullptr), 0) << last_error();
        return 1;
    }

    // What the first store has the second one has, too, unless somebody began to remove it; while its maker is between
    // the two stores it is a moment away.
    int look() const {
        static int turn = 0;
        const int first = turn++ % 2;
        const Sets one = sets_in(first);
        for (const std::string &set : one) {
            const auto is_settled = [&] { return sets_in(1 - first).count(set) != 0 || doomed().count(set) != 0; };
            bool is_right = is_settled();
            for (int tries = 0; tries < 1000 && !is_right; ++tries) {
                usleep(10000);
                is_right = is_settled();
            }
            EXPECT_TRUE(is_right) << "only store " << first << " has an image of " << set;
        }
        return one.empty() ? 0 : 1;
    }

    // The tree of a set, if all of its images are in it: while it is made or removed they may not be.
    static int32_t open_set(const std::string &set, Tree &tree) {
        const int32_t status = qfi_op_reaccess_tree(nullptr, &tree, set.c_str(), nullptr, nullptr, 0);
        EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
        const qfi_domain *const first = status == 0 ? tree.get()->fid_children : nullptr;
        return status == 0 && first->fid_siblings == nullptr ? static_cast<int32_t>(QFI_FI_NO_SUCH_IMAGE) : status;
    }

    // All of a set or nothing: one that cannot go now stays in both stores.
    int remove_older(bool from_end) const {
        const Sets sets = sets_in(from_end ? 1 : 0);
        std::vector<std::string> ids(sets.begin(), sets.end());
        int removed = 0;
        for (std::size_t index = 0; index + 4 < ids.size(); ++index) {
            const std::string &set = ids[index];
            doom(set);
            Tree tree;
            int32_t status = open_set(set, tree);
            if (status == 0)
                status = qfi_op_detach(tree.get(), nullptr, QFI_DETACH_REMOVE, nullptr);
            EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
            if (status != 0)
                continue;
            tree.release();
            ++removed;
            for (const int disk : {0, 1})
                EXPECT_EQ(sets_in(disk).count(set), 0u) << "removed, but store " << disk << " has an image of " << set;
        }
        return removed;
    }
    int remove_from_first() const { return remove_older(false); }
    int remove_from_second() const { return remove_older(true); }

    // Holds images up.
    int verify() const {
        int verified = 0;
        for (const std::string &set : sets_in(0)) {
            Tree tree;
            int32_t status = open_set(set, tree);
            if (status == 0)
                status = qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr);
            EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
            verified += status == 0 ? 1 : 0;
        }
        return verified;
    }

protected:
    void SetUp() override {
        for (const char *const type : {"btrfs", "xfs"})
            if (const auto missing = LoopFilesystem::obstacle(type))
                GTEST_SKIP() << *missing;
        disks_[0] = std::make_unique<LoopFilesystem>("btrfs", 160);
        disks_[1] = std::make_unique<LoopFilesystem>("xfs", 320);
        for (const int disk : {0, 1}) {
            fs::create_directory(object(disk));
            write_file(object(disk) / "file", "content");
        }
    }
    fs::path top() const { return disks_[1]->path(); }
    fs::path object(int disk) const { return fs::path(disks_[disk]->path()) / "object"; }
    fs::path store(int disk) const { return fs::path(disks_[disk]->path()) / ".qzfi"; }

    // A process that does one thing until the time is over, and did it at least once.
    pid_t start_doing(const char *what, int (SetTogether::*once)() const, Clock::time_point end) const {
        fflush(stdout);
        const pid_t child = fork();
        if (child != 0)
            return child;
        {
            const Framework framework(top() / "root");
            int done = 0;
            while (!HasFailure() && (Clock::now() < end || (done == 0 && Clock::now() < end + std::chrono::minutes(1))))
                done += (this->*once)();
            EXPECT_GE(done, 1);
            printf("%s: %d times\n", what, done);
            fflush(stdout);
        }
        _exit(HasFailure() ? 1 : 0);
    }

private:
    std::unique_ptr<LoopFilesystem> disks_[2];
};

TEST_F(SetTogether, they_see_whole_sets_only_and_leave_nothing_else) {
    ASSERT_EQ(in_child([&] {
                  const Framework framework(top() / "root");
                  const Tree tree({object(0), object(1)});
                  EXPECT_EQ(qfi_op_make(tree.get(), nullptr, nullptr), 0) << last_error();
              }),
              0)
        << "both stores are there from now on";
    const Clock::time_point end = Clock::now() + std::chrono::seconds(getenv("QZFI_TEST_LONG") != nullptr ? 60 : 10);
    const std::vector<pid_t> children{start_doing("freeze", &SetTogether::freeze_once, end),
                                      start_doing("freeze", &SetTogether::freeze_once, end),
                                      start_doing("remove", &SetTogether::remove_from_first, end),
                                      start_doing("remove", &SetTogether::remove_from_second, end),
                                      start_doing("verify", &SetTogether::verify, end),
                                      start_doing("list", &SetTogether::look, end)};
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    const Framework framework(top() / "root");
    const Sets sets = sets_in(0);
    EXPECT_EQ(sets_in(1), sets) << "nothing of a set without the rest";
    for (const std::string &set : sets) {
        Tree tree;
        ASSERT_EQ(qfi_op_reaccess_tree(nullptr, &tree, set.c_str(), nullptr, nullptr, 0), 0) << last_error();
        EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
        EXPECT_EQ(qfi_op_detach(tree.release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    }
    for (const int disk : {0, 1})
        EXPECT_TRUE(fs::is_empty(store(disk) / "images"));
}

} // namespace
} // namespace images
