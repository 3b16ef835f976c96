// The benchmark program.
//
//   l2vfib_bench [GOOGLE BENCHMARK FLAGS]   wall time of every case, four ways
//   l2vfib_bench --loop CASE IMPL CALLS     one loop alone, for callgrind;
//                                           prints "messages sends"
//   l2vfib_bench --cases                    the case names, one a line
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cases.h"

namespace {

using bench::Impl;

constexpr Impl kImpls[] = {Impl::kLib, Impl::kMnl, Impl::kMnlReady, Impl::kLimit};

bool ParseImpl(const char *name, Impl *impl) {
    for (Impl i : kImpls)
        if (std::strcmp(bench::ImplName(i), name) == 0) {
            *impl = i;
            return true;
        }
    return false;
}

// About a thousand messages per iteration, whatever a call yields.
uint64_t CallsPerIteration(const bench::Case &c) {
    const uint64_t perCall = bench::MessagesPerCall(c);
    return perCall >= 1000 ? 1 : 1000 / perCall;
}

void Measure(benchmark::State &state, const bench::Case *c, Impl impl) {
    const uint64_t calls = CallsPerIteration(*c);
    uint64_t messages = 0;
    uint64_t sends = 0;
    for (auto _ : state) {
        const bench::Run run = bench::bench_loop(c, impl, calls);
        messages += run.messages;
        sends += run.sends;
    }
    state.SetItemsProcessed(static_cast<int64_t>(messages));
    state.counters["ns/msg"] = benchmark::Counter(static_cast<double>(messages),
                                                  benchmark::Counter::kIsRate |
                                                      benchmark::Counter::kInvert,
                                                  benchmark::Counter::kIs1000);
    state.counters["sends/msg"] =
        messages == 0 ? 0.0 : static_cast<double>(sends) / static_cast<double>(messages);
}

}  // namespace

int main(int argc, char **argv) {
    // One loop opens the library as its case does; the wall-time runs open
    // it through the C++ face, so every case can run (the C cases' calls are
    // the same, only a notice's and an event's callback go through the
    // face's).
    const bench::Case *loop = argc == 5 && std::strcmp(argv[1], "--loop") == 0
                                  ? bench::FindCase(argv[2]) : nullptr;
    bench::Prepare(loop == nullptr || loop->face);
    if (argc == 2 && std::strcmp(argv[1], "--cases") == 0) {
        for (const bench::Case &c : bench::Cases()) std::printf("%s\n", c.name);
        return 0;
    }
    if (argc == 5 && std::strcmp(argv[1], "--loop") == 0) {
        const bench::Case *c = bench::FindCase(argv[2]);
        Impl impl;
        if (c == nullptr || !ParseImpl(argv[3], &impl)) {
            std::fprintf(stderr, "l2vfib_bench: no case %s or way %s\n", argv[2], argv[3]);
            return 2;
        }
        const bench::Run run = bench::bench_loop(c, impl, std::strtoull(argv[4], nullptr, 10));
        std::printf("%llu %llu\n", static_cast<unsigned long long>(run.messages),
                    static_cast<unsigned long long>(run.sends));
        return 0;
    }
    for (const bench::Case &c : bench::Cases())
        for (Impl impl : kImpls)
            benchmark::RegisterBenchmark((std::string(c.name) + "/" + bench::ImplName(impl)).c_str(),
                                         Measure, &c, impl);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
