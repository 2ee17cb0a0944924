// Processes that freeze, remove, list, verify and restore in one store at the same time. For a minute instead of some
// seconds with QZFI_TEST_LONG in the environment.
#include <chrono>
#include <sys/wait.h>
#include <unistd.h>

#include "earlier_image.h"

namespace images {
namespace {

using Clock = std::chrono::steady_clock;

class Together : public EarlierImage {
public: // what a process may be given to do
    std::vector<std::string> others() const {
        std::vector<std::string> ids;
        for (const std::string &id : listed())
            if (id != earlier)
                ids.push_back(id);
        return ids;
    }
    // The image may have been removed since it was listed, or be in use; nothing else may fail.
    static bool may_fail(int32_t status) { return status == QFI_FI_NO_SUCH_IMAGE || status == QFI_FI_BUSY; }

    std::optional<Tree> opened(const std::string &id) const {
        Tree tree;
        const int32_t status = qfi_op_reaccess_tree(nullptr, &tree, id.c_str(), store.c_str(), nullptr, 0);
        EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
        return status == 0 ? std::optional<Tree>(std::move(tree)) : std::nullopt;
    }

    int freeze_once() const {
        constexpr std::size_t most = 30; // all of them are looked at in the end
        if (others().size() > most)
            return 0;
        EXPECT_EQ(make("", "", [] {}), 0) << last_error();
        return 1;
    }
    int remove_older() const {
        const std::vector<std::string> ids = others();
        int removed = 0;
        for (std::size_t index = 0; index + 4 < ids.size(); ++index) {
            std::optional<Tree> tree = opened(ids[index]);
            if (!tree)
                continue;
            const int32_t status = qfi_op_detach(tree->get(), nullptr, QFI_DETACH_REMOVE, nullptr);
            EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
            removed += status == 0 ? 1 : 0;
            if (status == 0)
                tree->release();
        }
        return removed;
    }
    int verify_all() const {
        for (const std::string &id : listed()) {
            const std::optional<Tree> tree = opened(id);
            if (!tree)
                continue;
            const int32_t status = qfi_op_objctl(tree->get(), QFI_OBJCTL_VERIFY, nullptr, nullptr);
            EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
        }
        return 1;
    }
    int restore_newest() const {
        const std::vector<std::string> ids = others();
        const std::optional<Tree> tree = ids.empty() ? std::nullopt : opened(ids.back());
        if (!tree)
            return 0;
        const std::string to = top / "restored";
        qfi_restore_options options;
        QFI_INIT(options);
        options.to = to.c_str();
        const int32_t status = qfi_op_restore(tree->get(), &options, nullptr);
        EXPECT_TRUE(status == 0 || may_fail(status)) << status << " " << last_error();
        EXPECT_EQ(status == 0 ? differences(object, to) : "", "");
        fs::remove_all(to);
        return status == 0 ? 1 : 0;
    }

    // A process that does one thing until the time is over, and did it at least once.
    pid_t start_doing(const char *what, int (Together::*once)() const, Clock::time_point end) const {
        fflush(stdout);
        const pid_t child = fork();
        if (child != 0)
            return child;
        {
            const Framework framework(top / "root");
            int done = 0;
            while (!HasFailure() && (Clock::now() < end || (done == 0 && Clock::now() < end + std::chrono::minutes(1))))
                done += (this->*once)();
            EXPECT_GE(done, 1);
            printf("%s: %d times\n", what, done);
            fflush(stdout);
        }
        _exit(HasFailure() ? 1 : 0);
    }
};
INSTANTIATE_TEST_SUITE_P(On, Together, testing::Values("copy", "xfs", "btrfs"), name_of);

TEST_P(Together, they_see_whole_images_only_and_leave_nothing_else) {
    const Clock::time_point end = Clock::now() + std::chrono::seconds(getenv("QZFI_TEST_LONG") != nullptr ? 60 : 8);
    const std::vector<pid_t> children{
        start_doing("freeze", &Together::freeze_once, end), start_doing("freeze", &Together::freeze_once, end),
        start_doing("remove", &Together::remove_older, end), start_doing("list and verify", &Together::verify_all, end),
        start_doing("restore", &Together::restore_newest, end)};
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    start();
    EXPECT_EQ(folders(), listed());
    expect_whole();
    remove_others();
}

} // namespace
} // namespace images
