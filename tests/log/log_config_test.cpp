#include "log/log_support.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

using namespace log_support;
using namespace std::string_literals;

/// The mask of a configuration file with this text.
uint32_t mask_of(const std::string &config) {
    const FreshLog fresh;
    const Installation installation;
    installation.configure(config);
    const uint32_t mask = init_qzfi_logFile(installation.root().c_str());
    EXPECT_EQ(installation.log_files().size(), mask == 0 ? 0u : 1u);
    return mask;
}

struct NamedBit {
    const char *name;
    uint32_t bit;
};

void PrintTo(const NamedBit &row, std::ostream *out) {
    *out << row.name;
}

class LevelNames : public testing::TestWithParam<NamedBit> {};

TEST_P(LevelNames, set_their_bit) {
    EXPECT_EQ(mask_of("debug_level="s + GetParam().name + "\n"), GetParam().bit);
}

TEST_P(LevelNames, are_case_sensitive_and_whole) {
    const std::string name = GetParam().name;
    std::string lower = name;
    for (char &letter : lower)
        letter = static_cast<char>(tolower(letter));
    EXPECT_EQ(mask_of("debug_level=" + lower + "\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=" + name + "X\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=X" + name + "\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=" + name.substr(0, name.size() - 1) + "\n"), 0u);
}

INSTANTIATE_TEST_SUITE_P(LogConfig, LevelNames,
                         testing::Values(NamedBit{"INFO", 0x100}, NamedBit{"WARN", 0x200}, NamedBit{"TRC_TOP", 0x400},
                                         NamedBit{"TRC_LOW", 0x800}, NamedBit{"PARAM_IN", 0x1000},
                                         NamedBit{"PARAM_OUT", 0x2000}, NamedBit{"PARAM_FULL", 0x4000}));

TEST(LogConfig, a_list_of_names_adds_up) {
    EXPECT_EQ(mask_of("debug_level=INFO|TRC_LOW\n"), 0x900u);
    EXPECT_EQ(mask_of("debug_level=INFO|TRC_TOP|PARAM_IN\n"), 0x1500u);
    EXPECT_EQ(mask_of("debug_level=INFO|WARN|TRC_TOP|TRC_LOW|PARAM_IN|PARAM_OUT|PARAM_FULL\n"), 0x7f00u);
    EXPECT_EQ(mask_of("debug_level=INFO|INFO\n"), 0x100u);
}

TEST(LogConfig, several_setting_lines_add_up) {
    EXPECT_EQ(mask_of("debug_level=INFO\nother=TRC_TOP\n\ndebug_level=WARN\n"), 0x300u);
}

TEST(LogConfig, a_blank_around_a_name_makes_it_unknown) {
    EXPECT_EQ(mask_of("debug_level= INFO\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=INFO \n"), 0u);
    EXPECT_EQ(mask_of("debug_level=INFO |WARN\n"), 0x200u);
    EXPECT_EQ(mask_of("debug_level=INFO| WARN\n"), 0x100u);
    EXPECT_EQ(mask_of("debug_level =INFO\n"), 0x100u);
}

TEST(LogConfig, a_line_that_begins_with_the_comment_character_is_ignored) {
    EXPECT_EQ(mask_of("#debug_level=INFO\n"), 0u);
    EXPECT_EQ(mask_of("#debug_level=INFO\ndebug_level=WARN\n"), 0x200u);
    EXPECT_EQ(mask_of(" #debug_level=INFO\n"), 0x100u);
}

TEST(LogConfig, the_word_may_stand_anywhere_in_the_line) {
    EXPECT_EQ(mask_of("my_debug_levels=INFO\n"), 0x100u);
    EXPECT_EQ(mask_of("level=INFO|debug_level\n"), 0x100u);
    EXPECT_EQ(mask_of("=debug_level|INFO\n"), 0x100u);
    EXPECT_EQ(mask_of("DEBUG_LEVEL=INFO\n"), 0u);
    EXPECT_EQ(mask_of("level=INFO\n"), 0u);
    EXPECT_EQ(mask_of("debug_level INFO\n"), 0u);
}

TEST(LogConfig, the_value_follows_the_first_equals_sign) {
    EXPECT_EQ(mask_of("WARN=1 debug_level=INFO\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=WARN=INFO\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=WARN|x=INFO|TRC_TOP\n"), 0x600u);
}

TEST(LogConfig, empty_and_unknown_pieces_are_ignored) {
    EXPECT_EQ(mask_of("debug_level=INFO||WARN\n"), 0x300u);
    EXPECT_EQ(mask_of("debug_level=|INFO|\n"), 0x100u);
    EXPECT_EQ(mask_of("debug_level=\n"), 0u);
    EXPECT_EQ(mask_of("debug_level="), 0u);
    EXPECT_EQ(mask_of("debug_level=|\n"), 0u);
    EXPECT_EQ(mask_of("debug_level=NOISE|0x800|WARN|255\n"), 0x200u);
}

TEST(LogConfig, the_last_line_needs_no_newline) {
    EXPECT_EQ(mask_of("debug_level=INFO|WARN"), 0x300u);
}

TEST(LogConfig, a_carriage_return_is_part_of_the_last_name) {
    EXPECT_EQ(mask_of("debug_level=INFO|WARN\r\n"), 0x100u);
}

TEST(LogConfig, a_zero_byte_ends_what_is_seen_of_its_line) {
    EXPECT_EQ(mask_of("debug_level=INFO\0|WARN\ndebug_level=TRC_TOP\n"s), 0x500u);
    EXPECT_EQ(mask_of("\0debug_level=INFO\n"s), 0u);
    EXPECT_EQ(mask_of("debug_\0level=INFO\ndebug_level=WARN"s), 0x200u);
}

TEST(LogConfig, a_line_of_249_characters_is_read_whole) {
    const std::string setting = "debug_level=INFO";
    const std::string line = std::string(249 - setting.size(), ' ') + setting;
    EXPECT_EQ(mask_of(line), 0x100u);
    EXPECT_EQ(mask_of(line + "\n" + line + "\n"), 0x100u);
}

TEST(LogConfig, a_longer_line_goes_on_as_a_further_line) {
    const std::string setting = "debug_level=INFO";
    const std::string filled = std::string(249 - setting.size(), ' ') + setting;
    EXPECT_EQ(mask_of(filled + "X|WARN\n"), 0x100u);
    EXPECT_EQ(mask_of(" " + filled + "\n"), 0u);
    EXPECT_EQ(mask_of("#" + std::string(248, 'x') + setting + "\n"), 0x100u);
    EXPECT_EQ(mask_of("#" + std::string(247, 'x') + setting + "\n"), 0u);
    EXPECT_EQ(mask_of(std::string(249, 'x') + "#" + setting + "\n"), 0u);
    EXPECT_EQ(mask_of(std::string(2 * 249, 'x') + setting + "\n"), 0x100u);
}

TEST(LogConfig, a_null_root_reads_nothing) {
    const FreshLog fresh;
    EXPECT_EQ(init_qzfi_logFile(nullptr), 0u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
}

TEST(LogConfig, a_missing_file_gives_no_mask_and_no_log) {
    const FreshLog fresh;
    const Installation installation;
    EXPECT_EQ(init_qzfi_logFile(installation.root().c_str()), 0u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
    EXPECT_TRUE(installation.log_files().empty());
}

TEST(LogConfig, a_mask_of_0_makes_no_log_file) {
    const FreshLog fresh;
    const Installation installation;
    installation.configure("debug_level=NOTHING\n");
    EXPECT_EQ(init_qzfi_logFile(installation.root().c_str()), 0u);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
    EXPECT_TRUE(installation.log_files().empty());
}

TEST(LogConfig, a_directory_in_its_place_is_no_configuration) {
    const FreshLog fresh;
    const Installation installation;
    fs::create_directories(installation.config());
    EXPECT_EQ(init_qzfi_logFile(installation.root().c_str()), 0u);
}

TEST(LogConfig, a_pipe_in_its_place_is_no_configuration_and_is_not_waited_for) {
    const FreshLog fresh;
    const Installation installation;
    fs::create_directories(installation.config().parent_path());
    ASSERT_EQ(mkfifo(installation.config().c_str(), 0600), 0);
    EXPECT_EQ(init_qzfi_logFile(installation.root().c_str()), 0u);
    EXPECT_TRUE(installation.log_files().empty());
}

TEST(LogConfig, a_link_to_a_configuration_is_followed) {
    const FreshLog fresh;
    const Installation installation;
    write_file(installation.root() + "/elsewhere", "debug_level=INFO\n");
    fs::create_directories(installation.config().parent_path());
    fs::create_symlink("../elsewhere", installation.config());
    EXPECT_EQ(init_qzfi_logFile(installation.root().c_str()), 0x100u);
}

} // namespace
