// What a forwarded call costs beside the same call through a plain function pointer, at 1 to 8 threads.
//
// Both run in one process, repetitions interleaved at random; the ratio is that of the medians of CPU time per call,
// so that more threads than processors do not count against either.
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include <qzfi.h>

#include "timing.h"

namespace {

char short_name[] = "enclosure-0/volume-17/image-3";

using One = int32_t (*)(void *);
using Three = int32_t (*)(void *, void *, void *);
using Thirteen = int32_t (*)(void *, int32_t, void *, void *, void *, void *, void *, int32_t, int32_t, void *, void *,
                             void *, void *);

/// An operation of the benchmark: its arguments are the same for both ways of calling.
struct Empty {
    static constexpr const char *name = "empty";
    static constexpr const char *entry = "qzfi_quiesce";
    using Function = One;
    static int32_t forwarded() { return qzfiapi_quiesce(short_name); }
    static int32_t pointed(Function function) { return function(short_name); }
};

struct Job {
    static constexpr const char *name = "job";
    static constexpr const char *entry = "qzfi_make";
    using Function = Three;
    static int32_t forwarded() { return qzfiapi_make(short_name, nullptr, nullptr); }
    static int32_t pointed(Function function) { return function(short_name, nullptr, nullptr); }
};

struct Many {
    static constexpr const char *name = "empty, 13 arguments";
    static constexpr const char *entry = "qzfi_offline_resource";
    using Function = Thirteen;
    static int32_t forwarded() {
        return qzfiapi_offline_resource(short_name, 1, nullptr, nullptr, nullptr, nullptr, nullptr, 2, 3, nullptr,
                                        nullptr, nullptr, nullptr);
    }
    static int32_t pointed(Function function) {
        return function(short_name, 1, nullptr, nullptr, nullptr, nullptr, nullptr, 2, 3, nullptr, nullptr, nullptr,
                        nullptr);
    }
};

constexpr int calls = 64; // a round, so that the loop's own cost fades

template <class Operation>
void forward(benchmark::State &state) {
    for (auto _ : state)
        for (int call = 0; call < calls; ++call)
            benchmark::DoNotOptimize(Operation::forwarded());
}

template <class Operation>
void pointer(benchmark::State &state) {
    static const auto loaded = reinterpret_cast<typename Operation::Function>(
        dlsym(dlopen(BENCH_API, RTLD_LAZY | RTLD_NOLOAD), Operation::entry));
    typename Operation::Function function = loaded;
    for (auto _ : state)
        for (int call = 0; call < calls; ++call) {
            benchmark::DoNotOptimize(function); // the caller is not to know what it calls
            benchmark::DoNotOptimize(Operation::pointed(function));
        }
}

constexpr int most_threads = 8;

/// CPU time per round of each repetition, by operation, way of calling and number of threads.
std::map<std::string, std::vector<double>> times;

std::string key(const std::string &name, int threads) {
    return name + "/" + std::to_string(threads);
}

class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Iteration)
                times[key(run.run_name.function_name, static_cast<int>(run.threads))].push_back(
                    run.cpu_accumulated_time / static_cast<double>(run.iterations));
        ConsoleReporter::ReportRuns(runs);
    }
};

template <class Operation>
void add() {
    for (int threads = 1; threads <= most_threads; ++threads)
        for (const auto &[way, function] :
             {std::pair{"forward", &forward<Operation>}, std::pair{"pointer", &pointer<Operation>}})
            benchmark::RegisterBenchmark((std::string(Operation::name) + " " + way).c_str(), function)
                ->Threads(threads)
                ->Repetitions(15)
                ->MinTime(0.02);
}

template <class Operation>
void print_ratios() {
    for (int threads = 1; threads <= most_threads; ++threads) {
        const auto &forwarded = times[key(std::string(Operation::name) + " forward", threads)];
        const auto &pointed = times[key(std::string(Operation::name) + " pointer", threads)];
        if (forwarded.empty() || pointed.empty())
            continue;
        const double nanoseconds = 1e9 / calls;
        std::printf("%s: forward/pointer at %d threads: %.3f (%.3f ns / %.3f ns)\n", Operation::name, threads,
                    median(forwarded) / median(pointed), median(forwarded) * nanoseconds,
                    median(pointed) * nanoseconds);
    }
}

} // namespace

int main(int count, char **arguments) {
    setenv("QFI_API_LIB", BENCH_API, 1);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> all{arguments, arguments + count};
    all.insert(all.begin() + 1, interleave.data());
    int total = static_cast<int>(all.size());
    benchmark::Initialize(&total, all.data());
    if (benchmark::ReportUnrecognizedArguments(total, all.data()))
        return 1;
    if (qzfiapi_set_init_env("/nonexistent", nullptr) != 0 || qzfiapi_start(nullptr, QFI_API_VERSION) != 0 ||
        qzfiapi_quiesce(nullptr) != 0) {
        std::fprintf(stderr, "the API library %s is not bound\n", BENCH_API);
        return 1;
    }
    add<Job>();
    add<Empty>();
    add<Many>();
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    print_ratios<Job>();
    print_ratios<Empty>();
    print_ratios<Many>();
    return qzfiapi_shutdown();
}
