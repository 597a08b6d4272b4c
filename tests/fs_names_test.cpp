// Names of the key store: directories, default names, node prefixes, full names.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host_platform.h"
#include "pkey_fs.h"
#include "test_store.hpp"

namespace {

class FsNamesTest : public ::testing::Test {
protected:
    std::string work(unsigned int node) const {
        return store.root() + "/node" + std::to_string(node) + "/flash";
    }
    std::string mem(unsigned int node) const {
        return store.root() + "/node" + std::to_string(node) + "/run";
    }
    static std::string full(unsigned int alg, unsigned int kind, unsigned int node,
                            const char *name, PKEY_FS_PREFIX_FN prefix, int *appended = nullptr) {
        char out[PKEY_PATH_LEN];
        std::memset(out, 'x', sizeof out);
        const int n = PKEY_FS_MakeFullFileName(alg, kind, node, name, prefix, out);
        if (appended != nullptr) *appended = n;
        return out;
    }
    pkey::test::TempStore store;
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

TEST_F(FsNamesTest, DefaultKeysSitInTheWorkDirAndUnderPkeyInMemory) {
    int appended = 0;
    EXPECT_EQ(full(1, PKEY_KEY_HOST, 1, "", PKEY_FS_MakeDevFilePrefix, &appended),
              work(1) + "/hostkey");
    EXPECT_EQ(appended, 8);
    EXPECT_EQ(full(1, PKEY_KEY_HOST, 1, "", PKEY_FS_MakeMemFilePrefix, &appended),
              mem(1) + "/pkey/hostkey");
    EXPECT_EQ(appended, 13);
    EXPECT_EQ(full(2, PKEY_KEY_HOST, 3, "", PKEY_FS_MakeDevFilePrefix), work(3) + "/dsakey");
    EXPECT_EQ(full(3, PKEY_KEY_HOST, 3, "", PKEY_FS_MakeMemFilePrefix), mem(3) + "/pkey/ecdsakey");
    for (unsigned int alg = 1; alg < 4; ++alg) {
        EXPECT_EQ(full(alg, PKEY_KEY_SERVER, 1, "", PKEY_FS_MakeDevFilePrefix),
                  work(1) + "/serverkey");
        EXPECT_EQ(full(alg, PKEY_KEY_SERVER, 1, "", PKEY_FS_MakeMemFilePrefix),
                  mem(1) + "/pkey/serverkey");
    }
    // Any other kind without a name gets the separator alone.
    EXPECT_EQ(full(1, 7, 1, "", PKEY_FS_MakeDevFilePrefix), work(1) + "/");
}

TEST_F(FsNamesTest, NamedKeysCarryTheExtensionAndPublicFilesDoNot) {
    EXPECT_EQ(full(3, PKEY_KEY_HOST, 1, "abc", PKEY_FS_MakeDevFilePrefix),
              work(1) + "/pkey/ecdsa/abc.key");
    EXPECT_EQ(full(1, PKEY_KEY_SERVER, 2, "k1", PKEY_FS_MakeMemFilePrefix),
              mem(2) + "/pkey/rsa/k1.key");
    for (unsigned int alg = 0; alg < 4; ++alg)
        EXPECT_EQ(full(alg, PKEY_KEY_PUBLIC, 1, "peer", PKEY_FS_MakeDevFilePrefix),
                  work(1) + "/pkey/publickey/peer");
    // The reserved row has an empty directory.
    EXPECT_EQ(full(0, PKEY_KEY_HOST, 1, "x", PKEY_FS_MakeDevFilePrefix), work(1) + "x.key");
}

TEST_F(FsNamesTest, UnsupportedAlgorithmWritesNothing) {
    char out[PKEY_PATH_LEN] = "untouched";
    EXPECT_EQ(PKEY_FS_MakeFullFileName(4, PKEY_KEY_HOST, 1, "", PKEY_FS_MakeDevFilePrefix, out), 0);
    EXPECT_STREQ(out, "untouched");
}

TEST_F(FsNamesTest, NodeNumbersUseTheLow16Bits) {
    EXPECT_EQ(full(1, PKEY_KEY_HOST, 0x10002, "", PKEY_FS_MakeDevFilePrefix), work(2) + "/hostkey");
    char out[PKEY_PATH_LEN];
    ASSERT_EQ(PKEY_FS_MakeMemFilePrefix(0x20005, out), 0);
    EXPECT_EQ(std::string(out), mem(5));
}

TEST_F(FsNamesTest, LongNamesAreCutAt511Characters) {
    const std::string name(600, 'n');
    int appended = 0;
    const std::string path = full(1, PKEY_KEY_HOST, 1, name.c_str(), PKEY_FS_MakeDevFilePrefix,
                                  &appended);
    EXPECT_EQ(path.size(), PKEY_PATH_LEN - 1);
    EXPECT_EQ(path.substr(0, work(1).size() + 10), work(1) + "/pkey/rsa/");
    EXPECT_EQ(static_cast<size_t>(appended), PKEY_PATH_LEN - 1 - work(1).size());
}

TEST_F(FsNamesTest, MemoryDirectoriesFollowTheRunningNode) {
    char out[PKEY_PATH_LEN];
    EXPECT_EQ(PKEY_FS_GetPkeyMemDir(out), static_cast<int>((mem(1) + "/pkey/").size()));
    EXPECT_EQ(std::string(out), mem(1) + "/pkey/");
    PKEY_FS_GetLocKeyMemDirByAlgId(3, out);
    EXPECT_EQ(std::string(out), mem(1) + "/pkey/ecdsa/");
    HOST_SetSelfNode(4);
    PKEY_FS_GetLocKeyMemDirByAlgId(1, out);
    EXPECT_EQ(std::string(out), mem(4) + "/pkey/rsa/");
    HOST_SetSelfNode(1);
}

TEST_F(FsNamesTest, MemoryStatusFollowsTheAlarm) {
    EXPECT_EQ(PKEY_FS_CheckMemStatus(), 1);
    HOST_SetMemAlarm(2);
    EXPECT_EQ(PKEY_FS_CheckMemStatus(), 0);
    HOST_SetMemAlarm(0);
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
