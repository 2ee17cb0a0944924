#include "binding_fixture.h"
#include "support/fault.h"

namespace {

class BindingFaults : public Binding {};

TEST_F(BindingFaults, no_memory_gives_5_silently_and_leaves_no_trace) {
    setenv("ICU_DATA", "", 1);
    install_default("complete");
    for (const bool from_environment : {false, true}) {
        if (from_environment)
            use("complete");
        fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
            fs::remove(journal_path);
            start();
            trial.arm();
            const int32_t status = call();
            trial.disarm();
            EXPECT_EQ(status, trial.fired() ? 5 : 0);
            EXPECT_EQ(journal(), trial.fired() ? "" : "load\nstart\n");
            EXPECT_TRUE(recorder.reports.empty());
            EXPECT_TRUE(raised().empty());
            if (trial.fired()) {
                expect_unbound();
                EXPECT_EQ(call(), 0);
            }
            qzfiapi_shutdown();
        });
    }
}

TEST_F(BindingFaults, a_load_that_gives_no_error_text_is_reported_with_the_fallback) {
    setenv("ICU_DATA", "", 1);
    const std::string path = use("complete");
    fault::for_each(fault::Call::dlopen, [&](fault::Trial &trial) {
        recorder.reports.clear();
        fi_del_all_errors();
        start();
        dlsym(RTLD_DEFAULT, "a stale error of another call");
        trial.arm();
        const int32_t status = call();
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 2 : 0);
        if (trial.fired()) {
            EXPECT_EQ(recorder.reports,
                      (std::vector<Report>{
                          {"modstart: " + path + " not loaded:\ndlerror call returned null string\n", "(null)", 3}}));
            EXPECT_EQ(raised(), std::vector<Raised>{not_loaded(path)});
            expect_unbound();
        }
        qzfiapi_shutdown();
    });
}

TEST_F(BindingFaults, each_entry_that_does_not_resolve_is_named_and_the_library_closed) {
    setenv("ICU_DATA", "", 1);
    const std::string path = use("complete");
    fault::for_each(fault::Call::dlsym, [&](fault::Trial &trial) {
        recorder.reports.clear();
        fi_del_all_errors();
        fs::remove(journal_path);
        start();
        testing::internal::CaptureStderr();
        trial.arm();
        const int32_t status = call();
        trial.disarm();
        const std::string output = testing::internal::GetCapturedStderr();
        const bool names_an_entry = trial.fired() && trial.nth() <= 91;
        EXPECT_EQ(status, names_an_entry ? 2 : 0);
        if (names_an_entry) {
            const std::string entry = published_entries[trial.nth() - 1];
            EXPECT_EQ(output, "Unable to load symbol from lib " + path + " for QzFI API " + entry +
                                  ": error=dlerror call returned null string\n");
            EXPECT_EQ(recorder.reports, (std::vector<Report>{{"modstart: " + entry + " not found\n", "(null)", 3}}));
            EXPECT_EQ(raised(), std::vector<Raised>{not_found()});
            EXPECT_EQ(journal(), "load\nunload\n");
            EXPECT_FALSE(is_loaded(path));
            expect_unbound();
        } else {
            EXPECT_EQ(output, "");
            EXPECT_EQ(fi_get_pgn_f == nullptr, trial.fired()); // the optional entry is the last to be looked up
        }
        qzfiapi_shutdown();
    });
}

TEST_F(BindingFaults, a_failure_that_cannot_be_recorded_still_gives_its_status) {
    setenv("ICU_DATA", "", 1);
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        start();
        trial.arm();
        const int32_t status = call();
        trial.disarm();
        EXPECT_EQ(status, trial.fired() && trial.nth() <= 2 ? 5 : 2);
        expect_unbound();
        qzfiapi_shutdown();
        fi_del_all_errors();
    });
}

} // namespace
