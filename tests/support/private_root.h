// A private, empty "/usr/lumen" for tests of what is found at fixed paths there, which never touch the real one.
//
//     class Catalogs : public testing::Test {
//         void SetUp() override {
//             if (const auto obstacle = private_root::enter())
//                 GTEST_SKIP() << *obstacle;
//         }
//     };
//
// The process gets a mount namespace of its own: its threads and children started later see the private tree too.
// All but `enter` throw std::exception when the system refuses, which fails the test.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace private_root {

/// Enters the namespace at the first call and empties "/usr/lumen" at each. Returns why that is impossible here, to be
/// skipped with; nothing when inside.
std::optional<std::string> enter();

/// Makes a directory below "/usr/lumen" and those above it: make_directories("resources/ja_JP.UTF-8").
/// Returns its path.
std::string make_directories(const std::string &below);

/// Writes a file below "/usr/lumen", with its directories: write_file("resources/ZELTqzfi.cat", text).
/// Returns its path.
std::string write_file(const std::string &below, const std::string &content);

/// Makes the bundles NAME.res of the source texts NAME.txt, by genrb, in a directory below "/usr/lumen":
/// make_bundles("resources/libfi", {{"root", "root { ID { \"text\" } }"}, {"ja", "ja { ... }"}}).
/// The texts are UTF-8. Returns the directory's path.
std::string make_bundles(const std::string &below, const std::map<std::string, std::string> &sources);

} // namespace private_root
