// Providers that are not what they should be, each by its FLAW.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <qzfi_provider.h>

namespace {

enum Flaw {
    flaw_crash_entry = 1,
    flaw_crash_start,
    flaw_exit_start,
    flaw_refuse_start,
    flaw_small,
    flaw_newer,
    flaw_no_table,
    flaw_no_name,
    flaw_taken,
    flaw_none,
    flaw_crash_stop,
    flaw_hang_start,
    flaw_hang_closed,
    flaw_find_files,
    flaw_talk,
    flaw_crash_older
};
constexpr int flaw = FLAW;

// As the system sees it, whatever a sanitizer would make of it.
[[noreturn]] void crash() {
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
    _exit(1);
}

int32_t start() {
    if (flaw == flaw_crash_start || flaw == flaw_crash_older)
        crash();
    if (flaw == flaw_hang_closed)
        close_range(0, ~0U, 0);
    while (flaw == flaw_hang_start || flaw == flaw_hang_closed)
        pause();
    for (int file = 4; flaw == flaw_find_files && file < 1024; ++file)
        if (fcntl(file, F_GETFD) != -1)
            exit(9);
    for (int count = 0; flaw == flaw_talk && count < 1000; ++count)
        if (write(STDOUT_FILENO, "sttl", 4) != 4)
            return 43;
    if (flaw == flaw_exit_start)
        exit(7);
    return flaw == flaw_refuse_start ? 42 : 0;
}

void stop() {
    if (flaw == flaw_crash_stop)
        crash();
}

qfi_provider_ops operations;

} // namespace

extern "C" QZFI_API const qfi_provider_ops *qfi_provider_entry(void);

const qfi_provider_ops *qfi_provider_entry(void) {
    if (flaw == flaw_crash_entry)
        crash();
    operations.size = flaw == flaw_small ? 16 : sizeof operations;
    constexpr uint64_t older = 6 | 9 << 16; // 6.9.0.0
    operations.version = flaw == flaw_newer ? uint64_t{QFI_API_VERSION} + 1 : uint64_t{QFI_API_VERSION};
    if (flaw == flaw_crash_older)
        operations.version = older;
    operations.provider_id = flaw == flaw_no_name ? "a b" : flaw == flaw_taken ? "good" : NAME;
    operations.fim_id = NAME;
    operations.description = "A provider of a test";
    operations.hlevel = 1;
    operations.start = start;
    operations.stop = stop;
    return flaw == flaw_no_table ? nullptr : &operations;
}
