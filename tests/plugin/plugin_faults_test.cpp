// Loading plugins while allocations and system calls fail.
#include <algorithm>
#include <cerrno>

#include "plugin_fixture.h"
#include "support/fault.h"

namespace {

class PluginFaults : public Plugins {
protected:
    PluginFaults() { make_files({"libalpha.so"}); }

    void begin() {
        free_list(list);
        forget();
        fi_del_all_errors();
    }

    void expect_loaded(const qfi_plugin *plugin) const {
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(list, plugin);
        EXPECT_EQ(offered, Names{"libalpha.so"});
        expect_silence();
    }

    void expect_nothing_loaded(const qfi_plugin *plugin) const {
        EXPECT_EQ(plugin, nullptr);
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(offered, Names{});
    }

    /// The rows of the file that is passed over, by allocation; `first` is that of the library path.
    static void expect_row(int nth, int first) {
        const struct {
            const char *id;
            const char *what;
        } rows[] = {
            {"MSG_QFI_UTIL_E0044", "libname buffer"},
            {"MSG_QFI_UTIL_E0046", "plugin descriptor"},
            {"MSG_QFI_UTIL_E0047", "libpriv descriptor"},
            {"MSG_QFI_UTIL_E0048", "vp_prefix"},
        };
        ASSERT_GE(nth, first);
        ASSERT_LT(static_cast<std::size_t>(nth - first), std::size(rows));
        const auto &row = rows[nth - first];
        const std::string what = std::string(": couldn't malloc ") + row.what + " for ";
        expect_raised(row.id, 2, "%s" + what + "%s\n", "qzfi_newpgn" + what + "libalpha.so\n", {"qzfi_newpgn"});
    }
};

TEST_F(PluginFaults, each_allocation_that_fails_is_raised_as_its_own_and_nothing_stays) {
    fault::for_each(fault::Call::allocation, [this](fault::Trial &trial) {
        begin();
        trial.arm();
        const qfi_plugin *const plugin = load();
        trial.disarm();
        if (!trial.fired())
            return expect_loaded(plugin);
        expect_nothing_loaded(plugin);
        if (trial.nth() == 1)
            expect_raised("MSG_QFI_UTIL_E0043", 3, "%s: couldn't malloc dir path buffer\n",
                          "qzfi_pgndir: couldn't malloc dir path buffer\n", {});
        else
            expect_row(trial.nth(), 2);
    });
}

TEST_F(PluginFaults, with_the_variable_set_no_memory_is_needed_for_the_directory) {
    setenv(variable, directory.c_str(), 1);
    fault::for_each(fault::Call::allocation, [this](fault::Trial &trial) {
        begin();
        trial.arm();
        const qfi_plugin *const plugin = load();
        trial.disarm();
        if (!trial.fired())
            return expect_loaded(plugin);
        expect_nothing_loaded(plugin);
        expect_row(trial.nth(), 1);
    });
}

TEST_F(PluginFaults, a_file_passed_over_for_memory_is_taken_at_the_next_entry_of_its_plugin) {
    make_files({"libalpha.so.1"});
    fault::for_each(fault::Call::allocation, [this](fault::Trial &trial) {
        begin();
        show_entries({{"libalpha.so.1", "libalpha.so"}});
        trial.arm();
        const qfi_plugin *const plugin = load();
        trial.disarm();
        if (!trial.fired())
            return expect_loaded(plugin);
        if (trial.nth() == 1)
            return expect_nothing_loaded(plugin);
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(offered, Names{"libalpha.so"});
        expect_row(trial.nth(), 2);
    });
}

TEST_F(PluginFaults, without_any_memory_nothing_is_loaded_said_or_lost) {
    fault::for_each(fault::Call::allocation,
                    [this](fault::Trial &trial) {
                        begin();
                        trial.arm();
                        const qfi_plugin *const plugin = load();
                        trial.disarm();
                        if (!trial.fired())
                            return expect_loaded(plugin);
                        expect_nothing_loaded(plugin);
                        expect_silence();
                    },
                    {.error = 0, .from_then_on = true});
}

TEST_F(PluginFaults, a_refusal_may_find_no_memory_to_be_raised) {
    fault::for_each(fault::Call::allocation, [this](fault::Trial &trial) {
        begin();
        code = 7;
        trial.arm();
        EXPECT_EQ(load(), nullptr);
        trial.disarm();
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(offered.size(), !trial.fired() || trial.nth() > 5 ? 1u : 0u);
        EXPECT_EQ(reports.size(), trial.fired() && trial.nth() == 6 ? 0u : 1u);
    });
}

TEST_F(PluginFaults, an_opendir_that_fails_is_raised_by_the_scan_or_by_the_choice) {
    fault::for_each(fault::Call::opendir, [this](fault::Trial &trial) {
        begin();
        trial.arm();
        const qfi_plugin *const plugin = load();
        trial.disarm();
        if (!trial.fired())
            return expect_loaded(plugin);
        expect_nothing_loaded(plugin);
        expect_opendir_failure(trial.nth() == 1 ? "qzfi_pgndir" : "latest_pgnversion", directory, EMFILE);
    });
}

TEST_F(PluginFaults, after_an_opendir_that_failed_the_next_entry_is_taken) {
    make_files({"libbeta.so"});
    show_entries({{"libalpha.so", "libbeta.so"}});
    const fault::Armed armed(fault::Call::opendir, 2, {.error = ENFILE});
    ASSERT_NE(load(), nullptr);
    EXPECT_EQ(offered, Names{"libbeta.so"});
    expect_opendir_failure("latest_pgnversion", directory, ENFILE);
}

TEST_F(PluginFaults, the_directory_of_the_variable_is_named_in_the_choices_message) {
    setenv(variable, directory.c_str(), 1);
    const fault::Armed armed(fault::Call::opendir, 2);
    EXPECT_EQ(load(), nullptr);
    expect_opendir_failure("latest_pgnversion", directory, EMFILE);
}

TEST_F(PluginFaults, a_file_without_access_is_raised_as_not_readable) {
    fault::for_each(fault::Call::access, [this](fault::Trial &trial) {
        begin();
        trial.arm();
        const qfi_plugin *const plugin = load();
        trial.disarm();
        if (!trial.fired())
            return expect_loaded(plugin);
        expect_nothing_loaded(plugin);
        expect_raised("MSG_QFI_UTIL_E0045", 2, "%s: plugin %s not readable\n",
                      "qzfi_newpgn: plugin libalpha.so not readable\n", {"qzfi_newpgn"});
    });
}

TEST_F(PluginFaults, a_directory_that_cannot_be_read_on_ends_there) {
    const Names order = real_order();
    const auto calls_to_reach = 1 + std::find(order.begin(), order.end(), "libalpha.so") - order.begin();
    fault::for_each(fault::Call::readdir, [this, calls_to_reach](fault::Trial &trial) {
        begin();
        trial.arm();
        const qfi_plugin *const plugin = load();
        trial.disarm();
        if (!trial.fired())
            return expect_loaded(plugin);
        // Both the scan and the choice have to come as far as the file.
        if (trial.nth() > 2 * calls_to_reach)
            return expect_loaded(plugin);
        expect_nothing_loaded(plugin);
        expect_silence();
    });
}

} // namespace
