// What the catalogs' text of a message costs, beside what ICU alone takes for it: the string of an open bundle, made
// UTF-8 and copied. And whether it costs more the more often it was asked for.
//
// Both sides run in turns in one process over one bundle, in a private "/usr/lumen". Each time is the processor's, the
// ratio that of the medians; the second one is that of the last rounds to the first.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <vector>

#include <unicode/resbund.h>

#include <qzfi.h>

#include "support/private_root.h"
#include "timing.h"

namespace {

constexpr int rounds = 25;
constexpr int calls = 40'000; // a round: 1,000,000 in all
constexpr const char *id = "MSG_QFI_UTIL_E0005";

char *ask(const char *locale, ...) {
    va_list none;
    va_start(none, locale);
    char *const text = fi_get_icuMsg(id, locale, none, 1);
    va_end(none);
    return text;
}

char *ask_icu(const icu::ResourceBundle &bundle) {
    UErrorCode status = U_ZERO_ERROR;
    std::string text;
    bundle.getStringEx(id, status).toUTF8String(text);
    return U_SUCCESS(status) ? strdup(text.c_str()) : nullptr;
}

/// Nanoseconds per call.
template <class Call>
double cost(const Call &call) {
    const double start = processor_seconds();
    for (int count = 0; count < calls; ++count) {
        char *const text = call();
        if (text == nullptr || std::strlen(text) < 10)
            std::abort();
        std::free(text);
    }
    return (processor_seconds() - start) / calls * 1e9;
}

} // namespace

int main() {
    if (const auto obstacle = private_root::enter()) {
        std::fprintf(stderr, "%s\n", obstacle->c_str());
        return 1;
    }
    const std::string path = private_root::make_bundles(
        "resources/libfi", {{"root", "root { MSG_QFI_UTIL_E0005 { \"Insufficient Memory\" } }"},
                            {"ja", "ja { MSG_QFI_UTIL_E0005 { \"メモリーが不足しています\" } }"}});
    UErrorCode status = U_ZERO_ERROR;
    const icu::ResourceBundle bundle(path.c_str(), icu::Locale("ja"), status);
    if (U_FAILURE(status))
        return 1;
    std::vector<double> ours;
    std::vector<double> theirs;
    ours.reserve(rounds);
    theirs.reserve(rounds);
    std::size_t memory = 0;
    for (int round = 0; round < rounds; ++round) {
        ours.push_back(cost([] { return ask("ja"); }));
        theirs.push_back(cost([&] { return ask_icu(bundle); }));
        if (round == 0)
            memory = mallinfo2().uordblks;
    }
    const std::size_t grown = mallinfo2().uordblks - memory;
    std::printf("a message's text: ratio %.2f (%.0f / %.0f ns)\n", median(ours) / median(theirs), median(ours),
                median(theirs));
    const double first = median({ours.begin(), ours.begin() + 5});
    const double last = median({ours.end() - 5, ours.end()});
    std::printf("after %d calls: ratio %.2f (%.0f / %.0f ns), %zu bytes more\n", rounds * calls, last / first, last,
                first, grown);
    return 0;
}
