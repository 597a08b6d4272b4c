// `pkeyctl --root STORE peer authorized-keys USER` as sshd runs it at every
// login: one whole process per call, start-up included, at 10,000 and 100,000
// stored peer keys, for a user with a key and one without, FIPS mode off and
// on. Reference rows: /bin/true and `pkeyctl --version` (the libraries
// loaded, no store).
//
// A store is filled once per size in one batch (half the keys RSA 1024,
// which FIPS mode refuses, the rest RSA 2048 and P-256); the FIPS variant is
// a copy switched to FIPS mode, purged by one untimed call. This process lets
// go of the store before anything is timed, so every call opens the database
// as the first and only user, as a login does when nothing else holds it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "bench_util.hpp"
#include "pkey_cfgmng.h"
#include "pkey_platform.h"

extern char **environ;

namespace {

using namespace pkey;
using namespace pkey::bench;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kDistinctKeys = 8;

// Keys written through one handle: its second write opens a transaction that
// its close commits, so 100,000 keys cost one commit.
std::vector<std::string> fill_in_one_batch(unsigned int n) {
    std::vector<std::vector<unsigned char>> refused, approved;
    for (unsigned int i = 0; i < kDistinctKeys; ++i) {
        refused.push_back(spki_der(make_key("RSA", 1024).get()));
        approved.push_back(
            spki_der(i % 2 == 0 ? make_key("RSA", 2048).get() : make_key("EC", 0, "P-256").get()));
    }
    const int handle = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_SAVE);
    if (handle == -1) throw std::runtime_error("cannot open the peer key database");
    std::vector<std::string> approved_names;
    for (unsigned int i = 0; i < n; ++i) {
        const auto &der = (i % 2 == 0 ? refused : approved)[i / 2 % kDistinctKeys];
        const std::string name = "user-" + std::to_string(i);
        if (DBM_SetBinary(handle, name.data(), static_cast<unsigned int>(name.size()), -1,
                          static_cast<unsigned int>(der.size()), der.data(), 1) != DBM_OK)
            throw std::runtime_error("filling the peer store failed");
        if (i % 2 == 1) approved_names.push_back(name);
    }
    if (DBM_Close(handle) != DBM_OK) throw std::runtime_error("committing the peer store failed");
    return approved_names;
}

// Runs a program with its standard output and error going to /dev/null (or
// its output captured), and waits for it; its exit status, and in cpu_us the
// processor time it used (user and system), which other work on the machine
// does not stretch as it stretches wall time.
int run(const std::vector<std::string> &argv, std::string *output = nullptr,
        double *cpu_us = nullptr) {
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    int out[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != nullptr && ::pipe(out) == 0) {
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (out[1] != -1) ::close(out[1]);
    if (output != nullptr && out[0] != -1) {
        char buf[4096];
        for (ssize_t got; (got = ::read(out[0], buf, sizeof buf)) > 0;)
            output->append(buf, static_cast<size_t>(got));
        ::close(out[0]);
    }
    if (spawned != 0) return -1;
    int status = 0;
    struct rusage usage {};
    if (::wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status)) return -1;
    if (cpu_us != nullptr)
        *cpu_us = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    return WEXITSTATUS(status);
}

struct Stores {
    std::unique_ptr<BenchStore> off, on;
    std::vector<std::string> names;  // users with a key allowed in both modes
};

// The filled stores of n keys, made on first use.
const Stores &stores(unsigned int n) {
    static std::map<unsigned int, Stores> made;
    static const BenchStore idle;  // where this process's store goes while programs are timed
    auto it = made.find(n);
    if (it == made.end()) {
        Stores s;
        s.off = std::make_unique<BenchStore>();
        s.names = fill_in_one_batch(n);
        idle.use();
        s.on = std::make_unique<BenchStore>(s.off->root());
        if (HOST_SetFipsMode(1) != 0) throw std::runtime_error("cannot switch FIPS mode on");
        idle.use();
        // The first lookup in FIPS mode purges the refused half.
        run({PKEYCTL_PATH, "--root", s.on->root(), "peer", "authorized-keys", s.names[0]});
        it = made.emplace(n, std::move(s)).first;
    }
    return it->second;
}

// Times one whole program per iteration; median and 90th percentile of wall
// time and the median processor time as counters.
template <typename Argv>
void time_calls(benchmark::State &state, Argv argv_of) {
    std::vector<double> us, cpu;
    unsigned int i = 0;
    for (auto _ : state) {
        const std::vector<std::string> argv = argv_of(i++);
        const auto start = Clock::now();
        double cpu_us = 0;
        const int status = run(argv, nullptr, &cpu_us);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (status != 0) {
            state.SkipWithError("the program failed");
            return;
        }
        state.SetIterationTime(seconds);
        us.push_back(seconds * 1e6);
        cpu.push_back(cpu_us);
    }
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    std::sort(cpu.begin(), cpu.end());
    state.counters["cpu_us"] = cpu[cpu.size() / 2];
    state.counters["median_us"] = us[us.size() / 2];
    state.counters["p90_us"] = us[us.size() * 9 / 10];
}

// Arguments: number of keys, FIPS mode (0/1), user with a key (1) or without (0).
void BM_AuthorizedKeys(benchmark::State &state) {
    const Stores &s = stores(static_cast<unsigned int>(state.range(0)));
    const std::string &root = (state.range(1) != 0 ? s.on : s.off)->root();
    const bool hit = state.range(2) != 0;
    const auto argv_of = [&](unsigned int i) -> std::vector<std::string> {
        const std::string user =
            hit ? s.names[i * 7919 % s.names.size()] : "nobody-" + std::to_string(i);
        return {PKEYCTL_PATH, "--root", root, "peer", "authorized-keys", user};
    };
    // The answer is checked once, untimed: a line for a user with a key, nothing otherwise.
    std::string out;
    if (run(argv_of(0), &out) != 0 || out.empty() != !hit ||
        (hit && out.find(" pkey:user-") == std::string::npos)) {
        state.SkipWithError("wrong answer");
        return;
    }
    time_calls(state, argv_of);
}

void BM_ProcessTrue(benchmark::State &state) {
    time_calls(state, [](unsigned int) { return std::vector<std::string>{"/bin/true"}; });
}

void BM_PkeyctlVersion(benchmark::State &state) {
    time_calls(state, [](unsigned int) {
        return std::vector<std::string>{PKEYCTL_PATH, "--version"};
    });
}

constexpr int kCalls = 300;

BENCHMARK(BM_ProcessTrue)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PkeyctlVersion)->Iterations(kCalls)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AuthorizedKeys)
    ->ArgsProduct({{10000, 100000}, {0, 1}, {1, 0}})
    ->Iterations(kCalls)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
