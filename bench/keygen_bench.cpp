// Key creation end to end (PKEY_LOCAL_GenerateKey: generate, store both
// copies, copy to a standby node) next to OpenSSL generating a key of the same
// size, and the storing alone (PKEY_SaveLocalKey of a ready key).
//
// The DSA 2048 "first" pair runs first, once, in a fresh process (nothing of
// the library's is cached yet), against OpenSSL making a 2048-bit group and
// a key in it.
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>

#include "bench_util.hpp"
#include "pkey_local.h"

namespace {

using namespace pkey;
using namespace pkey::bench;
using Clock = std::chrono::steady_clock;

struct Case {
    const char *label;
    unsigned int alg;
    unsigned int bits;
    int curve_nid;
};

constexpr std::array<Case, 3> kCases{{
    {"RSA-2048", PKEY_ALG_RSA, 2048, 0},
    {"P-256", PKEY_ALG_ECDSA, 0, NID_X9_62_prime256v1},
    {"DSA-2048", PKEY_ALG_DSA, 2048, 0},
}};

BenchStore &store() {
    static BenchStore s;
    static const bool standby = [] {
        // One standby node in service, so every key is also backed up.
        const unsigned short nodes[] = {2};
        HOST_SetStandbyNodes(nodes, 1);
        HOST_SetNodeStatus(2, 1);
        return true;
    }();
    (void)standby;
    s.use();
    return s;
}

PKEY_KEYGEN_REQ_S request(const Case &c) {
    PKEY_KEYGEN_REQ_S r{};
    r.uiAlgId = c.alg;
    r.uiKeyBits = c.bits;
    r.uiCurveNid = static_cast<unsigned int>(c.curve_nid);
    // A named key pair: the default RSA host key would add a server key.
    std::snprintf(r.szKeyName, sizeof r.szKeyName, "bench");
    return r;
}

// The DSA group the library uses, as an OpenSSL parameter object.
EvpPkeyPtr library_dsa_group(unsigned int bits) {
    EvpPkeyPtr key(PKEY_GenerateDSAKey(bits));
    EvpPkeyPtr params(EVP_PKEY_new());
    if (!key || !params || EVP_PKEY_copy_parameters(params.get(), key.get()) != 1)
        throw std::runtime_error("no DSA group");
    return params;
}

EvpPkeyPtr openssl_generate(const Case &c, EVP_PKEY *dsa_group) {
    if (c.alg == PKEY_ALG_RSA) return make_key("RSA", c.bits);
    if (c.alg == PKEY_ALG_ECDSA) return make_key("EC", 0, "P-256");
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, dsa_group, nullptr));
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_keygen(ctx.get(), &key) != 1)
        throw std::runtime_error("DSA keygen failed");
    return EvpPkeyPtr(key);
}

void BM_KeygenFirstDsa_pkey(benchmark::State &state) {
    store();
    const PKEY_KEYGEN_REQ_S r = request(kCases[2]);
    for (auto _ : state)
        if (PKEY_LOCAL_GenerateKey(&r) != 0) state.SkipWithError("PKEY_LOCAL_GenerateKey failed");
}

void BM_KeygenFirstDsa_openssl(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(make_key("DSA", 2048));
}

void BM_Keygen_pkey(benchmark::State &state) {
    store();
    const PKEY_KEYGEN_REQ_S r = request(kCases[static_cast<std::size_t>(state.range(0))]);
    for (auto _ : state)
        if (PKEY_LOCAL_GenerateKey(&r) != 0) state.SkipWithError("PKEY_LOCAL_GenerateKey failed");
    state.SetLabel(kCases[static_cast<std::size_t>(state.range(0))].label);
}

void BM_Keygen_openssl(benchmark::State &state) {
    const Case &c = kCases[static_cast<std::size_t>(state.range(0))];
    store();
    EvpPkeyPtr group = c.alg == PKEY_ALG_DSA ? library_dsa_group(c.bits) : nullptr;
    for (auto _ : state) benchmark::DoNotOptimize(openssl_generate(c, group.get()));
    state.SetLabel(c.label);
}

// What the library adds to the generation: record, cipher, both copies, backup.
void BM_Store_pkey(benchmark::State &state) {
    const Case &c = kCases[static_cast<std::size_t>(state.range(0))];
    store();
    EvpPkeyPtr group = c.alg == PKEY_ALG_DSA ? library_dsa_group(c.bits) : nullptr;
    EvpPkeyPtr key = openssl_generate(c, group.get());
    for (auto _ : state)
        if (PKEY_SaveLocalKey("bench", key.get()) != 0)
            state.SkipWithError("PKEY_SaveLocalKey failed");
    state.SetLabel(c.label);
}

BENCHMARK(BM_KeygenFirstDsa_pkey)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KeygenFirstDsa_openssl)->Iterations(5)->Repetitions(1)->Unit(benchmark::kMillisecond);
// RSA generation time varies a lot from key to key: many keys per figure.
BENCHMARK(BM_Keygen_pkey)->Arg(0)->Iterations(40)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Keygen_openssl)->Arg(0)->Iterations(40)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Keygen_pkey)->DenseRange(1, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Keygen_openssl)->DenseRange(1, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Store_pkey)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
