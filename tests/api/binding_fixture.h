// What the tests of binding share.
#pragma once

#include <atomic>
#include <chrono>

#include "frontend_fixture.h"

namespace fs = std::filesystem;

inline const char *const published_entries[] = {
#include "published_entries.inc"
};

inline constexpr char not_loaded_format[] = "%s: %s not loaded:\n%s\n";
inline constexpr char not_found_format[] = "%s: %s not found\n";
inline constexpr int thread_count = 10;

inline std::atomic<int> arrived{0};

/// Holds the start entry back until every thread is about to call, so that all but one of them wait.
inline void wait_for_everybody() {
    while (arrived.load() < thread_count)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

class Binding : public Frontend {
protected:
    Binding() { arrived = 0; }

    std::string default_path() const { return (scratch / "lib/libfi.so").string(); }

    void install_default(const std::string &name) const {
        fs::create_directories(scratch / "lib");
        fs::copy_file(mock(name), default_path());
    }

    void call_from_start_entry(MockHook hook) { recorder.reserved1 = reinterpret_cast<void *>(hook); }

    static void expect_unbound() {
        EXPECT_EQ(fimod.state, 0);
        EXPECT_EQ(fimod.handle, nullptr);
        EXPECT_EQ(qzfi_lib, nullptr);
        EXPECT_EQ(fi_get_pgn_f, nullptr);
    }

    static Raised not_loaded(const std::string &path) {
        return {"MSG_QFI_UTIL_E0060", {not_loaded_format, "modstart", path}};
    }
    static Raised not_found() { return {"MSG_QFI_UTIL_E0061", {not_found_format, "modstart"}}; }

    void expect_missing_entry(const std::string &library, const std::string &entry) {
        setenv("ICU_DATA", "", 1);
        const std::string path = use(library);
        start();
        testing::internal::CaptureStderr();

        const int32_t status = call();

        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to load symbol from lib " + path + " for QzFI API " +
                                                              entry + ": error=" + path +
                                                              ": undefined symbol: " + entry + "\n");
        EXPECT_EQ(status, 2);
        EXPECT_EQ(recorder.reports, (std::vector<Report>{{"modstart: " + entry + " not found\n", "(null)", 3}}));
        EXPECT_EQ(raised(), std::vector<Raised>{not_found()});
        EXPECT_EQ(journal(), "load\nunload\n");
        EXPECT_FALSE(is_loaded(path));
        expect_unbound();
    }
};
