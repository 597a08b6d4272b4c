// Several processes on one store: writers and readers of one key, savers
// killed mid-write, the peer key store under mixed operations; modes of key
// files and links planted in their place. Each test prints its counts.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "pkey_local.h"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

using pkey::EvpPkeyPtr;
using pkey::test::exit_code;
using pkey::test::get;
using pkey::test::put;
using pkey::test::same_pair;
using pkey::test::spawn;
using Pool = std::vector<EVP_PKEY *>;

bool same_public(const EVP_PKEY *a, const EVP_PKEY *b) { return EVP_PKEY_eq(a, b) == 1; }
template <typename Eq>
bool one_of(const EvpPkeyPtr &got, const Pool &pool, Eq eq) {
    return got &&
           std::any_of(pool.begin(), pool.end(), [&](EVP_PKEY *k) { return eq(got.get(), k); });
}
// What a lookup gave: nothing, a whole key pair of the pool, or anything else.
enum Seen { kNothing, kWhole, kDamaged };
Seen classify(const EvpPkeyPtr &got, const Pool &pool) {
    return !got ? kNothing : one_of(got, pool, same_pair) ? kWhole : kDamaged;
}
EvpPkeyPtr host_key(unsigned int alg) {
    return EvpPkeyPtr(PKEY_LOCAL_GetLocKey(alg, PKEY_KEY_HOST, ""));
}
int save_host(unsigned int alg, EVP_PKEY *key) {
    return PKEY_LOCAL_SaveLocalKey(alg, PKEY_KEY_HOST, key, "");
}

// Counters the parent and its children all see; a child writes only its own slots.
template <typename T>
T *shared_block() {
    void *p = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : new (p) T();
}
template <size_t N>
long sum(const long (&a)[N]) {
    return std::accumulate(a, a + N, 0L);
}

class StressTest : public pkey::test::StoreTest {
protected:
    static inline const unsigned int seed = std::random_device{}();
    // Every key any writer saves comes from here; made before any child is forked.
    const Pool ec = {pkey::test::test_key("p256"), pkey::test::test_key("p256#2"),
                     pkey::test::test_key("p256#3")};
    const Pool rsa = {pkey::test::test_key("rsa1024"), pkey::test::test_key("rsa1024#2"),
                      pkey::test::test_key("rsa1024#3")};
};

TEST_F(StressTest, ReadersOfAKeyThatTwoWritersKeepReplacingSeeOnlyWholeKeysOfThePool) {
    struct Counts {
        std::atomic<int> writers_left{2};
        long saves[2], save_failures[2], seen[3][2];  // seen[Seen][reader]
    };
    Counts *c = shared_block<Counts>();
    ASSERT_NE(c, nullptr);
    ASSERT_EQ(save_host(PKEY_ALG_ECDSA, ec[0]), 0);
    ASSERT_EQ(save_host(PKEY_ALG_RSA, rsa[0]), 0);
    std::vector<pid_t> kids;
    for (int w = 0; w < 2; ++w)
        kids.push_back(spawn([&, w] {
            std::mt19937 rng(seed + w);
            for (int i = 0; i < 150; ++i, ++c->saves[w]) {
                const bool is_ec = rng() % 2 == 0;
                EVP_PKEY *key = (is_ec ? ec : rsa)[rng() % 3];
                c->save_failures[w] += save_host(is_ec ? PKEY_ALG_ECDSA : PKEY_ALG_RSA, key) != 0;
                usleep(200 + rng() % 800);
            }
            --c->writers_left;
            return 0;
        }));
    for (int r = 0; r < 2; ++r)
        kids.push_back(spawn([&, r] {
            for (long i = 0; c->writers_left > 0 && i < 200000; ++i) {
                // Both lookup doors on both algorithms.
                const bool is_ec = i % 2 == 0;
                EvpPkeyPtr got =
                    i % 4 < 2 ? EvpPkeyPtr(PKEY_GetHostKey(is_ec ? EVP_PKEY_EC : EVP_PKEY_RSA, ""))
                              : host_key(is_ec ? PKEY_ALG_ECDSA : PKEY_ALG_RSA);
                ++c->seen[classify(got, is_ec ? ec : rsa)][r];
            }
            return 0;
        }));
    for (pid_t pid : kids) EXPECT_EQ(exit_code(pid), 0);
    // With the writers gone both files are whole again.
    EXPECT_EQ(classify(host_key(PKEY_ALG_ECDSA), ec), kWhole);
    EXPECT_EQ(classify(host_key(PKEY_ALG_RSA), rsa), kWhole);
    std::printf(
        "[ counts ] saves %ld (failed %ld); reads %ld: whole %ld, clean failures %ld, "
        "damaged %ld\n",
        sum(c->saves), sum(c->save_failures),
        sum(c->seen[kWhole]) + sum(c->seen[kNothing]) + sum(c->seen[kDamaged]),
        sum(c->seen[kWhole]), sum(c->seen[kNothing]), sum(c->seen[kDamaged]));
    EXPECT_EQ(sum(c->save_failures), 0);
    EXPECT_EQ(sum(c->seen[kDamaged]), 0);
    munmap(c, sizeof *c);
}

TEST_F(StressTest, ASaverKilledAtAnyMomentLeavesAWholeKeyOrNoneAndTheNextSaveWorks) {
    constexpr int kRounds = 30;
    std::mt19937 rng(seed);
    int seen[2][3] = {};  // [ecdsa, rsa][Seen]
    int read_back = 0;
    for (int round = 0; round < kRounds; ++round) {
        const pid_t pid = spawn([&] {
            for (unsigned int i = 0;; ++i)
                save_host(i % 2 ? PKEY_ALG_RSA : PKEY_ALG_ECDSA, (i % 2 ? rsa : ec)[i / 2 % 3]);
            return 0;
        });
        usleep(rng() % 20001);
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        ++seen[0][classify(host_key(PKEY_ALG_ECDSA), ec)];
        ++seen[1][classify(host_key(PKEY_ALG_RSA), rsa)];
        // The kernel dropped the dead saver's locks: the next save goes through.
        EXPECT_EQ(save_host(PKEY_ALG_ECDSA, ec[round % 3]), 0);
        EXPECT_EQ(save_host(PKEY_ALG_RSA, rsa[round % 3]), 0);
        read_back += same_pair(host_key(PKEY_ALG_ECDSA).get(), ec[round % 3]) &&
                     same_pair(host_key(PKEY_ALG_RSA).get(), rsa[round % 3]);
    }
    std::printf(
        "[ counts ] %d kills (seed %u): ecdsa whole %d / nothing %d / damaged %d, "
        "rsa whole %d / nothing %d / damaged %d; next saves read back %d\n",
        kRounds, seed, seen[0][kWhole], seen[0][kNothing], seen[0][kDamaged], seen[1][kWhole],
        seen[1][kNothing], seen[1][kDamaged], read_back);
    EXPECT_EQ(seen[0][kDamaged] + seen[1][kDamaged], 0);
    EXPECT_EQ(read_back, kRounds);
}

TEST_F(StressTest, PeerStoreUnderMixedProcessesLosesNothingAndSharedNamesEndAsLastWritten) {
    constexpr int kProcs = 4, kOwn = 200, kShared = 6;
    const Pool keys = {ec[0], ec[1], ec[2], rsa[0]};  // one per process
    struct Counts {
        long calls[kProcs], wrong[kProcs], found[kProcs], absent[kProcs];
    };
    Counts *c = shared_block<Counts>();
    ASSERT_NE(c, nullptr);
    auto shared = [](int s) { return "shared-" + std::to_string(s); };
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p)
        kids.push_back(spawn([&, p] {
            const std::vector<unsigned char> der = pkey::test::public_der(keys[p]);
            std::mt19937 rng(seed + p);
            auto expect = [&](bool ok) { ++c->calls[p], c->wrong[p] += !ok; };
            auto save = [&](const std::string &n) {
                expect(PKEY_PEER_SavePeerPubKey(der.data(), unsigned(der.size()), n.c_str()) == 0);
            };
            enum { kRemoved, kMissing, kEither };
            auto remove = [&](const std::string &n, int want) {
                const unsigned int r = PKEY_PEER_RemovePeerPubKeyByName(n.c_str());
                expect((r == 0 && want != kMissing) ||
                       (r == DBM_ERR_NOT_FOUND && want != kRemoved));
            };
            for (int i = 0; i < kOwn; ++i) {
                const std::string own = "p" + std::to_string(p) + "-" + std::to_string(i);
                save(own);
                if (i % 2 == 1) remove(own, kRemoved);
                expect(i % 2 == 0 ? one_of(EvpPkeyPtr(PKEY_GetUserKeyByName(own.c_str())),
                                           {keys[p]}, same_public)
                                  : PKEY_GetUserKeyByName(own.c_str()) == nullptr);
                remove(own + "-never", kMissing);
                // A shared name: saved, removed or read by anyone at any time.
                const std::string name = shared(static_cast<int>(rng() % kShared));
                if (const unsigned int op = rng() % 3; op == 0) {
                    save(name);
                } else if (op == 1) {
                    remove(name, kEither);
                } else {
                    EvpPkeyPtr k(PKEY_GetUserKeyByName(name.c_str()));
                    ++(k ? c->found : c->absent)[p];
                    expect(!k || one_of(k, keys, same_public));
                }
            }
            // Every process's last word: the first half saved, the second half removed.
            for (int s = 0; s < kShared; ++s)
                s < kShared / 2 ? save(shared(s)) : remove(shared(s), kEither);
            return 0;
        }));
    for (pid_t pid : kids) EXPECT_EQ(exit_code(pid), 0);

    std::vector<std::string> expected;
    for (int p = 0; p < kProcs; ++p)
        for (int i = 0; i < kOwn; i += 2)
            expected.push_back("p" + std::to_string(p) + "-" + std::to_string(i));
    for (int s = 0; s < kShared / 2; ++s) {
        expected.push_back(shared(s));
        EvpPkeyPtr k(PKEY_GetUserKeyByName(shared(s).c_str()));
        EXPECT_TRUE(one_of(k, keys, same_public)) << shared(s);
    }
    std::sort(expected.begin(), expected.end());
    const std::vector<std::string> listed = pkey::test::peer_names();
    EXPECT_EQ(listed, expected);  // nothing lost, nothing left behind
    EXPECT_EQ(sum(c->wrong), 0);
    std::printf(
        "[ counts ] %d processes: %ld checked calls, %ld unexpected results; shared names "
        "read %ld found / %ld absent; %zu records at the end\n",
        kProcs, sum(c->calls), sum(c->wrong), sum(c->found), sum(c->absent), listed.size());
    munmap(c, sizeof *c);
}

// In FIPS mode, writers save refused and allowed keys while readers look
// them up, each reader's lookups purging alongside the other's. A refused
// key is never returned: not one whose save is over (the purges must have
// seen it), nor one being saved at that moment; no allowed key goes.
TEST_F(StressTest, FipsLookupsAmongWritersNeverReturnARefusedKey) {
    constexpr int kWriters = 2, kReaders = 2, kRounds = 150;
    struct Counts {
        std::atomic<long> saved[kWriters];  // rounds each writer has finished
        long lookups[kReaders], refused_seen[kReaders], in_flight_seen[kReaders],
            allowed_lost[kReaders];
    };
    Counts *c = shared_block<Counts>();
    ASSERT_NE(c, nullptr);
    PCTL_SetFipsMode(1);
    auto name = [](char kind, long w, long i) {
        return std::string(1, kind) + std::to_string(w) + "-" + std::to_string(i);
    };
    std::vector<pid_t> kids;
    for (int w = 0; w < kWriters; ++w)
        kids.push_back(spawn([&, w] {
            for (int i = 0; i < kRounds; ++i) {
                if (PKEY_SavePeerPubKey(rsa[i % 3], name('r', w, i).c_str()) != 0 ||
                    PKEY_SavePeerPubKey(ec[i % 3], name('a', w, i).c_str()) != 0)
                    return 1;
                c->saved[w].store(i + 1);
            }
            return 0;
        }));
    for (int r = 0; r < kReaders; ++r)
        kids.push_back(spawn([&, r] {
            std::mt19937 rng(seed + static_cast<unsigned int>(r));
            auto look = [&](const std::string &n) {
                ++c->lookups[r];
                return EvpPkeyPtr(PKEY_GetUserKeyByName(n.c_str())) != nullptr;
            };
            while (c->saved[0].load() < kRounds || c->saved[1].load() < kRounds) {
                const long w = static_cast<long>(rng() % kWriters), done = c->saved[w].load();
                // A key saved for good, and the one the writer may be saving now.
                if (done > 0) {
                    const long j = static_cast<long>(rng() % static_cast<unsigned long>(done));
                    c->refused_seen[r] += look(name('r', w, j));
                    c->allowed_lost[r] += !look(name('a', w, j));
                }
                c->in_flight_seen[r] += look(name('r', w, done));
            }
            return 0;
        }));
    for (pid_t pid : kids) EXPECT_EQ(exit_code(pid), 0);
    EXPECT_EQ(sum(c->refused_seen), 0);
    EXPECT_EQ(sum(c->in_flight_seen), 0);
    EXPECT_EQ(sum(c->allowed_lost), 0);
    EXPECT_NE(EvpPkeyPtr(PKEY_GetUserKeyByName("a0-0")), nullptr);
    const std::vector<std::string> left = pkey::test::peer_names();  // after one more purge
    EXPECT_EQ(left.size(), static_cast<std::size_t>(kWriters * kRounds));
    EXPECT_TRUE(
        std::all_of(left.begin(), left.end(), [](const std::string &n) { return n[0] == 'a'; }));
    std::printf(
        "[ counts ] %d writers, %d readers: %ld FIPS-mode lookups; refused keys returned: "
        "%ld saved before, %ld being saved; %ld allowed keys lost; %zu records at the end\n",
        kWriters, kReaders, sum(c->lookups), sum(c->refused_seen), sum(c->in_flight_seen),
        sum(c->allowed_lost), left.size());
    munmap(c, sizeof *c);
}

TEST_F(StressTest, SavedKeyFilesAndDirectoriesHaveTheirModesAndPlantedLinksAreNeverFollowed) {
    ASSERT_EQ(save_host(PKEY_ALG_ECDSA, ec[0]), 0);
    ASSERT_EQ(PKEY_LOCAL_SaveLocalKey(PKEY_ALG_RSA, PKEY_KEY_HOST, rsa[0], "perm-1"), 0);
    for (const std::string &file :
         {dev("ecdsakey"), mem("ecdsakey"), dev("pkey/rsa/perm-1.key"), mem("rsa/perm-1.key")})
        EXPECT_EQ(pkey::test::mode_of(file), 0660u) << file;
    for (const std::string &dir : {dev("pkey"), dev("pkey/rsa"), mem(""), mem("rsa")})
        EXPECT_EQ(pkey::test::mode_of(dir), 0770u) << dir;

    // The link target holds a valid image of another key, so following it would show.
    ASSERT_EQ(save_host(PKEY_ALG_RSA, rsa[1]), 0);
    const std::string other = get(mem("hostkey")), target = store.root() + "/outside";
    put(target, other);
    for (const std::string &link : {dev("hostkey"), mem("hostkey")}) {
        ASSERT_EQ(save_host(PKEY_ALG_RSA, rsa[0]), 0);
        std::filesystem::remove(link);
        std::filesystem::create_symlink(target, link);
        // Only the memory copy is read: a link there reads as no key; one in flash changes nothing.
        EvpPkeyPtr seen = host_key(PKEY_ALG_RSA);
        EXPECT_TRUE(link == mem("hostkey") ? !seen : same_pair(seen.get(), rsa[0])) << link;
        // The save fails at the link and takes the other copy with it; the target stays.
        EXPECT_NE(save_host(PKEY_ALG_RSA, rsa[2]), 0) << link;
        EXPECT_EQ(get(target), other) << link;
        EXPECT_EQ(host_key(PKEY_ALG_RSA), nullptr) << link;
        std::filesystem::remove(link);
    }
    std::printf("[ counts ] 4 key files 0660, 4 key directories 0770, 2 planted links refused\n");
}

}  // namespace
