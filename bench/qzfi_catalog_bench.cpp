// What a look-up costs in a catalog file of 10,000 keys beside one of 10 keys: it is to be the same.
//
// The two are loaded in turns in one process, from a private "/usr/lumen". The same ten keys are looked up in both,
// from first to last of the file, so that what differs is the search; then every key in a scattered order, where the
// larger catalog also pays for the processor's caches. Each round's time is the processor's, a ratio that of the
// medians.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <qzfi.h>

#include "support/private_root.h"
#include "timing.h"

namespace {

constexpr int few = 10;
constexpr int many = 10'000;
constexpr int rounds = 15;
constexpr int lookups = 2'000'000;

/// Evenly spread, so that the few are the first of each tenth of the many.
std::string key(int number) {
    return "MSG_QFI_E" + std::to_string(10'000 + number);
}

std::vector<std::string> keys(int count) {
    std::vector<std::string> all;
    for (int number = 0; number < count; ++number)
        all.push_back(key(number * (many / count)));
    return all;
}

void load(int count) {
    std::string content;
    for (const std::string &one : keys(count))
        content += one + "\t\"%s: the operation on %s failed with status %d\"\n";
    private_root::write_file("resources/ZELTqzfi.cat", content);
    if (qzfi_getlfmt(key(0).c_str()) == nullptr || qzfi_getlfmt(key(many).c_str()) != nullptr) {
        std::fprintf(stderr, "the catalog is not loaded\n");
        std::exit(1);
    }
}

/// Nanoseconds per look-up, the keys in turn.
double cost(const std::vector<std::string> &asked) {
    const double start = processor_seconds();
    std::size_t place = 0;
    for (int count = 0; count < lookups; ++count) {
        if (qzfi_getlfmt(asked[place].c_str()) == nullptr)
            std::abort();
        if (++place == asked.size())
            place = 0;
    }
    return (processor_seconds() - start) / lookups * 1e9;
}

/// The texts to ask with: so many keys, each as often as the others, in an order that does not follow the file.
std::vector<std::string> scattered(int count) {
    std::vector<std::string> asked;
    while (asked.size() < many)
        for (const std::string &one : keys(count))
            asked.push_back(one);
    std::mt19937_64 random(20240229);
    std::shuffle(asked.begin(), asked.end(), random);
    return asked;
}

struct Samples {
    std::vector<double> same, all;
};

void run(int count, Samples &samples) {
    load(count);
    samples.same.push_back(cost(scattered(few)));
    samples.all.push_back(cost(scattered(count)));
    qzfi_ufini();
}

void print(const char *name, const std::vector<double> &large, const std::vector<double> &small) {
    std::printf("catalog look-up, %s: %d keys/%d keys: ratio %.3f (%.1f ns / %.1f ns)\n", name, many, few,
                median(large) / median(small), median(large), median(small));
}

} // namespace

int main() {
    if (const auto obstacle = private_root::enter()) {
        std::printf("not measured: %s\n", obstacle->c_str());
        return 0;
    }
    qzfi_setlang(1);
    Samples small;
    Samples large;
    for (int round = 0; round < rounds; ++round) {
        run(few, small);
        run(many, large);
    }
    print("the same keys", large.same, small.same);
    print("every key, scattered", large.all, small.all);
    return 0;
}
