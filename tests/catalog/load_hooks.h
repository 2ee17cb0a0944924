// Calls between the loading of a catalog and what it uses, seen by the tests of it. Each still does the real work.
#pragma once

#include <atomic>
#include <functional>

#include "catalog_support.h"

namespace load_hooks {

/// Calls of qzfi_findMsgCatalog: one for each load that is tried.
extern std::atomic<int> loads;
/// Calls of pthread_cond_wait, counted under the mutex that the wait gives up.
extern std::atomic<int> waits;
/// Runs before each load, on the thread that loads.
extern std::function<void()> before_load;
/// Runs before the first read of each load, once the file's size is known.
extern std::function<void()> before_read;
/// Takes the place of the locale when set: the C library never gives null by itself.
extern bool has_no_locale;

void reset();

/// Also without hooks that an earlier test has set.
class LoadTest : public catalog_support::CatalogTest {
protected:
    void SetUp() override {
        CatalogTest::SetUp();
        reset();
    }
};

} // namespace load_hooks
