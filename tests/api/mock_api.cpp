// An API implementation library that records. Macros make the variants:
//   MOCK_START_STATUS=n     the start entry fails with n
//   MOCK_WITHOUT_GET_PGN    no "fi_get_pgn"
//   qzfi_NAME=mock_omitted  no entry of that name
#include "mock_api.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <qzfi/plugin.h>

#include "api/qzfiapi_parameters.h"

#ifndef MOCK_START_STATUS
#define MOCK_START_STATUS 0
#endif

namespace {

MockApi record = {0, "text of the API library", 0, 0, 0, {}, nullptr, 0, nullptr, 0, nullptr};

void note(const char *line) {
    const char *const path = std::getenv("MOCK_JOURNAL");
    if (path == nullptr)
        return;
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd == -1 || write(fd, line, std::strlen(line)) == -1)
        std::abort();
    close(fd);
}

[[gnu::constructor]] void note_load() {
    note("load\n");
}
[[gnu::destructor]] void note_unload() {
    note("unload\n");
}

uint64_t widen(void *value) {
    return reinterpret_cast<uintptr_t>(value);
}
uint64_t widen(int32_t value) {
    return static_cast<uint32_t>(value);
}

bool busy = false;

template <class... Arguments>
int32_t note_call(int slot, Arguments... arguments) {
    __atomic_fetch_add(&record.calls, 1, __ATOMIC_RELAXED);
    // Many threads may call at once; the first call wins the record, and only a lone thread reads it.
    if (!__atomic_test_and_set(&busy, __ATOMIC_ACQUIRE)) {
        record.last = {slot, int{sizeof...(arguments)}, {widen(arguments)...}};
        __atomic_clear(&busy, __ATOMIC_RELEASE);
    }
    if (record.on_call != nullptr)
        record.on_call();
    return record.status;
}

} // namespace

extern "C" {

QZFI_API MockApi *mock_api();
MockApi *mock_api() {
    return &record;
}

#ifndef MOCK_WITHOUT_GET_PGN
QZFI_API qfi_plugin *fi_get_pgn(uint64_t plugin_ref);
qfi_plugin *fi_get_pgn(uint64_t) {
    return nullptr;
}
#endif

QZFI_API int32_t qzfi_start(void *first, int32_t second, qfi_handler *handler, int32_t fourth);
int32_t qzfi_start(void *first, int32_t second, qfi_handler *handler, int32_t fourth) {
    note("start\n");
    record.starts += 1;
    record.start_first = first;
    record.start_second = second;
    record.start_handler = handler;
    record.start_fourth = fourth;
    if (handler != nullptr && handler->reserved1 != nullptr)
        reinterpret_cast<MockHook>(handler->reserved1)();
    return MOCK_START_STATUS;
}

QZFI_API int32_t qzfi_shutdown();
int32_t qzfi_shutdown() {
    note("shutdown\n");
    record.shutdowns += 1;
    return 77; // nobody is to look at it
}

QZFI_API uint32_t qzfi_errmsg(uint32_t status, const char **text);
uint32_t qzfi_errmsg(uint32_t status, const char **text) {
    note_call(2, static_cast<int32_t>(status));
    *text = record.text;
    return static_cast<uint32_t>(record.status);
}

#define QZFI_OWN(slot, name)
#define QZFI_ALIAS(slot, name, ...)
#define QZFI_OPERATION(slot, name, ...)                                                                                \
    QZFI_API int32_t qzfi_##name(QZFI_PARAMETERS(__VA_ARGS__));                                                        \
    int32_t qzfi_##name(QZFI_PARAMETERS(__VA_ARGS__)) {                                                                \
        return note_call(slot, QZFI_ARGUMENTS(__VA_ARGS__));                                                           \
    }
#define QZFI_TREE QZFI_OPERATION
#define QZFI_SPARE(slot, name) QZFI_OPERATION(slot, name, ptr)
#include <qzfi/operations.def>
}
