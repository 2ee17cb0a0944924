// What the engine's threads find out is told in the thread whose host has to be told.
#include <map>
#include <thread>

#include "fi/fi_engine_host.h"
#include "fi/fi_providers.h"
#include "store_support.h"

namespace {

using namespace qzfi::fi;
using store_support::last_error;
using store_support::status_of_call;

constexpr const char *operation = "qzfi_get_snapdiff";

TEST(EngineHost, a_failure_of_a_worker_is_recorded_for_the_thread_that_checks) {
    EngineHost host(operation, "/object", nullptr);
    host.on_remark([](const qfi_remark &remark) { fail_call(operation, "read", remark.path, EIO, true); });
    host.on_entry([](const qfi_entry &) -> int32_t { fail_call(operation, "write", "later", EIO, false); });
    std::thread worker([&] {
        qfi_remark remark{};
        remark.path = "torn";
        host.record().remark(host.record().context, &remark);
        qfi_entry entry{};
        host.record().entry(host.record().context, &entry);
        EXPECT_EQ(last_error(), "none");
    });
    worker.join();
    EXPECT_EQ(status_of_call([&] { host.check({}, true); }), QFI_FI_READ);
    EXPECT_EQ(last_error(), "1039 MSG_QFI_E2022: %s: %s of %s failed: %s\n|qzfi_get_snapdiff|read|torn|Input/output "
                            "error (5)");
}

TEST(EngineHost, a_failure_without_an_errno_is_told_in_its_words) {
    const EngineHost host(operation, "/object", nullptr);
    host.record().fail(host.record().context, "the tree and its copy lie one within the other", "", 0);
    EXPECT_EQ(status_of_call([&] { host.check({QFI_FI_UNSAFE, 0, 0, 0, 0}, true); }), QFI_FI_UNSAFE);
    EXPECT_EQ(last_error(),
              "1038 MSG_QFI_E2021: %s: %s leaves its place: %s\n|qzfi_get_snapdiff|/object|the tree and its "
              "copy lie one within the other");
}

TEST(EngineHost, the_counts_of_several_calls_add_up) {
    Progress progress(operation, "/object");
    for (int call = 1; call <= 3; ++call) {
        EngineHost host(operation, "/object", &progress);
        EXPECT_EQ(host.record().progress(host.record().context, 10, 100), 0);
        EXPECT_EQ(host.record().progress(host.record().context, 20, 200), 0);
        EXPECT_EQ(progress.counts().entries_done, static_cast<uint64_t>(20 * call));
        EXPECT_EQ(progress.counts().bytes_done, static_cast<uint64_t>(200 * call));
    }
}

// A restore goes by them before it removes what was there.
TEST(JobHost, losses_are_kept_behind_any_number_of_other_remarks) {
    const JobHost host(operation, "/object", nullptr);
    const auto say = [&](uint32_t kind, const char *path) {
        const qfi_remark remark{kind, path, "detail", EIO};
        host.record()->remark(host.record()->context, &remark);
    };
    for (int count = 0; count < 12'000; ++count)
        say(QFI_REMARK_ATTRIBUTE, "minor");
    say(QFI_REMARK_UNREADABLE, "lost");
    say(QFI_REMARK_VANISHED, "gone");
    EXPECT_FALSE(host.has_torn());
    for (int count = 0; count < 10'000; ++count)
        say(QFI_REMARK_UNREADABLE, "lost too");
    say(QFI_REMARK_TORN, "torn");
    EXPECT_EQ(host.remarks().size(), 10'000u);
    EXPECT_EQ(host.remark_count(), 22'003u);
    std::map<std::string, int> kept;
    for (const JobHost::Remark &remark : host.remarks())
        ++kept[remark.path];
    EXPECT_EQ(kept, (std::map<std::string, int>{{"lost", 1}, {"gone", 1}, {"lost too", 9'998}}));
    EXPECT_TRUE(host.has_torn());
}

} // namespace
