// Interning and looking up a million object ids, beside a general-purpose hash set of strings behind a mutex.
//
// The set is the fastest at interning, which its single search for finding and entering makes it, among
// absl::flat_hash_set, boost::unordered_flat_set 1.81 (4 bytes an id smaller) and tsl::robin_set. Both sides run in
// turns in one process; a ratio is that of the medians of processor time. Look-ups per second are by the clock, of the
// best round, for every other load of the machine takes from them. Ids are looked up in another order than they were
// interned in. Memory is what the allocator gave out.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <malloc.h>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <absl/strings/string_view.h>

#include <qzfi.h>

#include "timing.h"

namespace {

constexpr std::size_t id_count = 1'000'000;
constexpr int rounds = 5;
constexpr unsigned many_threads = 8;

/// Ids one behind the other, in the order in which they are used.
class Ids {
public:
    void add(std::string_view id) {
        bytes_.insert(bytes_.end(), id.begin(), id.end());
        ends_.push_back(bytes_.size());
    }
    std::size_t size() const { return ends_.size(); }
    std::string_view operator[](std::size_t place) const {
        const std::size_t begin = place == 0 ? 0 : ends_[place - 1];
        return {bytes_.data() + begin, ends_[place] - begin};
    }
    Ids shuffled(std::mt19937_64 &random) const {
        std::vector<std::size_t> order(size());
        for (std::size_t place = 0; place < order.size(); ++place)
            order[place] = place;
        std::shuffle(order.begin(), order.end(), random);
        Ids ids;
        for (const std::size_t place : order)
            ids.add((*this)[place]);
        return ids;
    }

private:
    std::vector<char> bytes_;
    std::vector<std::size_t> ends_;
};

Ids random_ids(std::mt19937_64 &random) {
    Ids ids;
    for (std::size_t count = 0; count < id_count; ++count) {
        const uint64_t words[] = {random(), random()};
        ids.add({reinterpret_cast<const char *>(words), sizeof words});
    }
    return ids;
}

/// Paths of 20 to 120 bytes whose directories recur; the number at the end tells them apart.
Ids paths(std::mt19937_64 &random) {
    static const char *const names[] = {"volumes", "data", "snapshots", "oracle", "home", "archive", "pool-7", "x"};
    Ids ids;
    for (std::size_t count = 0; count < id_count; ++count) {
        const std::size_t length = 20 + random() % 101;
        std::string path;
        while (path.size() + 20 < length)
            path += std::string("/") + names[random() % std::size(names)];
        path.resize(length - 11, '_');
        char number[16];
        std::snprintf(number, sizeof number, "/image%05zx", count);
        ids.add(path + number);
    }
    return ids;
}

struct Interning {
    const void *operator()(std::string_view id) const {
        return qzfi_get_objid(id.data(), static_cast<int32_t>(id.size()), QFI_OID_INTERN);
    }
    void clear() { qzfi_ufini(); }
};

/// So that a look-up makes no string.
struct ViewHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view id) const {
        return absl::Hash<absl::string_view>()(absl::string_view(id.data(), id.size()));
    }
};

struct Baseline {
    const void *operator()(std::string_view id) {
        const std::lock_guard guard(lock);
        return &*set.lazy_emplace(id, [id](const auto &make) { make(id); });
    }
    void clear() { set = {}; }

    std::mutex lock;
    absl::flat_hash_set<std::string, ViewHash, std::equal_to<>> set;
};

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::size_t allocated() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

template <class Table>
void use_all(Table &table, const Ids &ids, std::size_t first) {
    for (std::size_t done = 0; done < ids.size(); ++done)
        if (table(ids[(first + done) % ids.size()]) == nullptr)
            std::abort();
}

/// Seconds per run, bytes per run.
struct Samples {
    std::vector<double> interning, looking_up, looking_up_by_one, looking_up_by_many, memory;
};

template <class Table>
void run(Table &table, const Ids &ids, const Ids &lookups, Samples &samples) {
    const std::size_t before = allocated();
    double started = processor_seconds();
    use_all(table, ids, 0);
    samples.interning.push_back(processor_seconds() - started);
    samples.memory.push_back(static_cast<double>(allocated() - before));

    auto start = std::chrono::steady_clock::now();
    started = processor_seconds();
    use_all(table, lookups, 0);
    samples.looking_up.push_back(processor_seconds() - started);
    samples.looking_up_by_one.push_back(seconds_since(start));

    std::vector<std::thread> threads;
    start = std::chrono::steady_clock::now();
    for (unsigned number = 0; number < many_threads; ++number)
        threads.emplace_back([&, number] { use_all(table, lookups, number * ids.size() / many_threads); });
    for (std::thread &thread : threads)
        thread.join();
    samples.looking_up_by_many.push_back(seconds_since(start));
    table.clear();
    malloc_trim(0);
}

double least(const std::vector<double> &values) {
    return *std::min_element(values.begin(), values.end());
}

void compare(const char *name, const Ids &ids, std::mt19937_64 &random) {
    const Ids lookups = ids.shuffled(random);
    Samples ours;
    Samples theirs;
    Interning interning;
    Baseline baseline;
    for (int round = 0; round < rounds; ++round) {
        run(interning, ids, lookups, ours);
        run(baseline, ids, lookups, theirs);
    }
    const auto ratio = [name](const char *what, const std::vector<double> &a, const std::vector<double> &b,
                              const char *unit) {
        const double count = id_count;
        std::printf("%s, %s: ratio %.3f (%.0f / %.0f %s per id)\n", name, what, median(a) / median(b),
                    median(a) / count, median(b) / count, unit);
    };
    for (auto *samples : {&ours, &theirs})
        for (auto *times : {&samples->interning, &samples->looking_up})
            for (double &time : *times)
                time *= 1e9;
    ratio("interning", ours.interning, theirs.interning, "ns");
    ratio("looking up", ours.looking_up, theirs.looking_up, "ns");
    ratio("memory", ours.memory, theirs.memory, "bytes");
    for (const auto &[side, samples] : {std::pair{"interning table", &ours}, std::pair{"hash set", &theirs}}) {
        const double one = id_count / least(samples->looking_up_by_one);
        const double many = id_count * many_threads / least(samples->looking_up_by_many);
        std::printf("%s, %s: %.2f million look-ups/s by 1 thread, %.2f by %u threads: %.2f times\n", name, side,
                    one / 1e6, many / 1e6, many_threads, many / one);
    }
}

} // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // lines as they come, also into a file
    std::mt19937_64 random(20240229);
    compare("random ids of 16 bytes", random_ids(random), random);
    compare("paths of 20 to 120 bytes", paths(random), random);
    return 0;
}
