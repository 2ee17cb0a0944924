// Opening the plugin directory.
#include <cerrno>

#include "plugin_fixture.h"
#include "support/fault.h"

namespace {

class PluginDirectory : public Plugins {
protected:
    char unset[6] = "unset";
    char *path = unset;
    int32_t owned = 7;
};

TEST_F(PluginDirectory, without_the_variable_it_lies_below_the_root) {
    DIR *const stream = qzfi_pgndir("plugins/", variable, &path, &owned, root.c_str());
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(path, directory);
    EXPECT_EQ(owned, 1);
    EXPECT_EQ(qzfi_closedir(stream), 0);
    free(path);
    expect_silence();
}

TEST_F(PluginDirectory, with_the_variable_it_is_used_as_given_and_not_released) {
    setenv(variable, scratch.c_str(), 1);
    DIR *const stream = qzfi_pgndir("elsewhere/", variable, &path, &owned, "/nowhere");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(path, getenv(variable)); // the environment's own text
    EXPECT_EQ(owned, 0);
    EXPECT_EQ(qzfi_closedir(stream), 0);
    expect_silence();
}

TEST_F(PluginDirectory, with_the_variable_root_and_subdirectory_may_be_null) {
    setenv(variable, scratch.c_str(), 1);
    DIR *const stream = qzfi_pgndir(nullptr, variable, &path, &owned, nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(qzfi_closedir(stream), 0);
}

TEST_F(PluginDirectory, a_null_variable_name_counts_as_unset) {
    DIR *const stream = qzfi_pgndir("plugins/", nullptr, &path, &owned, root.c_str());
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(path, directory);
    EXPECT_EQ(owned, 1);
    EXPECT_EQ(qzfi_closedir(stream), 0);
    free(path);
}

TEST_F(PluginDirectory, empty_texts_are_texts) {
    DIR *const stream = qzfi_pgndir("", variable, &path, &owned, "");
    ASSERT_NE(stream, nullptr);
    EXPECT_STREQ(path, "/");
    EXPECT_EQ(qzfi_closedir(stream), 0);
    free(path);

    setenv(variable, "", 1);
    EXPECT_EQ(qzfi_pgndir("plugins/", variable, &path, &owned, root.c_str()), nullptr);
    expect_opendir_failure("qzfi_pgndir", "", ENOENT);
}

TEST_F(PluginDirectory, null_arguments_give_null_and_touch_nothing_else) {
    EXPECT_EQ(qzfi_pgndir("plugins/", variable, nullptr, &owned, root.c_str()), nullptr);
    EXPECT_EQ(owned, 7);
    EXPECT_EQ(qzfi_pgndir("plugins/", variable, &path, nullptr, root.c_str()), nullptr);
    EXPECT_EQ(path, unset);
    EXPECT_EQ(qzfi_pgndir("plugins/", variable, &path, &owned, nullptr), nullptr);
    EXPECT_EQ(path, nullptr);
    EXPECT_EQ(owned, 0);
    EXPECT_EQ(qzfi_pgndir(nullptr, variable, &path, &owned, root.c_str()), nullptr);
    expect_silence();
}

TEST_F(PluginDirectory, one_that_cannot_be_opened_is_raised_with_its_number_as_number_and_as_text) {
    const std::string file = directory + "file";
    make_files({"file"});
    EXPECT_EQ(qzfi_pgndir("plugins/file", variable, &path, &owned, root.c_str()), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
    expect_opendir_failure("qzfi_pgndir", file, ENOTDIR);
    EXPECT_EQ(path, nullptr);
    EXPECT_EQ(owned, 0);
}

TEST_F(PluginDirectory, one_of_the_variable_that_cannot_be_opened_is_raised_the_same_way) {
    setenv(variable, "/nowhere/plugins/", 1);
    EXPECT_EQ(qzfi_pgndir("plugins/", variable, &path, &owned, root.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    expect_opendir_failure("qzfi_pgndir", "/nowhere/plugins/", ENOENT);
    EXPECT_EQ(path, nullptr);
    EXPECT_EQ(owned, 0);
}

TEST_F(PluginDirectory, a_failed_opendir_is_recorded_without_a_listener_too) {
    unsetenv("ICU_DATA");
    EXPECT_EQ(qzfi_pgndir("none/", variable, &path, &owned, root.c_str()), nullptr);
    EXPECT_EQ(reports, std::vector<Report>{});
    EXPECT_EQ(raised(),
              (std::vector<Raised>{
                  {"MSG_QFI_UTIL_E0041", {"%s: opendir on %s failed errno %s\n", "qzfi_pgndir", root + "/none/"}}}));
}

TEST_F(PluginDirectory, without_memory_for_its_path_it_is_not_opened) {
    fault::for_each(fault::Call::allocation, [this](fault::Trial &trial) {
        forget();
        fi_del_all_errors();
        trial.arm();
        DIR *const stream = qzfi_pgndir("plugins/", variable, &path, &owned, root.c_str());
        trial.disarm();
        if (!trial.fired()) {
            ASSERT_NE(stream, nullptr);
            EXPECT_EQ(qzfi_closedir(stream), 0);
            free(path);
            expect_silence();
            return;
        }
        EXPECT_EQ(stream, nullptr);
        EXPECT_EQ(path, nullptr);
        EXPECT_EQ(owned, 0);
        expect_raised("MSG_QFI_UTIL_E0043", 3, "%s: couldn't malloc dir path buffer\n",
                      "qzfi_pgndir: couldn't malloc dir path buffer\n", {});
    });
}

TEST_F(PluginDirectory, a_failed_opendir_may_find_no_memory_to_be_raised) {
    fault::for_each(fault::Call::allocation, [this](fault::Trial &trial) {
        forget();
        fi_del_all_errors();
        setenv(variable, "/nowhere/", 1);
        trial.arm();
        EXPECT_EQ(qzfi_pgndir("plugins/", variable, &path, &owned, root.c_str()), nullptr);
        trial.disarm();
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(path, nullptr);
        EXPECT_EQ(owned, 0);
        // The second allocation is the number's text, which is no part of the record.
        if (!trial.fired() || trial.nth() == 2)
            expect_opendir_failure("qzfi_pgndir", "/nowhere/", ENOENT);
        else
            EXPECT_EQ(reports.size(), trial.nth() == 1 ? 0u : 1u);
    });
}

} // namespace
