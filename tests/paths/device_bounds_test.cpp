#include "paths/device_support.h"

#include <cstring>
#include <unistd.h>

#include "support/fault.h"

using device::block_of;
using device::Inside;
using device::Name;
using device::raw_of;

namespace {

class DeviceBounds : public device::Devices {};
class DeviceFaults : public device::Devices {};

/// "/"-led components of any total length from 1 on, none longer than a file name may be.
std::string components(std::size_t length, char letter) {
    std::string path;
    while (path.size() < length) {
        const std::size_t left = length - path.size();
        // Never leaves a lone "/" for the end.
        const std::size_t piece = left > 200 ? 150 : left;
        path += "/" + std::string(piece - 1, letter);
    }
    return path;
}

std::string with_r_in_last(std::string path) {
    return path.insert(path.rfind('/') + 1, "r");
}

constexpr std::size_t longest = 1023;

} // namespace

TEST_F(DeviceBounds, a_path_of_1023_characters_is_taken) {
    const std::string path = components(longest, 'd');
    ASSERT_EQ(path.size(), longest);
    block(path, 8, 1);
    character(with_r_in_last(path), 8, 1);
    const Inside inside(root);
    EXPECT_EQ(raw_of(path), with_r_in_last(path));
}

TEST_F(DeviceBounds, a_character_device_path_of_1023_characters_is_taken) {
    const std::string path = components(longest - 1, 'd');
    block(path, 8, 1);
    character(with_r_in_last(path), 8, 1);
    const Inside inside(root);
    ASSERT_EQ(with_r_in_last(path).size(), longest);
    EXPECT_EQ(block_of(with_r_in_last(path)), path);
}

TEST_F(DeviceBounds, the_length_counts_as_given) {
    block("/dev/sda1", 8, 1);
    character("/dev/rsda1", 8, 1);
    const Inside inside(root);
    const std::string block_path = "/dev" + std::string(longest - 8, '/') + "sda1";
    const std::string raw_path = "/dev" + std::string(longest - 9, '/') + "rsda1";
    ASSERT_EQ(block_path.size(), longest);
    ASSERT_EQ(raw_path.size(), longest);
    EXPECT_EQ(raw_of(block_path), "/dev/rsda1");
    EXPECT_EQ(block_of(raw_path), "/dev/sda1");
    EXPECT_EQ(raw_of("/" + block_path), std::nullopt);
    EXPECT_EQ(block_of("/" + raw_path), std::nullopt);
}

TEST_F(DeviceBounds, a_longer_path_gives_null_at_once) {
    const Inside inside(root);
    for (const std::size_t length : {longest + 1, longest + 2, std::size_t{5000}}) {
        const std::string path(length, '/');
        const device::StatRecord record;
        const fault::Armed armed(fault::Call::allocation, 1);
        EXPECT_EQ(qzfi_block_to_char(path.c_str()), nullptr);
        EXPECT_EQ(qzfi_char_to_block(path.c_str()), nullptr);
        EXPECT_FALSE(fault::Armed::fired());
        EXPECT_TRUE(record.names().empty());
    }
}

TEST_F(DeviceBounds, the_longest_canonical_path_and_its_r_fit_the_result) {
    const std::string above = components(longest, 'a');
    const std::string path = components(longest + 1, 'd');
    block(above + path, 8, 1);
    character(above + with_r_in_last(path), 8, 1);
    const Inside inside(root);
    ASSERT_EQ(chdir(above.c_str()), 0);
    ASSERT_EQ(above.size() + path.size(), 2047U);
    EXPECT_EQ(raw_of(path.substr(1)), above + with_r_in_last(path));
}

TEST_F(DeviceBounds, a_path_whose_canonical_form_does_not_fit_is_used_as_given) {
    const std::string above = components(longest + 1, 'a');
    const std::string path = components(longest + 1, 'd');
    block(above + path, 8, 1);
    character(above + with_r_in_last(path), 8, 1);
    const Inside inside(root);
    ASSERT_EQ(chdir(above.c_str()), 0);
    ASSERT_EQ(above.size() + path.size(), 2048U);
    EXPECT_EQ(raw_of(path.substr(1)), with_r_in_last(path).substr(1));
}

TEST(DeviceNames, a_null_path_gives_null) {
    EXPECT_EQ(qzfi_block_to_char(nullptr), nullptr);
    EXPECT_EQ(qzfi_char_to_block(nullptr), nullptr);
}

TEST_F(DeviceFaults, without_a_canonical_path_the_given_one_is_used_and_without_a_result_buffer_there_is_none) {
    block("/dev/sda1", 8, 1);
    character("/dev/rsda1", 8, 1);
    for (const bool to_raw : {true, false}) {
        fault::for_each(fault::Call::allocation, [this, to_raw](fault::Trial &trial) {
            char *result = nullptr;
            device::Name found;
            {
                const Inside inside(root);
                trial.arm();
                result = to_raw ? qzfi_block_to_char("/dev/sda1") : qzfi_char_to_block("/dev/rsda1");
                trial.disarm();
            }
            if (result != nullptr)
                found = result;
            std::free(result);
            const Name expected = to_raw ? "/dev/rsda1" : "/dev/sda1";
            EXPECT_EQ(found, trial.fired() && trial.nth() == 2 ? std::nullopt : expected);
            EXPECT_LE(trial.nth(), 3);
        });
    }
}

TEST_F(DeviceFaults, a_path_that_is_used_as_given_is_not_made_canonical) {
    block("/dev/sda1", 8, 1);
    character("/dev/rsda1", 8, 1);
    const Inside inside(root);
    {
        const fault::Armed armed(fault::Call::getcwd, 1);
        EXPECT_EQ(raw_of("dev//sda1"), "dev//rsda1");
        EXPECT_TRUE(fault::Armed::fired());
    }
    {
        const fault::Armed armed(fault::Call::getcwd, 1);
        EXPECT_EQ(block_of("./dev//rsda1"), "./dev//sda1");
        EXPECT_TRUE(fault::Armed::fired());
    }
    ASSERT_EQ(chdir("/dev"), 0);
    const device::StatRecord record;
    const fault::Armed armed(fault::Call::getcwd, 1, {.from_then_on = true});
    EXPECT_EQ(raw_of("sda1"), std::nullopt);
    EXPECT_EQ(block_of("rsda1"), std::nullopt);
    EXPECT_TRUE(record.names().empty());
}

TEST_F(DeviceFaults, a_name_that_cannot_be_looked_at_is_no_pair) {
    block("/dev/sda1", 8, 1);
    character("/dev/rsda1", 8, 1);
    character("/rdev/sda1", 8, 1);
    fault::for_each(fault::Call::stat, [this](fault::Trial &trial) {
        Name found;
        {
            const Inside inside(root);
            trial.arm();
            found = raw_of("/dev/sda1");
            trial.disarm();
        }
        EXPECT_EQ(found, trial.fired() ? "/rdev/sda1" : "/dev/rsda1");
    });
    fault::for_each(fault::Call::stat,
                    [this](fault::Trial &trial) {
                        Name found;
                        {
                            const Inside inside(root);
                            trial.arm();
                            found = raw_of("/dev/sda1");
                            trial.disarm();
                        }
                        EXPECT_EQ(found, trial.fired() ? std::nullopt : Name("/dev/rsda1"));
                    },
                    {.from_then_on = true});
}

TEST_F(DeviceFaults, no_failure_of_a_look_makes_a_wrong_block_device) {
    block("/ra/b", 8, 1);
    block("/a/rb", 8, 1);
    character("/ra/rb", 8, 1);
    fault::for_each(fault::Call::stat, [this](fault::Trial &trial) {
        Name found;
        {
            const Inside inside(root);
            trial.arm();
            found = block_of("/ra/rb");
            trial.disarm();
        }
        EXPECT_EQ(found, trial.fired() ? "/a/rb" : "/ra/b");
    });
}
