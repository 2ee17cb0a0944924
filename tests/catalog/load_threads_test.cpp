#include <algorithm>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "load_hooks.h"

namespace {

using namespace catalog_support;

class CatalogThreads : public load_hooks::LoadTest {};

/// What so many threads get for one key, asking at once.
std::vector<const char *> ask(unsigned count) {
    std::vector<const char *> formats(count);
    std::vector<std::thread> threads;
    std::barrier start(static_cast<std::ptrdiff_t>(count));
    for (unsigned number = 0; number < count; ++number)
        threads.emplace_back([&, number] {
            start.arrive_and_wait();
            formats[number] = qzfi_getlfmt("key");
        });
    for (std::thread &thread : threads)
        thread.join();
    return formats;
}

TEST_F(CatalogThreads, asking_at_once_load_the_file_once) {
    write_catalog("en_US", "key \"format\"\n");
    for (const unsigned count : {2U, 16U})
        for (int round = 0; round < 20; ++round) {
            qzfi_ufini();
            load_hooks::loads = 0;
            const std::vector<const char *> formats = ask(count);
            EXPECT_EQ(load_hooks::loads, 1);
            EXPECT_EQ(formats, std::vector<const char *>(count, formats[0]));
            EXPECT_STREQ(formats[0], "format");
            EXPECT_EQ(lfmtbusy, 0);
            EXPECT_TRUE(lock_is_free());
        }
}

TEST_F(CatalogThreads, all_who_wait_for_the_one_that_loads_are_woken) {
    constexpr unsigned count = 16;
    write_catalog("en_US", "key \"format\"\n");
    load_hooks::before_load = [] {
        while (load_hooks::waits < int{count} - 1 && load_hooks::loads == 1)
            std::this_thread::yield();
    };
    const std::vector<const char *> formats = ask(count);
    EXPECT_EQ(load_hooks::loads, 1);
    EXPECT_GE(load_hooks::waits, int{count} - 1);
    EXPECT_EQ(formats, std::vector<const char *>(count, formats[0]));
    EXPECT_STREQ(formats[0], "format");
}

TEST_F(CatalogThreads, each_tries_once_when_every_load_fails) {
    for (const unsigned count : {2U, 16U})
        for (int round = 0; round < 20; ++round) {
            load_hooks::loads = 0;
            EXPECT_EQ(ask(count), std::vector<const char *>(count, nullptr));
            EXPECT_EQ(load_hooks::loads, static_cast<int>(count));
            EXPECT_EQ(lfmtbusy, 0);
            EXPECT_TRUE(lock_is_free());
        }
}

TEST_F(CatalogThreads, a_waiter_loads_when_the_first_load_failed) {
    load_hooks::before_load = [] {
        if (load_hooks::loads == 2)
            write_catalog("en_US", "key \"format\"\n");
    };
    const std::vector<const char *> formats = ask(16);
    EXPECT_EQ(load_hooks::loads, 2);
    // The one whose load failed looks afterwards, and may find what the other has loaded meanwhile.
    EXPECT_GE(std::count(formats.begin(), formats.end(), qzfi_getlfmt("key")), 15);
    EXPECT_STREQ(qzfi_getlfmt("key"), "format");
}

TEST_F(CatalogThreads, a_load_holds_the_mark_and_not_the_lock) {
    write_catalog("en_US", "key \"format\"\n");
    bool was_free = false;
    int32_t mark = 0;
    load_hooks::before_load = [&] {
        was_free = lock_is_free();
        mark = lfmtbusy;
    };
    EXPECT_EQ(format_of("key"), "format");
    EXPECT_TRUE(was_free);
    EXPECT_EQ(mark, 1);
    EXPECT_EQ(lfmtbusy, 0);
}

TEST_F(CatalogThreads, look_ups_in_a_loaded_catalog_take_no_lock) {
    write_catalog("en_US", "key \"format\"\n");
    ASSERT_EQ(format_of("key"), "format");
    pthread_mutex_lock(&mutex);
    std::optional<std::string> format;
    std::thread([&] { format = format_of("key"); }).join();
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(format, "format");
}

} // namespace
