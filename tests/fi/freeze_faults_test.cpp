// Freezes and restores in real hosts on a disk that fails: each call below the test's folder, one after the other.
#include <csignal>
#include <regex>
#include <sys/syscall.h>
#include <unistd.h>

#include "earlier_image.h"
#include "resync_support.h"
#include "traced_process.h"

namespace images {
namespace {

class FreezeFaults : public EarlierImage {
protected:
    void SetUp() override {
        if (const auto obstacle = traced::obstacle())
            GTEST_SKIP() << *obstacle;
        EarlierImage::SetUp();
    }

    // Calls on the store and the object; the rest of the host's world works.
    bool counts(const traced::Call &call) const {
        const std::string path = traced::meets_disk(call) ? call.path() : "";
        return path.rfind(store.string() + "/", 0) == 0 || path.rfind(object.string(), 0) == 0;
    }

    // What the host was told, from the file that it left.
    static void tell(const fs::path &place, int32_t status) {
        write_file(place, std::to_string(status) + " " + last_error());
    }
    // A failure says which call of what failed, and that it was the disk.
    static void expect_told(const std::string &operation, const std::string &told, const traced::Outcome &outcome) {
        const std::string disk = "Input/output error", code = " \\(5\\)\n";
        const std::regex call("(1039|1040) " + operation + ": [a-z0-9_]+ of /.+ failed: " + disk + code);
        const std::regex provider("(1039|1040) " + operation + ": provider [a-z]+ failed on /.+: .+: " + disk + code);
        const std::regex method("1026 " + operation + ": method [a-z]+ cannot freeze /.+: .+: " + disk + "\n");
        const std::regex catalog("1037 " + operation +
                                 ": catalog of store /.+: (disk I/O error|unable to open database file): " + disk +
                                 code);
        const std::regex image("1032 " + operation + ": image [0-9TZ]+-[0-9a-f]+ is damaged: /.+: [a-z ]+: " + disk +
                               code);
        bool is_proper = false;
        for (const std::regex &form : {call, provider, method, catalog, image})
            is_proper = is_proper || std::regex_match(told, form);
        EXPECT_TRUE(is_proper) << told << "call " << outcome.call.number << " of " << outcome.path;
    }

    // Every `stride`-th call of a freeze fails.
    void fail_each(int first, int stride) const {
        int failures = 0;
        for (int step = first;; step += stride) {
            const traced::Outcome outcome =
                traced::run({step, EIO, [&](const traced::Call &call) { return counts(call); }, false}, [&] {
                    const Framework framework(top / "root");
                    tell(top / "told", make("", "", traced::begin));
                });
            ASSERT_EQ(outcome.exit_code, 0) << "call " << outcome.call.number << " of " << outcome.path;
            const std::string told = content_of(top / "told");
            if (told != "0 ") {
                ++failures;
                expect_told("qzfi_make", told, outcome);
            }
            const bool was_made = told == "0 ";
            const int code = in_child([&] {
                const Framework framework(top / "root");
                // What the host could not remove on its failing disk is removed now.
                EXPECT_EQ(repair(), 0) << last_error();
                EXPECT_EQ(expect_whole().size(), was_made ? 2u : 1u);
                remove_others();
            });
            ASSERT_EQ(code, 0) << told << "step " << step << ": call " << outcome.call.number << " of " << outcome.path;
            if (!outcome.was_reached)
                break;
        }
        EXPECT_GE(failures, 5);
    }
};
INSTANTIATE_TEST_SUITE_P(On, FreezeFaults, testing::Values("copy", "xfs", "btrfs"), name_of);

TEST_P(FreezeFaults, are_told_with_call_and_place_and_leave_whole_images_only) {
    fail_each(1, 6);
}
TEST_P(FreezeFaults, are_told_with_call_and_place_and_leave_whole_images_only_at_the_calls_between) {
    fail_each(4, 6);
}

TEST_P(FreezeFaults, of_a_restore_are_told_and_leave_the_old_tree_or_the_new_one) {
    keep(object, top / "new");
    int failures = 0;
    for (int step = 1;; step += 5) {
        write_file(object / "sub" / "file", "changed");
        write_file(object / "added", "old");
        fs::remove_all(top / "old");
        keep(object, top / "old");
        const traced::Outcome outcome =
            traced::run({step, EIO, [&](const traced::Call &call) { return counts(call); }, false}, [&] {
                const Framework framework(top / "root");
                const Tree tree = Tree::of_image(earlier, store);
                traced::begin();
                tell(top / "told", qfi_op_restore(tree.get(), nullptr, nullptr));
            });
        ASSERT_EQ(outcome.exit_code, 0);
        const std::string told = content_of(top / "told");
        const bool is_done = told == "0 ";
        if (!is_done) {
            ++failures;
            expect_told("qzfi_restore", told, outcome);
        }
        EXPECT_EQ(differences(top / (is_done ? "new" : "old"), object), "")
            << told << "call " << outcome.call.number << " of " << outcome.path;
        if (!outcome.was_reached)
            break;
    }
    EXPECT_GE(failures, 3);
}

// What was done before the failure stays done. A failed look at what is there already is no reason to stop.
TEST_P(FreezeFaults, of_a_resynchronisation_are_told_and_the_next_one_makes_up_for_them) {
    fs::remove_all(object);
    make_original(object);
    keep(object, top / "new");
    std::string id;
    ASSERT_EQ(in_child([&] {
                  const Framework framework(top / "root");
                  write_file(top / "id", freeze({object}, store, method()).image_id());
              }),
              0);
    id = content_of(top / "id");
    spoil(object);
    keep(object, top / "old");
    int failures = 0;
    for (int step = 1;; step += getenv("QZFI_TEST_LONG") != nullptr ? 1 : 5) {
        const traced::Outcome outcome =
            traced::run({step, EIO, [&](const traced::Call &call) { return counts(call); }, false}, [&] {
                const Framework framework(top / "root");
                const Tree tree = Tree::of_image(id, store);
                qfi_report *report = nullptr;
                traced::begin();
                tell(top / "told", resync(tree, nullptr, 1, &report));
                _exit(report != nullptr && report->count != 0 ? 1 : 0);
            });
        const std::string told = content_of(top / "told");
        const bool is_remarked = outcome.exit_code == 1;
        ASSERT_TRUE(outcome.exit_code == 0 || is_remarked) << outcome.exit_code;
        if (told != "0 ") {
            ++failures;
            expect_told("qzfi_resync", told, outcome);
        } else if (!is_remarked) {
            EXPECT_EQ(differences(top / "new", object), "") << "call " << outcome.call.number << " of " << outcome.path;
        }
        expect_old_or_new_files(object);
        EXPECT_EQ(temporary_names(object), std::set<std::string>{}) << told << outcome.path;
        const int code = in_child([&] {
            const Framework framework(top / "root");
            const Tree tree = Tree::of_image(id, store);
            EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
            EXPECT_EQ(resync(tree), 0) << last_error();
        });
        ASSERT_EQ(code, 0) << told << "step " << step << ": call " << outcome.call.number << " of " << outcome.path;
        EXPECT_EQ(differences(top / "new", object), "");
        if (!outcome.was_reached)
            break;
        fs::remove_all(object);
        keep(top / "old", object);
    }
    EXPECT_GE(failures, 5);
}

// The log's last sync fails for the one transaction that records the image; then the host dies, and nothing moves the
// log into the catalog in order any more.
TEST_P(FreezeFaults, of_a_record_keep_it_away_after_a_crash_too) {
    const fs::path log = store / "catalog.db-wal";
    const auto is_sync_of_log = [&](const traced::Call &call) {
        return (call.number == SYS_fdatasync || call.number == SYS_fsync) && call.path() == log.string();
    };
    int failures = 0;
    bool was_reached = true;
    for (int step = 1; was_reached; ++step) {
        const traced::Outcome outcome = traced::run({step, EIO, is_sync_of_log, false}, [&] {
            const Framework framework(top / "root");
            const Tree tree({object});
            qfi_freeze_options options;
            QFI_INIT(options);
            options.fim_id = method();
            options.store = store.c_str();
            traced::begin();
            tell(top / "told", qfi_op_make(tree.get(), &options, nullptr));
            kill(getpid(), SIGKILL); // with the catalog open
        });
        was_reached = outcome.was_reached;
        ASSERT_EQ(outcome.exit_code, -SIGKILL);
        const std::string told = content_of(top / "told");
        failures += told != "0 " ? 1 : 0;
        const int code = in_child([&] {
            const Framework framework(top / "root");
            EXPECT_EQ(expect_whole().size(), told == "0 " ? 2u : 1u) << told; // none without its files
            remove_others();
        });
        ASSERT_EQ(code, 0) << "step " << step;
    }
    EXPECT_GE(failures, 1);
}

} // namespace
} // namespace images
