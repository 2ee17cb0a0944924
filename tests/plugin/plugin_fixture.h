// A host with a plugin directory, a list of plugins, and a handler that keeps what it is given.
#pragma once

#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "support/report.h"
#include "util/qzfiutil_plugin.h"

namespace fs = std::filesystem;

/// What directory streams show instead of what is there, one list of names for each stream in the order of their first
/// use, the last for all later ones; empty shows the directories as they are. Set while one thread runs only.
void show_entries(std::vector<std::vector<std::string>> streams);

/// An error record of the calling thread.
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

using Names = std::vector<std::string>;

class Plugins : public testing::Test {
protected:
    static constexpr const char *variable = "QZFI_TEST_PLUGINS";

    Plugins() {
        std::string name = testing::TempDir() + "qzfi-XXXXXX";
        scratch = mkdtemp(name.data());
        root = scratch.string();
        directory = root + "/plugins/";
        fs::create_directory(directory);
        setenv("ICU_DATA", "", 1);
        unsetenv(variable);
        qzfi_uinit0(&handler);
        fi_del_all_errors();
        forget();
        open_files = count_open_files();
    }

    ~Plugins() override {
        show_entries({});
        free_list(list);
        EXPECT_EQ(count_open_files(), open_files);
        qzfi_ufini();
        fi_del_all_errors();
        unsetenv(variable);
        fs::remove_all(scratch);
    }

    /// Makes empty files, in this order.
    void make_files(const Names &names) const {
        for (const std::string &name : names)
            ASSERT_TRUE(std::ofstream(directory + name)) << name;
    }

    qfi_plugin *load(uint32_t (*init)(qfi_plugin *) = note, uint64_t value = 0) {
        return qzfi_newpgn("plugins/", variable, "lib", &list, init, value, root.c_str());
    }

    /// The names of the directory in the order in which it lists them.
    Names real_order() const {
        Names names;
        DIR *const stream = opendir(directory.c_str());
        while (const dirent *const entry = readdir(stream))
            names.emplace_back(entry->d_name);
        closedir(stream);
        return names;
    }

    /// An initialisation routine that keeps what it is called with and returns `code`.
    static uint32_t note(qfi_plugin *plugin) {
        offered.push_back(fs::path(plugin->library_path).filename());
        return code;
    }

    static void forget() {
        offered.clear();
        reports.clear();
        code = 0;
    }

    static void free_list(qfi_plugin *&head) {
        while (head != nullptr) {
            qfi_plugin *const plugin = head;
            head = plugin->libpriv->next;
            free(plugin->library_path);
            free(plugin->vp_prefix);
            free(plugin->libpriv);
            free(plugin);
        }
    }

    /// The errors of the calling thread, oldest first.
    static std::vector<Raised> raised() {
        std::vector<Raised> result;
        pthread_mutex_lock(&err_mutex);
        const qfi_error_thread *each = err_info_list;
        while (each != nullptr && !pthread_equal(each->thread, pthread_self()))
            each = each->next == err_info_list ? nullptr : each->next;
        const qfi_error_info *const first = each != nullptr ? each->errors : nullptr;
        for (const qfi_error_info *record = first; record != nullptr;
             record = record->next == first ? nullptr : record->next) {
            EXPECT_EQ(record->status, -1);
            EXPECT_EQ(record->session, nullptr);
            EXPECT_EQ(record->plugin_ref, 0u);
            EXPECT_EQ(record->plugin_data, nullptr);
            result.push_back({record->message_id, {record->arguments, record->arguments + record->count}});
        }
        pthread_mutex_unlock(&err_mutex);
        return result;
    }

    static void expect_silence() {
        EXPECT_EQ(reports, std::vector<Report>{});
        EXPECT_EQ(raised(), std::vector<Raised>{});
    }

    /// Expects that one failure was raised in the shape that all but a failed opendir have.
    static void expect_raised(const std::string &id, uint32_t severity, const std::string &format,
                              const std::string &text, const Names &recorded_arguments) {
        Names arguments{format};
        arguments.insert(arguments.end(), recorded_arguments.begin(), recorded_arguments.end());
        EXPECT_EQ(reports, (std::vector<Report>{{text, "(null)", severity}}));
        EXPECT_EQ(raised(), (std::vector<Raised>{{id, arguments}}));
    }

    static void expect_opendir_failure(const std::string &routine, const std::string &path, int error) {
        EXPECT_EQ(reports, (std::vector<Report>{
                               {routine + ": opendir on " + path + " failed errno " + std::to_string(error) + "\n",
                                "(null)", 3}}));
        EXPECT_EQ(raised(), (std::vector<Raised>{
                                {"MSG_QFI_UTIL_E0041", {"%s: opendir on %s failed errno %s\n", routine, path}}}));
    }

    static void expect_badly_formed(const std::string &file) {
        expect_raised("MSG_QFI_UTIL_E0042", 2, "%s: library path %s has badly formed version number\n",
                      "latest_pgnversion: library path " + file + " has badly formed version number\n",
                      {"latest_pgnversion"});
    }

    static long count_open_files() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }

    static inline Names offered;
    static inline std::vector<Report> reports;
    static inline uint32_t code = 0;

    fs::path scratch;
    std::string root;
    std::string directory; // with "/" at its end
    qfi_plugin *list = nullptr;

private:
    static void take(qfi_handler *, const char *text, const char *localized, uint32_t severity) {
        reports.push_back(report_of(text, localized, severity));
    }

    qfi_handler handler = {take, nullptr, nullptr, nullptr};
    long open_files = 0;
};
