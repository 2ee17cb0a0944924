// A program of its own, run for each plugin before libfi.so loads it: does there what libfi.so is about to do. Whether
// the plugin is to be refused for another reason than a crash is found out by libfi.so itself.
#include <cstddef>
#include <cstdint>
#include <dlfcn.h>
#include <unistd.h>

#include <qzfi_provider.h>

#include "fi/fi_provider_trial.h"

namespace {

void tell(char step) {
    // Nobody listens any more when this fails, so nobody is waiting either.
    if (write(qzfi::fi::trial_report, &step, 1) != 1)
        _exit(1);
}

// Versions are four signed 16-bit numbers, the first in the lowest bits.
constexpr bool is_newer(uint64_t version, uint64_t than) {
    for (int bits = 0; bits < 64; bits += 16) {
        const auto number = static_cast<int16_t>(version >> bits), other = static_cast<int16_t>(than >> bits);
        if (number != other)
            return number > other;
    }
    return false;
}

[[noreturn]] void end() {
    tell(qzfi::fi::trial_over);
    _exit(0);
}

} // namespace

int main(int count, char **words) {
    if (count != 2)
        return 2;
    tell(qzfi::fi::trial_loading);
    void *const library = dlopen(words[1], RTLD_LAZY);
    if (library == nullptr)
        end();
    using Entry = const qfi_provider_ops *(*)();
    const auto entry = reinterpret_cast<Entry>(dlsym(library, QFI_PROVIDER_ENTRY));
    const qfi_provider_ops *const ops = entry != nullptr ? entry() : nullptr;
    const bool is_usable =
        ops != nullptr && ops->size >= sizeof(qfi_provider_ops) && !is_newer(ops->version, QFI_API_VERSION);
    if (!is_usable)
        end();
    tell(qzfi::fi::trial_starting);
    const bool has_started = ops->start == nullptr || ops->start() == 0;
    tell(qzfi::fi::trial_stopping);
    if (has_started && ops->stop != nullptr)
        ops->stop();
    dlclose(library);
    end();
}
