#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "objectid/tree_walk.h"
#include "support/fault.h"

namespace {

qfi_objid_t *intern(const std::string &bytes) {
    return qzfi_get_objid(bytes.data(), static_cast<int32_t>(bytes.size()), QFI_OID_INTERN);
}

std::string bytes_of(const qfi_objid_t &id) {
    return {static_cast<const char *>(id.vid_name), static_cast<std::size_t>(id.vid_length)};
}

void free_private(qfi_objid_t *id) {
    free(const_cast<void *>(id->vid_name));
    free(id);
}

uint32_t compare(const std::string &a, const std::string &b) {
    const qfi_objid_t first{a.data(), static_cast<int32_t>(a.size()), 0};
    const qfi_objid_t second{b.data(), static_cast<int32_t>(b.size()), 0};
    return qzfi_objidcmp(&first, &second);
}

class ObjectId : public testing::Test {
protected:
    ~ObjectId() override { qzfi_ufini(); }
};

TEST_F(ObjectId, the_sum_takes_bytes_as_signed) {
    const struct {
        std::string bytes;
        uint32_t sum;
    } rows[] = {
        {"a", 97},
        {"abc", 294},
        {"\x80", 4294967168},
        {"\xff", 4294967295},
        {"\x7f\x80", 4294967295},
        {"\xff\xff\xff\xff\xff", 4294967291},
        {{"\0\0", 2}, 0},
    };
    for (const auto &row : rows)
        EXPECT_EQ(objsum(row.bytes.data(), static_cast<int32_t>(row.bytes.size())), row.sum);
}

TEST_F(ObjectId, the_sum_of_nothing_is_0) {
    EXPECT_EQ(objsum("abc", 0), 0u);
    EXPECT_EQ(objsum("abc", -1), 0u);
    EXPECT_EQ(objsum("abc", INT32_MIN), 0u);
    EXPECT_EQ(objsum(nullptr, 3), 0u);
}

TEST_F(ObjectId, the_same_bytes_are_interned_once) {
    std::string bytes = "volume-1";
    qfi_objid_t *first = intern(bytes);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->vid_type, 3u);
    EXPECT_EQ(first->vid_length, 8);
    EXPECT_NE(first->vid_name, bytes.data());
    bytes[7] = '2';
    EXPECT_EQ(bytes_of(*first), "volume-1");
    EXPECT_NE(intern(bytes), first);
    EXPECT_EQ(intern("volume-1"), first);
    EXPECT_EQ(interned_nodes().size(), 2u);
}

TEST_F(ObjectId, any_bytes_are_an_id) {
    const std::string ids[] = {{"\0", 1}, {"\0\0", 2}, {"a\0b", 3}, {"a\0c", 3}, "\xff\x80\x01"};
    std::set<const qfi_objid_t *> records;
    for (const std::string &id : ids) {
        records.insert(intern(id));
        EXPECT_EQ(bytes_of(*intern(id)), id);
    }
    EXPECT_EQ(records.size(), std::size(ids));
}

TEST_F(ObjectId, only_the_lowest_flag_means_interning) {
    qfi_objid_t *interned = intern("abc");
    EXPECT_EQ(qzfi_get_objid("abc", 3, 3), interned);
    EXPECT_EQ(qzfi_get_objid("abc", 3, UINT32_MAX), interned);
    qfi_objid_t *copy = qzfi_get_objid("abc", 3, ~1u);
    EXPECT_NE(copy, interned);
    EXPECT_EQ(copy->vid_type, 2u);
    free_private(copy);
}

TEST_F(ObjectId, a_private_copy_is_a_fresh_record_each_time) {
    const std::string bytes = "abc";
    qfi_objid_t *first = qzfi_get_objid(bytes.data(), 3, 0);
    qfi_objid_t *second = qzfi_get_objid(bytes.data(), 3, 0);
    EXPECT_NE(first, second);
    for (qfi_objid_t *copy : {first, second}) {
        EXPECT_EQ(copy->vid_type, 2u);
        EXPECT_EQ(copy->vid_length, 3);
        EXPECT_NE(copy->vid_name, bytes.data());
        EXPECT_EQ(bytes_of(*copy), "abc");
        free_private(copy);
    }
    EXPECT_EQ(interned_nodes().size(), 0u);
}

TEST_F(ObjectId, no_bytes_give_null) {
    for (const uint32_t flags : {0u, 1u}) {
        EXPECT_EQ(qzfi_get_objid(nullptr, 3, flags), nullptr);
        EXPECT_EQ(qzfi_get_objid("abc", 0, flags), nullptr);
        EXPECT_EQ(qzfi_get_objid("abc", -1, flags), nullptr);
        EXPECT_EQ(qzfi_get_objid("abc", INT32_MIN, flags), nullptr);
    }
}

TEST_F(ObjectId, ids_of_3071_bytes_are_interned_and_longer_ones_are_not) {
    const std::string bytes(4000, 'x');
    qfi_objid_t *longest = qzfi_get_objid(bytes.data(), 3071, QFI_OID_INTERN);
    ASSERT_NE(longest, nullptr);
    EXPECT_EQ(qzfi_get_objid(bytes.data(), 3071, QFI_OID_INTERN), longest);
    EXPECT_EQ(static_cast<void *>(istbl[3071]), longest);
    for (const int32_t length : {3072, 3073, 4000})
        EXPECT_EQ(qzfi_get_objid(bytes.data(), length, QFI_OID_INTERN), nullptr);
    EXPECT_EQ(qzfi_get_objid(bytes.data(), INT32_MAX, QFI_OID_INTERN), nullptr);
    qfi_objid_t *copy = qzfi_get_objid(bytes.data(), 4000, 0);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(bytes_of(*copy), bytes);
    free_private(copy);
}

TEST_F(ObjectId, every_length_has_its_own_record) {
    const std::string bytes(3071, '\x91');
    std::vector<const qfi_objid_t *> records;
    for (int32_t length = 1; length <= 3071; ++length)
        records.push_back(qzfi_get_objid(bytes.data(), length, QFI_OID_INTERN));
    for (int32_t length = 1; length <= 3071; ++length) {
        ASSERT_NE(records[static_cast<std::size_t>(length) - 1], nullptr);
        EXPECT_EQ(static_cast<const void *>(istbl[length]), records[static_cast<std::size_t>(length) - 1]);
        EXPECT_EQ(qzfi_get_objid(bytes.data(), length, QFI_OID_INTERN), static_cast<const void *>(istbl[length]));
    }
}

TEST_F(ObjectId, many_ids_of_few_checksums_are_found_again) {
    constexpr int count = 100'000;
    std::vector<const qfi_objid_t *> records;
    for (int number = 0; number < count; ++number)
        records.push_back(intern("id" + std::to_string(1'000'000 + number)));
    for (int number = 0; number < count; ++number) {
        ASSERT_EQ(bytes_of(*records[static_cast<std::size_t>(number)]), "id" + std::to_string(1'000'000 + number));
        ASSERT_EQ(intern("id" + std::to_string(1'000'000 + number)), records[static_cast<std::size_t>(number)]);
    }
    EXPECT_EQ(interned_nodes().size(), std::size_t{count});
}

TEST_F(ObjectId, checksums_that_only_rise_make_a_tree_that_is_a_list) {
    std::string bytes(3000, '\x80');
    std::size_t count = 0;
    for (char &byte : bytes) {
        byte = '\x7f';
        ASSERT_NE(intern(bytes), nullptr);
        ++count;
    }
    std::size_t depth = 0;
    for (const qzfi_isnode *node = istbl[3000]; node != nullptr; node = node->right)
        ++depth;
    EXPECT_EQ(depth, count);
    EXPECT_EQ(interned_nodes().size(), count);
}

TEST_F(ObjectId, ids_are_equal_smaller_or_greater) {
    EXPECT_EQ(compare("abc", "abc"), 0u);
    EXPECT_EQ(compare("abc", "abd"), UINT32_MAX);
    EXPECT_EQ(compare("abd", "abc"), 1u);
    EXPECT_EQ(compare("\x80", "\x7f"), 1u); // unsigned
    EXPECT_EQ(compare("\x7f", "\x80"), UINT32_MAX);
    EXPECT_EQ(compare({"a\0b", 3}, {"a\0c", 3}), UINT32_MAX);
}

TEST_F(ObjectId, ids_of_different_lengths_are_1_either_way) {
    EXPECT_EQ(compare("abc", "abcd"), 1u);
    EXPECT_EQ(compare("abcd", "abc"), 1u);
    EXPECT_EQ(compare("", "a"), 1u);
}

TEST_F(ObjectId, ids_without_bytes_are_equal) {
    EXPECT_EQ(compare("", ""), 0u);
    const qfi_objid_t negative{"abc", -1, 0};
    const qfi_objid_t other{"xyz", -1, 0};
    EXPECT_EQ(qzfi_objidcmp(&negative, &other), 0u);
}

TEST_F(ObjectId, two_ids_of_the_interned_type_alone_are_compared_by_address) {
    const std::string bytes = "abc";
    const std::string equal = "abc";
    const qfi_objid_t first{bytes.data(), 3, QFI_OID_INTERN};
    const qfi_objid_t same{bytes.data(), 2, QFI_OID_INTERN};
    const qfi_objid_t other{equal.data(), 3, QFI_OID_INTERN};
    EXPECT_EQ(qzfi_objidcmp(&first, &same), 0u); // whatever their lengths
    EXPECT_EQ(qzfi_objidcmp(&first, &other), 1u);
    for (const uint32_t type : {0u, 2u, 3u, 5u}) {
        const qfi_objid_t mixed{equal.data(), 3, type};
        EXPECT_EQ(qzfi_objidcmp(&first, &mixed), 0u);
        EXPECT_EQ(qzfi_objidcmp(&mixed, &first), 0u);
    }
}

TEST_F(ObjectId, interned_records_are_compared_by_their_bytes) {
    const qfi_objid_t copy{"abc", 3, 3};
    EXPECT_EQ(qzfi_objidcmp(intern("abc"), &copy), 0u);
    EXPECT_EQ(qzfi_objidcmp(intern("abc"), intern("abd")), UINT32_MAX);
}

TEST_F(ObjectId, comparing_null_is_safe) {
    const qfi_objid_t id{"abc", 3, 0};
    const qfi_objid_t nameless{nullptr, 3, 0};
    EXPECT_EQ(qzfi_objidcmp(&id, nullptr), 1u);
    EXPECT_EQ(qzfi_objidcmp(nullptr, &id), 1u);
    EXPECT_EQ(qzfi_objidcmp(nullptr, nullptr), 0u);
    EXPECT_EQ(qzfi_objidcmp(&id, &nameless), 1u);
    EXPECT_EQ(qzfi_objidcmp(&nameless, &id), 1u);
    EXPECT_EQ(qzfi_objidcmp(&nameless, &nameless), 0u);
}

TEST_F(ObjectId, a_private_copy_keeps_nothing_when_memory_is_short) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        trial.arm();
        qfi_objid_t *id = qzfi_get_objid("abc", 3, 0);
        trial.disarm();
        EXPECT_EQ(id == nullptr, trial.fired());
        if (id != nullptr)
            free_private(id);
    });
}

TEST_F(ObjectId, interning_enters_nothing_when_memory_is_short) {
    // The last number is where the indexes grow for the first time.
    for (const int earlier : {0, 1, 191, 192, 193})
        fault::for_each(fault::Call::allocation, [earlier](fault::Trial &trial) {
            for (int number = 0; number < earlier; ++number)
                intern(std::string(static_cast<std::size_t>(number + 10), 'x'));
            qfi_objid_t *known = earlier > 0 ? intern("xxxxxxxxxx") : nullptr;
            trial.arm();
            qfi_objid_t *id = intern("abc");
            trial.disarm();
            EXPECT_EQ(id == nullptr, trial.fired());
            EXPECT_EQ(istbl[3] == nullptr, trial.fired());
            EXPECT_EQ(interned_nodes().size(), static_cast<std::size_t>(earlier) + (trial.fired() ? 0 : 1));
            if (known != nullptr) {
                EXPECT_EQ(intern("xxxxxxxxxx"), known);
            }
            qfi_objid_t *again = intern("abc");
            ASSERT_NE(again, nullptr);
            if (id != nullptr) {
                EXPECT_EQ(again, id);
            }
            EXPECT_EQ(static_cast<void *>(istbl[3]), again);
            qzfi_ufini();
        });
}

TEST_F(ObjectId, looking_up_needs_no_memory) {
    qfi_objid_t *known = intern("abc");
    const fault::Armed armed(fault::Call::allocation, 1, {0, true});
    EXPECT_EQ(intern("abc"), known);
    EXPECT_FALSE(fault::Armed::fired());
}

TEST_F(ObjectId, taking_over_nodes_of_others_survives_short_memory) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        qfi_objid_t *known = intern("abc");
        pthread_mutex_lock(&mutex);
        for (int number = 0; number < 400; ++number) { // more than the index has room for
            const std::string bytes = std::to_string(100 + number);
            auto *node = static_cast<qzfi_isnode *>(calloc(1, sizeof(qzfi_isnode)));
            node->id = {strdup(bytes.c_str()), 3, QFI_OID_INTERN | QFI_OID_ALLOC};
            node->checksum = 294; // not theirs, so that they are all in the chain of "abc"
            insertis(istbl[3], node);
        }
        pthread_mutex_unlock(&mutex);
        trial.arm();
        qfi_objid_t *id = intern("cba");
        trial.disarm();
        EXPECT_EQ(id == nullptr, trial.fired());
        EXPECT_EQ(intern("abc"), known);
        EXPECT_NE(intern("cba"), nullptr);
        EXPECT_EQ(nodes_in_order(istbl[3]).size(), 402u);
        qzfi_ufini();
    });
}

TEST_F(ObjectId, shutdown_empties_the_table) {
    for (int number = 0; number < 1000; ++number)
        intern(std::string(static_cast<std::size_t>(number % 90 + 1), static_cast<char>(number)));
    EXPECT_NE(interned_nodes().size(), 0u);
    EXPECT_EQ(qzfi_ufini(), 0);
    for (const qzfi_isnode *root : istbl)
        EXPECT_EQ(root, nullptr);
    EXPECT_EQ(qzfi_ufini(), 0);
}

TEST_F(ObjectId, ids_live_from_before_the_start_to_the_shutdown) {
    qfi_objid_t *early = intern("abc");
    ASSERT_EQ(qzfiapi_set_init_env("/nonexistent", nullptr), 0);
    EXPECT_EQ(qzfiapi_shutdown(), 0); // not started: does nothing
    EXPECT_EQ(intern("abc"), early);
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    EXPECT_EQ(intern("abc"), early);
    ASSERT_EQ(qzfiapi_shutdown(), 0);
    EXPECT_EQ(interned_nodes().size(), 0u);
    qfi_objid_t *late = intern("abc");
    ASSERT_NE(late, nullptr);
    EXPECT_EQ(bytes_of(*late), "abc");
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    EXPECT_EQ(intern("abc"), late);
    ASSERT_EQ(qzfiapi_shutdown(), 0);
    qzfiapi_set_init_env(nullptr, nullptr);
}

constexpr std::size_t thread_count = 8;

/// Runs a function on eight threads at once; it is given the thread's number.
template <class Function>
void on_all_threads(Function function) {
    std::atomic<std::size_t> ready = 0;
    std::vector<std::thread> threads;
    for (std::size_t number = 0; number < thread_count; ++number)
        threads.emplace_back([&, number] {
            ++ready;
            while (ready < thread_count)
                std::this_thread::yield();
            function(number);
        });
    for (std::thread &thread : threads)
        thread.join();
}

TEST_F(ObjectId, threads_that_intern_the_same_ids_share_one_record_each) {
    constexpr std::size_t count = 5000;
    std::vector<std::vector<const qfi_objid_t *>> records(thread_count);
    on_all_threads([&](std::size_t thread) {
        for (std::size_t number = 0; number < count; ++number)
            records[thread].push_back(intern("shared/" + std::to_string(number)));
    });
    for (std::size_t number = 0; number < count; ++number) {
        ASSERT_NE(records[0][number], nullptr);
        EXPECT_EQ(bytes_of(*records[0][number]), "shared/" + std::to_string(number));
        for (const auto &others : records)
            EXPECT_EQ(others[number], records[0][number]);
    }
    EXPECT_EQ(interned_nodes().size(), count);
}

TEST_F(ObjectId, looking_up_and_walking_go_on_while_others_intern) {
    constexpr std::size_t count = 2000;
    std::vector<const qfi_objid_t *> known;
    for (std::size_t number = 0; number < count; ++number)
        known.push_back(intern("known/" + std::to_string(number)));
    on_all_threads([&](std::size_t thread) {
        for (int walk = 0; thread == 0 && walk < 3; ++walk)
            EXPECT_GE(interned_nodes().size(), count);
        for (std::size_t number = 0; number < count; ++number) {
            EXPECT_EQ(intern("known/" + std::to_string(number)), known[number]);
            EXPECT_NE(intern(std::to_string(thread) + "/" + std::to_string(number)), nullptr);
        }
    });
    EXPECT_EQ(interned_nodes().size(), count * (1 + thread_count));
}

TEST_F(ObjectId, looking_up_takes_no_lock_and_entering_does) {
    qfi_objid_t *known = intern("known");
    std::atomic<qfi_objid_t *> entered = nullptr;
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(intern("known"), known); // would wait for itself
    std::thread other([&] { entered = intern("other"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(entered, nullptr);
    EXPECT_EQ(istbl[5]->left, nullptr);
    EXPECT_EQ(istbl[5]->right, nullptr);
    pthread_mutex_unlock(&mutex);
    other.join();
    EXPECT_NE(entered, nullptr);
    EXPECT_EQ(interned_nodes().size(), 2u);
}

TEST_F(ObjectId, readers_stay_right_while_the_index_grows_and_others_enter_nodes) {
    constexpr int count = 20'000;
    qfi_objid_t *known = intern("known");
    std::vector<const qfi_objid_t *> entered;
    on_all_threads([&](std::size_t thread) {
        if (thread > 1) { // only look up
            for (int number = 0; number < count; ++number)
                ASSERT_EQ(intern("known"), known);
            return;
        }
        for (int number = 0; number < count; ++number) {
            if (thread == 0) {
                ASSERT_NE(intern("new/" + std::to_string(number)), nullptr);
                continue;
            }
            const std::string bytes = "node" + std::to_string(100'000 + number);
            auto *node = static_cast<qzfi_isnode *>(calloc(1, sizeof(qzfi_isnode)));
            node->id = {strdup(bytes.c_str()), 10, QFI_OID_INTERN | QFI_OID_ALLOC};
            node->checksum = static_cast<int32_t>(objsum(bytes.data(), 10));
            pthread_mutex_lock(&mutex);
            if (istbl[10] == nullptr)
                __atomic_store_n(&istbl[10], node, __ATOMIC_RELEASE);
            else
                insertis(istbl[10], node);
            pthread_mutex_unlock(&mutex);
            entered.push_back(&node->id);
            ASSERT_EQ(intern(bytes), &node->id);
        }
    });
    for (const qfi_objid_t *id : entered)
        ASSERT_EQ(intern(bytes_of(*id)), id);
    EXPECT_EQ(interned_nodes().size(), std::size_t{1 + 2 * count});
}

} // namespace
