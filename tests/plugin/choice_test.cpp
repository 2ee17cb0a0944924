// Which of a plugin's files is taken.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "plugin_fixture.h"

// Directories are shown in an order that a test chooses: file systems keep to none.
namespace {

std::mutex shown_mutex;
std::vector<std::vector<std::string>> shown;
std::size_t streams_shown = 0;
struct Position {
    std::size_t stream;
    std::size_t next;
};
std::map<DIR *, Position> positions;

} // namespace

void show_entries(std::vector<std::vector<std::string>> streams) {
    const std::lock_guard guard{shown_mutex};
    shown = std::move(streams);
    streams_shown = 0;
    positions.clear();
}

extern "C" {
const char *__real_qzfi_dir(DIR *stream);
const char *__wrap_qzfi_dir(DIR *stream);
const char *__wrap_qzfi_dir(DIR *stream) {
    const std::lock_guard guard{shown_mutex};
    if (shown.empty())
        return __real_qzfi_dir(stream);
    const auto [each, is_new] = positions.try_emplace(stream, Position{streams_shown, 0});
    if (is_new && streams_shown + 1 < shown.size())
        ++streams_shown;
    Position &position = each->second;
    const auto &names = shown[position.stream];
    return position.next < names.size() ? names[position.next++].c_str() : nullptr;
}

int32_t __real_qzfi_closedir(DIR *stream);
int32_t __wrap_qzfi_closedir(DIR *stream);
int32_t __wrap_qzfi_closedir(DIR *stream) {
    {
        const std::lock_guard guard{shown_mutex};
        positions.erase(stream);
    }
    return __real_qzfi_closedir(stream);
}
}

namespace {

class PluginChoice : public Plugins {
protected:
    /// The file that is chosen when the directory lists its entries in this order; "" for none.
    std::string chosen_of(const Names &names) {
        forget();
        fi_del_all_errors();
        free_list(list);
        make_files(names);
        show_entries({names});
        const qfi_plugin *const plugin = load();
        show_entries({});
        return plugin != nullptr ? fs::path(plugin->library_path).filename().string() : "";
    }
};

TEST_F(PluginChoice, of_several_versions_the_one_listed_last_is_taken_whatever_their_numbers) {
    EXPECT_EQ(chosen_of({"libalpha.so.2", "libalpha.so.10"}), "libalpha.so.10");
    EXPECT_EQ(chosen_of({"libalpha.so.10", "libalpha.so.2"}), "libalpha.so.2");
    EXPECT_EQ(chosen_of({"libalpha.so.3", "libalpha.so.10", "libalpha.so.0"}), "libalpha.so.0");
    EXPECT_EQ(chosen_of({"libalpha.so.999999999999999", "libalpha.so.1"}), "libalpha.so.1");
    expect_silence();
}

TEST_F(PluginChoice, a_file_without_a_version_counts_like_one_with) {
    EXPECT_EQ(chosen_of({"libalpha.so", "libalpha.so.7"}), "libalpha.so.7");
    EXPECT_EQ(chosen_of({"libalpha.so.7", "libalpha.so"}), "libalpha.so");
    EXPECT_EQ(chosen_of({"libalpha.so"}), "libalpha.so");
    expect_silence();
}

TEST_F(PluginChoice, the_file_that_a_real_directory_lists_last_is_taken) {
    make_files({"libalpha.so", "libalpha.so.2", "libalpha.so.10", "libalpha.so.007", "libbeta.so.99"});
    Names order = real_order();
    std::erase_if(order, [](const std::string &name) { return !name.starts_with("libalpha"); });
    code = 12;
    EXPECT_EQ(load(), nullptr);
    Names of_alpha = offered;
    std::erase_if(of_alpha, [](const std::string &name) { return !name.starts_with("libalpha"); });
    EXPECT_EQ(of_alpha, Names(4, order.back()));
    expect_silence();
}

TEST_F(PluginChoice, a_badly_formed_version_is_reported_and_not_taken) {
    for (const char *file : {"libalpha.so.1a", "libalpha.so.-1", "libalpha.so.+1", "libalpha.so. 1", "libalpha.so.1.2",
                             "libalpha.so.x", "libalpha.so.0123456789012345"}) {
        EXPECT_EQ(chosen_of({file}), "") << file;
        expect_badly_formed(file);
        EXPECT_EQ(offered, Names{});
    }
}

TEST_F(PluginChoice, fifteen_digits_are_well_formed) {
    EXPECT_EQ(chosen_of({"libalpha.so.012345678901234"}), "libalpha.so.012345678901234");
    EXPECT_EQ(chosen_of({"libalpha.so.999999999999999"}), "libalpha.so.999999999999999");
    expect_silence();
}

TEST_F(PluginChoice, an_empty_version_is_well_formed) {
    EXPECT_EQ(chosen_of({"libalpha.so.1", "libalpha.so."}), "libalpha.so.");
    EXPECT_EQ(chosen_of({"libalpha.so.", "libalpha.so.1"}), "libalpha.so.1");
    expect_silence();
}

TEST_F(PluginChoice, a_badly_formed_version_stands_in_nobodys_way) {
    EXPECT_EQ(chosen_of({"libalpha.so.1", "libalpha.so.1a"}), "libalpha.so.1");
    expect_badly_formed("libalpha.so.1a");
    EXPECT_EQ(chosen_of({"libalpha.so.1a", "libalpha.so"}), "libalpha.so");
    expect_badly_formed("libalpha.so.1a");
}

TEST_F(PluginChoice, a_badly_formed_version_is_reported_at_each_choice_for_its_base_name) {
    make_files({"libalpha.so.1a", "libalpha.so.1b", "libbeta.so"});
    show_entries({{"libalpha.so.1a", "libalpha.so.1b", "libbeta.so"}});
    ASSERT_NE(load(), nullptr);
    ASSERT_EQ(reports.size(), 4u);
    const std::string start = "latest_pgnversion: library path libalpha.so.1";
    for (std::size_t index = 0; index < reports.size(); ++index)
        EXPECT_EQ(reports[index],
                  (Report{start + (index % 2 == 0 ? "a" : "b") + " has badly formed version number\n", "(null)", 2}));
    EXPECT_EQ(raised().size(), 4u);
    EXPECT_EQ(offered, Names{"libbeta.so"});
}

TEST_F(PluginChoice, the_base_name_stands_between_the_first_prefix_and_the_first_dot) {
    const struct {
        const char *file;
        const char *base; // null when it is no plugin
    } rows[] = {
        {"libalpha.so", "alpha"},
        {"my-libalpha.so", "alpha"},
        {"libfoolib.so.3", "foolib"},
        {"liblib.so", "lib"},
        {"lib.so", ""},
        {"lib.lib.so", nullptr},
        {"alpha.so", nullptr},
        {"lib", nullptr},
        {"my.lib", nullptr},
        {"libalpha", nullptr},
        {"libalpha.so2", nullptr},
        {"libalpha.txt", nullptr},
        {"libalpha.txt.so", nullptr},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(chosen_of({row.file}), row.base != nullptr ? row.file : "") << row.file;
        EXPECT_STREQ(list != nullptr ? list->vp_prefix : nullptr, row.base);
        expect_silence();
        fs::remove(directory + row.file);
    }
}

TEST_F(PluginChoice, any_text_before_the_prefix_makes_a_file_of_the_same_plugin) {
    EXPECT_EQ(chosen_of({"libalpha.so", "old-libalpha.so.1"}), "old-libalpha.so.1");
    EXPECT_EQ(chosen_of({"old-libalpha.so.1", "libalpha.so"}), "libalpha.so");
}

TEST_F(PluginChoice, an_entry_that_is_no_library_names_a_plugin_too) {
    make_files({"libalpha.conf", "libalpha", "libalpha.so"});
    show_entries({{"libalpha.conf", "libalpha", "libalpha.so"}});
    code = 12;
    EXPECT_EQ(load(), nullptr);
    EXPECT_EQ(offered, Names(3, "libalpha.so"));
    expect_silence();
}

TEST_F(PluginChoice, an_empty_prefix_takes_the_whole_name) {
    make_files({"alpha.so"});
    ASSERT_NE(qzfi_newpgn("plugins/", variable, "", &list, note, 0, root.c_str()), nullptr);
    EXPECT_STREQ(list->vp_prefix, "alpha");
    EXPECT_EQ(list->library_path, directory + "alpha.so");
}

TEST_F(PluginChoice, files_removed_between_the_scans_are_passed_over) {
    make_files({"libalpha.so", "libbeta.so"});
    show_entries({{"libalpha.so", "libbeta.so"}, {}, {"libbeta.so"}});
    ASSERT_NE(load(), nullptr);
    EXPECT_EQ(offered, Names{"libbeta.so"});
    expect_silence();
}

TEST_F(PluginChoice, a_name_longer_than_any_buffer_is_passed_over) {
    const std::string longest = "lib" + std::string(249, 'a') + ".so";
    ASSERT_EQ(longest.size(), 255u);
    EXPECT_EQ(chosen_of({longest}), longest);
    free_list(list);
    offered.clear();
    show_entries({{"lib" + std::string(250, 'b') + ".so", "lib" + std::string(5000, 'c') + ".so", longest}});
    ASSERT_NE(load(), nullptr);
    EXPECT_EQ(offered, Names{longest});
    expect_silence();
}

TEST_F(PluginChoice, the_dot_entries_are_no_files) {
    show_entries({{".", ".."}});
    EXPECT_EQ(qzfi_newpgn("plugins/", variable, "", &list, note, 0, root.c_str()), nullptr);
    show_entries({{".", "..", "alpha.so"}});
    make_files({"alpha.so"});
    EXPECT_NE(qzfi_newpgn("plugins/", variable, "", &list, note, 0, root.c_str()), nullptr);
    expect_silence();
}

} // namespace
