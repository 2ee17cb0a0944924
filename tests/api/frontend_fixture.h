// A process that is a host of the front end: handler, environment, scratch root, journal.
#pragma once

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "api/qzfiapi.h"
#include "mock_api.h"
#include "support/report.h"
#include "util/qzfiutil_settings.h"

/// A handler record that keeps what it is given.
struct Recorder : qfi_handler {
    Recorder() : qfi_handler{take, nullptr, nullptr, nullptr} {}

    std::vector<Report> reports;
    std::function<void(const std::string &)> hook; // called with each text
    std::mutex lock;

private:
    static void take(qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
        auto *const recorder = static_cast<Recorder *>(self);
        {
            const std::lock_guard guard{recorder->lock};
            recorder->reports.push_back(report_of(text, localized, severity));
        }
        if (recorder->hook)
            recorder->hook(text);
    }
};

/// An error record as the calling thread's list holds it.
struct Raised {
    std::string id;
    std::vector<std::string> arguments;

    bool operator==(const Raised &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Raised &raised) {
    out << raised.id;
    for (const std::string &argument : raised.arguments)
        out << " [" << argument << "]";
    return out;
}

class Frontend : public testing::Test {
protected:
    Frontend() {
        std::string name = testing::TempDir() + "qzfi-XXXXXX";
        scratch = mkdtemp(name.data());
        journal_path = scratch / "journal";
        setenv("MOCK_JOURNAL", journal_path.c_str(), 1);
        unsetenv("QFI_API_LIB");
        unsetenv("ICU_DATA");
        set_root(scratch);
        fi_del_all_errors();
    }

    ~Frontend() override {
        qzfiapi_shutdown();
        fi_del_all_errors();
        qzfiapi_set_init_env(nullptr, nullptr);
        qzfi_free_credential_blob();
        qzfi_setlang(0);
        std::filesystem::remove_all(scratch);
    }

    static void set_root(const std::string &root) { ASSERT_EQ(qzfi_set_install_root(root.c_str()), 0); }

    static std::string mock(const std::string &name) { return MOCK_DIRECTORY "/mock_api_" + name + ".so"; }

    static std::string use(const std::string &name) {
        const std::string path = mock(name);
        setenv("QFI_API_LIB", path.c_str(), 1);
        return path;
    }

    void start() { ASSERT_EQ(qzfiapi_start(&recorder, QFI_API_VERSION), 0); }

    /// One call of a forwarder.
    static int32_t call() { return qzfiapi_quiesce(nullptr); }

    static bool is_loaded(const std::string &path) {
        void *const handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (handle != nullptr)
            dlclose(handle);
        return handle != nullptr;
    }

    /// The record of a loaded library.
    static MockApi &api_at(const std::string &path) {
        void *const handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (handle == nullptr) {
            ADD_FAILURE() << path << " is not loaded";
            std::abort();
        }
        MockApi *const api = reinterpret_cast<MockAccess>(dlsym(handle, "mock_api"))();
        dlclose(handle);
        return *api;
    }

    std::string journal() const {
        std::ostringstream text;
        text << std::ifstream(journal_path).rdbuf();
        return text.str();
    }

    /// The errors of a thread, the calling one by default, oldest first.
    static std::vector<Raised> raised(pthread_t thread = pthread_self()) {
        std::vector<Raised> result;
        pthread_mutex_lock(&err_mutex);
        const qfi_error_thread *each = err_info_list;
        while (each != nullptr && !pthread_equal(each->thread, thread))
            each = each->next == err_info_list ? nullptr : each->next;
        const qfi_error_info *const first = each != nullptr ? each->errors : nullptr;
        for (const qfi_error_info *record = first; record != nullptr;
             record = record->next == first ? nullptr : record->next)
            result.push_back({record->message_id, {record->arguments, record->arguments + record->count}});
        pthread_mutex_unlock(&err_mutex);
        return result;
    }

    static void in_threads(int count, const std::function<void(int)> &work) {
        std::vector<std::thread> threads;
        for (int index = 0; index < count; ++index)
            threads.emplace_back(work, index);
        for (std::thread &each : threads)
            each.join();
    }

    std::filesystem::path scratch;
    std::filesystem::path journal_path;
    Recorder recorder;
};
