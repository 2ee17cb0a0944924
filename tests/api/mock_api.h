// What the tests' API implementation libraries record, and how a test reaches it.
//
// Each library is built from mock_api.cpp with other macros. It keeps its record in itself, so that a library that was
// closed and loaded again starts afresh; its journal, a file named by MOCK_JOURNAL, goes on over loads: one line each
// for load, start, shutdown and unload, in the order in which they happened.
#pragma once

#include <cstdint>

#include <qzfi/frontend.h>

/// One call of an entry.
struct MockCall {
    int slot;
    int count;           // arguments
    uint64_t values[13]; // zero-extended from the width that the entry takes
};

/// Called by the start entry when the handler record's `reserved1` points at one, and by the others as `on_call`.
using MockHook = void (*)();

struct MockApi {
    int32_t status;    // what the entries return
    const char *text;  // what the message-text entry gives
    int32_t starts;    // calls of the start entry
    int32_t shutdowns; // calls of the shutdown entry
    int32_t calls;     // calls of any other entry; atomic
    MockCall last;     // valid while one thread calls
    const void *start_first;
    int32_t start_second;
    const qfi_handler *start_handler;
    int32_t start_fourth;
    MockHook on_call; // run inside every entry but start and shutdown; or null
};

/// Exported by every one of them under the name "mock_api".
using MockAccess = MockApi *(*)();
