// Providers that are not what they should be, each by its FLAW.
#include <csignal>
#include <cstdlib>
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
    flaw_hang_start
};
constexpr int flaw = FLAW;

// As the system sees it, whatever a sanitizer would make of it.
[[noreturn]] void crash() {
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
    _exit(1);
}

int32_t start() {
    if (flaw == flaw_crash_start)
        crash();
    while (flaw == flaw_hang_start)
        pause();
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
    operations.version = flaw == flaw_newer ? uint64_t{QFI_API_VERSION} + 1 : uint64_t{QFI_API_VERSION};
    operations.provider_id = flaw == flaw_no_name ? "a b" : flaw == flaw_taken ? "good" : NAME;
    operations.fim_id = NAME;
    operations.description = "A provider of a test";
    operations.hlevel = 1;
    operations.start = start;
    operations.stop = stop;
    return flaw == flaw_no_table ? nullptr : &operations;
}
