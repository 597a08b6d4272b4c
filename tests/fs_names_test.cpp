// Names of the key store: directories, default names, node prefixes, full names.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "pkey_fs.h"
#include "platform_control.h"
#include "test_store.hpp"

namespace {

class FsNamesTest : public pkey::test::StoreTest {
protected:
    static std::string full(unsigned int alg, unsigned int kind, unsigned int node,
                            const char *name, PKEY_FS_PREFIX_FN prefix, int *appended = nullptr) {
        char out[PKEY_PATH_LEN];
        std::memset(out, 'x', sizeof out);
        const int n = PKEY_FS_MakeFullFileName(alg, kind, node, name, prefix, out);
        if (appended != nullptr) *appended = n;
        return out;
    }
};

TEST_F(FsNamesTest, TablesGiveDirectoriesAndDefaultNames) {
    const char *dirs[] = {"", "/pkey/rsa/", "/pkey/dsa/", "/pkey/ecdsa/"};
    const char *names[] = {"", "hostkey", "dsakey", "ecdsakey"};
    for (unsigned int alg = 0; alg < 4; ++alg) {
        EXPECT_STREQ(PKEY_FS_GetKeyDir(alg), dirs[alg]);
        EXPECT_STREQ(PKEY_FS_GetDefaultKeyName(alg), names[alg]);
        EXPECT_STREQ(PKEY_FS_GetPKEYDefaultKeyName(alg, PKEY_KEY_HOST), names[alg]);
        for (unsigned int kind : {0u, 1u, 64u, 255u})
            EXPECT_STREQ(PKEY_FS_GetPKEYDefaultKeyName(alg, kind), "serverkey");
    }
}

// Default keys sit in the work directory and under "pkey" in memory; named keys carry
// the extension, public files do not; node numbers use their low 16 bits.
TEST_F(FsNamesTest, FullNamesFollowAlgorithmKindNodeAndName) {
    const auto dev = PKEY_FS_MakeDevFilePrefix, mem = PKEY_FS_MakeMemFilePrefix;
    const std::string w1 = store.work_dir(1), w2 = store.work_dir(2), w3 = store.work_dir(3);
    const std::string m1 = store.mem_dir(1) + "/pkey", m2 = store.mem_dir(2) + "/pkey";
    const struct {
        unsigned int alg, kind, node;
        const char *name;
        PKEY_FS_PREFIX_FN prefix;
        std::string want;
    } rows[] = {{1, PKEY_KEY_HOST, 1, "", dev, w1 + "/hostkey"},
                {1, PKEY_KEY_HOST, 1, "", mem, m1 + "/hostkey"},
                {2, PKEY_KEY_HOST, 3, "", dev, w3 + "/dsakey"},
                {3, PKEY_KEY_HOST, 3, "", mem, store.mem_dir(3) + "/pkey/ecdsakey"},
                {1, PKEY_KEY_SERVER, 1, "", dev, w1 + "/serverkey"},
                {2, PKEY_KEY_SERVER, 1, "", dev, w1 + "/serverkey"},
                {3, PKEY_KEY_SERVER, 1, "", mem, m1 + "/serverkey"},
                {1, 7, 1, "", dev, w1 + "/"},  // any other kind without a name: the separator alone
                {3, PKEY_KEY_HOST, 1, "abc", dev, w1 + "/pkey/ecdsa/abc.key"},
                {1, PKEY_KEY_SERVER, 2, "k1", mem, m2 + "/rsa/k1.key"},
                {0, PKEY_KEY_PUBLIC, 1, "peer", dev, w1 + "/pkey/publickey/peer"},
                {3, PKEY_KEY_PUBLIC, 1, "peer", dev, w1 + "/pkey/publickey/peer"},
                {0, PKEY_KEY_HOST, 1, "x", dev, w1 + "x.key"},  // the reserved row has no directory
                {1, PKEY_KEY_HOST, 0x10002, "", dev, w2 + "/hostkey"}};
    for (const auto &r : rows)
        EXPECT_EQ(full(r.alg, r.kind, r.node, r.name, r.prefix), r.want) << r.want;
    int appended = 0;
    full(1, PKEY_KEY_HOST, 1, "", dev, &appended);
    EXPECT_EQ(appended, 8);
    full(1, PKEY_KEY_HOST, 1, "", mem, &appended);
    EXPECT_EQ(appended, 13);
    // An unsupported algorithm writes nothing.
    char out[PKEY_PATH_LEN] = "untouched";
    EXPECT_EQ(PKEY_FS_MakeFullFileName(4, PKEY_KEY_HOST, 1, "", dev, out), 0);
    EXPECT_STREQ(out, "untouched");
}

TEST_F(FsNamesTest, LongNamesAreCutAt511Characters) {
    const std::string name(600, 'n'), work = store.work_dir(1);
    int appended = 0;
    const std::string path =
        full(1, PKEY_KEY_HOST, 1, name.c_str(), PKEY_FS_MakeDevFilePrefix, &appended);
    EXPECT_EQ(path.size(), PKEY_PATH_LEN - 1);
    EXPECT_EQ(path.substr(0, work.size() + 10), work + "/pkey/rsa/");
    EXPECT_EQ(static_cast<size_t>(appended), PKEY_PATH_LEN - 1 - work.size());
}

TEST_F(FsNamesTest, MemoryDirectoriesFollowTheRunningNode) {
    char out[PKEY_PATH_LEN];
    EXPECT_EQ(PKEY_FS_GetPkeyMemDir(out), static_cast<int>((store.mem_dir(1) + "/pkey/").size()));
    EXPECT_EQ(std::string(out), store.mem_dir(1) + "/pkey/");
    PKEY_FS_GetLocKeyMemDirByAlgId(3, out);
    EXPECT_EQ(std::string(out), store.mem_dir(1) + "/pkey/ecdsa/");
    ASSERT_EQ(PKEY_FS_MakeMemFilePrefix(0x20005, out), 0);  // low 16 bits of the node
    EXPECT_EQ(std::string(out), store.mem_dir(5));
    PCTL_SetSelfNode(4);
    PKEY_FS_GetLocKeyMemDirByAlgId(1, out);
    EXPECT_EQ(std::string(out), store.mem_dir(4) + "/pkey/rsa/");
}

TEST_F(FsNamesTest, MemoryStatusFollowsTheAlarm) {
    EXPECT_EQ(PKEY_FS_CheckMemStatus(), 1);
    PCTL_SetMemAlarm(2);
    EXPECT_EQ(PKEY_FS_CheckMemStatus(), 0);
    PCTL_SetMemAlarm(0);
    EXPECT_EQ(PKEY_FS_CheckMemStatus(), 1);
}

TEST(StrEndString, FindsTheEndingOrNothing) {
    const char *name = "abc.key";
    EXPECT_EQ(PKEY_FS_StrEndString(name, ".key"), name + 3);
    EXPECT_EQ(PKEY_FS_StrEndString(".ke", ".key"), nullptr);
    EXPECT_EQ(PKEY_FS_StrEndString("abc.pem", ".key"), nullptr);
    EXPECT_EQ(PKEY_FS_StrEndString(name, ""), name + 7);
    const char *whole = ".key";
    EXPECT_EQ(PKEY_FS_StrEndString(whole, ".key"), whole);
}

}  // namespace
