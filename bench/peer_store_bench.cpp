// The peer key store at 1,000, 10,000 and 100,000 stored keys: lookup, save,
// removal, the sorted name list, the FIPS purge with half the keys refused,
// and lookups in FIPS mode.
//
// Each size is a template store filled once per run (half the keys RSA 1024,
// which FIPS mode refuses, the rest RSA 2048 and P-256); a benchmark that
// changes the store works on a copy of the template.
#include <benchmark/benchmark.h>

#include <chrono>
#include <map>

#include "bench_util.hpp"
#include "pkey_cfgmng.h"
#include "pkey_peer.h"
#include "pkey_platform.h"

namespace {

using namespace pkey;
using namespace pkey::bench;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kDistinctKeys = 8;

struct KeySet {
    std::vector<std::vector<unsigned char>> refused;   // RSA 1024
    std::vector<std::vector<unsigned char>> approved;  // RSA 2048, P-256
    KeySet() {
        for (unsigned int i = 0; i < kDistinctKeys; ++i) {
            refused.push_back(spki_der(make_key("RSA", 1024).get()));
            approved.push_back(spki_der(i % 2 == 0 ? make_key("RSA", 2048).get()
                                                   : make_key("EC", 0, "P-256").get()));
        }
    }
};

const KeySet &key_set() {
    static const KeySet keys;
    return keys;
}

// The i-th approved key's name: they are the odd-numbered ones.
std::string approved_name(unsigned int i) { return "user-" + std::to_string(2 * i + 1); }

struct Template {
    std::unique_ptr<BenchStore> store;
    std::vector<std::string> names;
};

// The filled store of n keys, made on first use.
const Template &filled(unsigned int n) {
    static std::map<unsigned int, Template> templates;
    auto it = templates.find(n);
    if (it == templates.end()) {
        Template t;
        t.store = std::make_unique<BenchStore>();
        t.names = fill_peer_store(n, key_set().refused, key_set().approved);
        it = templates.emplace(n, std::move(t)).first;
    }
    it->second.store->use();
    return it->second;
}

void BM_Lookup(benchmark::State &state) {
    const Template &t = filled(static_cast<unsigned int>(state.range(0)));
    std::mt19937 rng(1);
    std::uniform_int_distribution<std::size_t> pick(0, t.names.size() - 1);
    for (auto _ : state) {
        EVP_PKEY *key = PKEY_GetUserKeyByName(t.names[pick(rng)].c_str());
        if (key == nullptr) {
            state.SkipWithError("lookup failed");
            break;
        }
        EVP_PKEY_free(key);
    }
}

void BM_Save(benchmark::State &state) {
    const Template &t = filled(static_cast<unsigned int>(state.range(0)));
    const BenchStore work(t.store->root());
    EvpPkeyPtr key = make_key("EC", 0, "P-256");
    unsigned int i = 0;
    for (auto _ : state) {
        const std::string name = "new-" + std::to_string(i++);
        if (PKEY_SavePeerPubKey(key.get(), name.c_str()) != 0) {
            state.SkipWithError("save failed");
            break;
        }
    }
}

void BM_Remove(benchmark::State &state) {
    const Template &t = filled(static_cast<unsigned int>(state.range(0)));
    const BenchStore work(t.store->root());
    const auto &der = key_set().approved[0];
    unsigned int i = 0;
    for (auto _ : state) {
        // Each removal takes a key that was just added, so the size stays n.
        const std::string name = "gone-" + std::to_string(i++);
        state.PauseTiming();
        PKEY_PEER_SavePeerPubKey(der.data(), static_cast<unsigned int>(der.size()), name.c_str());
        state.ResumeTiming();
        if (PKEY_PEER_RemovePeerPubKeyByName(name.c_str()) != 0) {
            state.SkipWithError("remove failed");
            break;
        }
    }
}

void BM_SortedList(benchmark::State &state) {
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    filled(n);
    for (auto _ : state) {
        const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
        unsigned int count = 0;
        PKEY_NAME_LINK_S *list = PKEY_CFGMNG_GetSortedPeerKeyNameList(handle, &count);
        PKEY_CFGMNG_DestroySortedPeerKeyNameList(list);
        DBM_Close(handle);
        if (count != n) {
            state.SkipWithError("the list misses names");
            break;
        }
    }
}

void BM_FipsPurge(benchmark::State &state) {
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    const Template &t = filled(n);
    for (auto _ : state) {
        const BenchStore work(t.store->root());
        HOST_SetFipsMode(1);
        const auto start = Clock::now();
        PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        HOST_SetFipsMode(0);
        const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
        unsigned int left = 0;
        std::free(PKEY_CFGMNG_GetPeerPubKeyList(handle, &left));
        DBM_Close(handle);
        if (left != n / 2) {
            state.SkipWithError("the purge left the wrong keys");
            break;
        }
    }
    state.counters["removed"] = n - n / 2;
}

// In FIPS mode a lookup is preceded by the purge. With the second argument
// 0 it finds nothing changed since the last one; with 1 another writer has
// saved one refused key just before (untimed), which it examines alone and
// removes.
void BM_LookupFips(benchmark::State &state) {
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    const bool saved_between = state.range(1) != 0;
    const Template &t = filled(n);
    const BenchStore work(t.store->root());
    HOST_SetFipsMode(1);
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
    const auto &refused = key_set().refused[0];
    std::mt19937 rng(1);
    std::uniform_int_distribution<unsigned int> pick(0, n / 2 - 1);
    for (auto _ : state) {
        if (saved_between) {
            state.PauseTiming();
            PKEY_PEER_SavePeerPubKey(refused.data(), static_cast<unsigned int>(refused.size()),
                                     "late");
            state.ResumeTiming();
        }
        EVP_PKEY *key = PKEY_GetUserKeyByName(approved_name(pick(rng)).c_str());
        if (key == nullptr) {
            state.SkipWithError("lookup failed");
            break;
        }
        EVP_PKEY_free(key);
    }
    HOST_SetFipsMode(0);
}

constexpr int kSizes[] = {1000, 10000, 100000};

void sizes(benchmark::internal::Benchmark *b) {
    for (int n : kSizes) b->Arg(n);
}

BENCHMARK(BM_Lookup)->Apply(sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Save)->Apply(sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Remove)->Apply(sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SortedList)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FipsPurge)
    ->Apply(sizes)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LookupFips)
    ->ArgsProduct({{1000, 10000, 100000}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
