// Resynchronisations that are killed at each step that changes something: no file is torn, the image stays whole, and
// the next one makes the original what it was.
#include <csignal>

#include "resync_support.h"
#include "traced_process.h"

namespace images {
namespace {

class ResyncKill : public Images {
protected:
    void SetUp() override {
        if (const auto obstacle = traced::obstacle())
            GTEST_SKIP() << *obstacle;
        Images::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        fs::remove_all(object);
        make_original(object);
        keep(object, top / "new");
        id = freeze({object}, store).image_id();
        spoil(object);
        keep(object, top / "old");
        stop(); // hosts in processes of their own have the framework to themselves
    }

    // Killed before, or after, each call; `only` as of a resynchronisation. Gives how many left the work undone.
    int kill_each(const char *only) const {
        const auto counts = [&](const traced::Call &call) {
            return traced::changes_something(call) && call.path().rfind(object.string(), 0) == 0;
        };
        int undone = 0;
        bool was_killed = true;
        const int stride = GetParam() == std::string("copy") ? 1 : 3;
        for (int step = 1; was_killed && !HasFatalFailure(); step += stride) {
            const traced::Outcome outcome = traced::run({step, 0, counts, false, step % 2 == 0}, [&] {
                const Framework framework(top / "root");
                const Tree tree = Tree::of_image(id, store);
                traced::begin();
                _exit(resync(tree, only) == 0 ? 0 : 1);
            });
            was_killed = outcome.was_reached;
            EXPECT_EQ(outcome.exit_code, was_killed ? -SIGKILL : 0) << "step " << step;
            expect_old_or_new_files(object);
            undone += differences(top / "new", object).empty() ? 0 : 1;
            EXPECT_EQ(in_child([&] { look_after(only); }), 0)
                << "step " << step << ": call " << outcome.call.number << " of " << outcome.path;
            if (HasFailure())
                break;
            fs::remove_all(object);
            keep(top / "old", object);
        }
        return undone;
    }

    // The next one, in a host of its own.
    void look_after(const char *only) const {
        const Framework framework(top / "root");
        const Tree tree = Tree::of_image(id, store);
        EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
        EXPECT_EQ(resync(tree, only), 0) << last_error();
        EXPECT_EQ(temporary_names(object), std::set<std::string>{});
        if (only == nullptr) {
            EXPECT_EQ(differences(top / "new", object), "");
        }
    }

    std::string id;
};
INSTANTIATE_TEST_SUITE_P(On, ResyncKill, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

TEST_P(ResyncKill, at_any_change_tears_no_file_and_the_next_one_makes_up_for_it) {
    EXPECT_GE(kill_each(nullptr), 5);
}

TEST_P(ResyncKill, of_one_file_leaves_nothing_beside_it_for_good) {
    EXPECT_GE(kill_each("plain"), 2);
    EXPECT_GE(kill_each("sub/file"), 2);
}

} // namespace
} // namespace images
