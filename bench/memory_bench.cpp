// Heap use: the peak of listing 100,000 peer names (sorted list), and the
// heap before and after 10,000 save / lookup / remove cycles, which must be
// the same: the cycles leave nothing behind.
#include <benchmark/benchmark.h>

#include "bench_util.hpp"
#include "heap_counter.hpp"
#include "pkey_cfgmng.h"
#include "pkey_peer.h"
#include "pkey_platform.h"

namespace {

using namespace pkey;
using namespace pkey::bench;

void BM_ListPeakHeap(benchmark::State &state) {
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    BenchStore store;
    const std::vector<std::vector<unsigned char>> keys{spki_der(make_key("EC", 0, "P-256").get())};
    fill_peer_store(n, keys, keys);
    std::size_t peak = 0;
    for (auto _ : state) {
        heap::reset_peak();
        const std::size_t before = heap::live_bytes();
        const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
        unsigned int count = 0;
        PKEY_NAME_LINK_S *list = PKEY_CFGMNG_GetSortedPeerKeyNameList(handle, &count);
        PKEY_CFGMNG_DestroySortedPeerKeyNameList(list);
        DBM_Close(handle);
        peak = heap::peak_bytes() - before;
        if (count != n) state.SkipWithError("the list misses names");
    }
    state.counters["peak_heap_bytes"] = static_cast<double>(peak);
    state.counters["bytes_per_name"] = static_cast<double>(peak) / n;
}

void BM_CycleHeapGrowth(benchmark::State &state) {
    const unsigned int cycles = static_cast<unsigned int>(state.range(0));
    BenchStore store;
    EvpPkeyPtr key = make_key("EC", 0, "P-256");
    const auto cycle = [&](unsigned int i) {
        const std::string name = "cycle-" + std::to_string(i % 64);
        if (PKEY_SavePeerPubKey(key.get(), name.c_str()) != 0) return false;
        EvpPkeyPtr found(PKEY_GetUserKeyByName(name.c_str()));
        return found && PKEY_PEER_RemovePeerPubKeyByName(name.c_str()) == 0;
    };
    // Warm up first: connections, prepared statements and OpenSSL's
    // one-time tables are made once per process and kept on purpose.
    for (unsigned int i = 0; i < 200; ++i) cycle(i);
    std::size_t before = 0, after = 0, peak = 0;
    for (auto _ : state) {
        before = heap::live_bytes();
        heap::reset_peak();
        for (unsigned int i = 0; i < cycles; ++i)
            if (!cycle(i)) {
                state.SkipWithError("a cycle failed");
                break;
            }
        after = heap::live_bytes();
        peak = heap::peak_bytes() - before;
    }
    state.counters["heap_before"] = static_cast<double>(before);
    state.counters["heap_after"] = static_cast<double>(after);
    state.counters["growth_bytes"] = static_cast<double>(after) - static_cast<double>(before);
    state.counters["peak_above_start"] = static_cast<double>(peak);
}

BENCHMARK(BM_ListPeakHeap)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CycleHeapGrowth)->Arg(10000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
