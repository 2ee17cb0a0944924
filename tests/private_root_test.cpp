#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/private_root.h"

namespace {

namespace fs = std::filesystem;

std::string content_of(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class PrivateRoot : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
    }
};

TEST_F(PrivateRoot, what_is_written_is_seen_at_its_fixed_path_by_every_new_thread) {
    const std::string path = private_root::write_file("resources/ja_JP.UTF-8/file", std::string("a\0b\n", 4));
    EXPECT_EQ(path, "/usr/lumen/resources/ja_JP.UTF-8/file");
    std::string content;
    std::thread([&] { content = content_of(path); }).join();
    EXPECT_EQ(content, std::string("a\0b\n", 4));
}

TEST_F(PrivateRoot, is_a_file_system_of_its_own_and_keeps_the_rest_of_usr) {
    EXPECT_NE(content_of("/proc/self/mounts").find(" /usr/lumen tmpfs "), std::string::npos);
    EXPECT_TRUE(fs::exists("/usr/bin/env"));
    EXPECT_TRUE(fs::is_directory("/usr/lib"));
}

TEST_F(PrivateRoot, entering_again_empties_it) {
    private_root::write_file("resources/file", "text");
    private_root::make_directories("lib");
    EXPECT_EQ(private_root::enter(), std::nullopt);
    EXPECT_TRUE(fs::is_empty("/usr/lumen"));
}

TEST_F(PrivateRoot, bundles_are_made_of_their_source_texts) {
    const std::string directory = private_root::make_bundles(
        "resources/libfi", {{"root", R"(root { ID { "text" } })"}, {"ja", "ja { ID { \"\u3042\" } }"}});
    EXPECT_EQ(directory, "/usr/lumen/resources/libfi");
    EXPECT_EQ(content_of(directory + "/root.res").substr(2, 2), "\xda\x27"); // the magic number of bundles
    EXPECT_EQ(content_of(directory + "/ja.res").substr(2, 2), "\xda\x27");
}

TEST_F(PrivateRoot, a_bundle_that_cannot_be_made_throws) {
    EXPECT_THROW(private_root::make_bundles("resources/libfi", {{"root", "root {"}}), std::exception);
}

} // namespace
