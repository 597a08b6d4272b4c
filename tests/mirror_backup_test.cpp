// The memory mirror of the flash key files, and copies to standby nodes.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "pkey_backup.h"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "platform_control.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::test::get;
using pkey::test::put;
using Tree = std::map<std::string, std::string>;  // relative path -> content

// Every regular file below dir with its content; empty for a missing dir.
Tree tree(const std::string &dir) {
    Tree out;
    if (!fsys::exists(dir)) return out;
    for (const auto &e : fsys::recursive_directory_iterator(dir))
        if (e.is_regular_file())
            out[fsys::relative(e.path(), dir).string()] = get(e.path().string());
    return out;
}

void seed(const std::string &dir, const Tree &files) {
    for (const auto &[rel, content] : files) put(dir + "/" + rel, content);
}

int remove_op(const void *, unsigned int, const char *path) {
    return PKEY_FS_RemoveFileFromVFS(0, 0, path);
}

class MirrorTest : public pkey::test::StoreTest {
protected:
    std::string work() const { return store.work_dir(1); }
};

TEST_F(MirrorTest, FillsAnAbsentMirrorWithExactlyTheKeysOnFlash) {
    const Tree flash = {{"hostkey", "1"},
                        {"serverkey", "2"},
                        {"dsakey", "3"},
                        {"ecdsakey", "4"},
                        {"pkey/rsa/r.key", "5"},
                        {"pkey/dsa/d.key", "6"},
                        {"pkey/ecdsa/e.key", "7"},
                        {"pkey/publickey/peer", "not mirrored"},
                        {"other", "not a key file"}};
    seed(work(), flash);
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    EXPECT_EQ(tree(mem("")), (Tree{{"hostkey", "1"},
                                   {"serverkey", "2"},
                                   {"dsakey", "3"},
                                   {"ecdsakey", "4"},
                                   {"rsa/r.key", "5"},
                                   {"dsa/d.key", "6"},
                                   {"ecdsa/e.key", "7"}}));
}

TEST_F(MirrorTest, IsMadeOnceThereIsAKeyAndNeverRefreshed) {
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    EXPECT_FALSE(fsys::exists(mem("")));
    put(work() + "/hostkey", "first");
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    put(work() + "/hostkey", "second");
    put(work() + "/dsakey", "new");
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    EXPECT_EQ(tree(mem("")), (Tree{{"hostkey", "first"}}));
}

TEST_F(MirrorTest, FollowsTheRunningNode) {
    PCTL_SetSelfNode(3);
    put(store.work_dir(3) + "/hostkey", "three");
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    EXPECT_EQ(tree(store.mem_dir(3) + "/pkey"), (Tree{{"hostkey", "three"}}));
    EXPECT_FALSE(fsys::exists(mem("")));
}

TEST_F(MirrorTest, CopyFile2FileCopiesWholeFilesAndRefusesMissingOnes) {
    const std::string a = store.root() + "/a", b = store.root() + "/x/b";
    put(a, "content");
    EXPECT_EQ(PKEY_CFGMNG_CopyFile2File(a.c_str(), b.c_str()), 0);
    EXPECT_EQ(get(b), "content");
    EXPECT_EQ(PKEY_CFGMNG_CopyFile2File((a + "-none").c_str(), (b + "2").c_str()),
              static_cast<int>(PKEY_ERR_FAILED));
}

using BackupTest = MirrorTest;

TEST_F(BackupTest, NodeStatusIsNormalUnlessThePlatformSaysOtherwise) {
    EXPECT_EQ(PKEY_BACKUP_IsNodeStatusNormal(2), 1);
    PCTL_SetNodeStatus(2, 3);
    EXPECT_EQ(PKEY_BACKUP_IsNodeStatusNormal(2), 0);
    EXPECT_EQ(PKEY_BACKUP_IsNodeStatusNormal(0x10002), 0);  // low 16 bits only
    EXPECT_EQ(PKEY_BACKUP_IsNodeStatusNormal(3), 1);
}

TEST_F(BackupTest, RealTimeBackupRepeatsTheOperationOnEveryStandbyNode) {
    PKEY_BACKUP_SndRtLocalKey(PKEY_ALG_RSA, 3, "key", "", PKEY_FS_WriteDataToVFS, PKEY_KEY_HOST);
    EXPECT_FALSE(fsys::exists(store.work_dir(2)));  // no standby yet
    const unsigned short standby[] = {2, 3};
    PCTL_SetStandbyNodes(standby, 2);
    PKEY_BACKUP_SndRtLocalKey(PKEY_ALG_RSA, 3, "key", "", PKEY_FS_WriteDataToVFS, PKEY_KEY_HOST);
    PKEY_BACKUP_SndRtLocalKey(PKEY_ALG_ECDSA, 2, "nk", "named", PKEY_FS_WriteDataToVFS,
                              PKEY_KEY_HOST);
    const Tree both = {{"hostkey", "key"}, {"pkey/ecdsa/named.key", "nk"}};
    for (unsigned int node : {2u, 3u}) EXPECT_EQ(tree(store.work_dir(node)), both) << node;
    EXPECT_FALSE(fsys::exists(store.work_dir(1)));  // only standby nodes are written
    EXPECT_FALSE(fsys::exists(store.mem_dir(2)));   // and only their device copies

    PKEY_BACKUP_SndRtLocalKey(PKEY_ALG_RSA, 0, nullptr, "", remove_op, PKEY_KEY_HOST);
    for (unsigned int node : {2u, 3u})
        EXPECT_EQ(tree(store.work_dir(node)), (Tree{{"pkey/ecdsa/named.key", "nk"}})) << node;
}

TEST_F(BackupTest, RealTimeBackupDoesNothingForNamesThatLeaveTheKeyDirectory) {
    EVP_PKEY *ec = pkey::test::test_key("p256");
    auto never_runs = [](PKEY_BACKUP_FILE_OP op) {
        return [op](const char *n) {
            const unsigned short standby[] = {2};
            PCTL_SetStandbyNodes(standby, 1);
            static int calls;
            calls = 0;
            PKEY_BACKUP_FILE_OP counting = [](const void *, unsigned int, const char *) {
                ++calls;
                return 0;
            };
            PKEY_BACKUP_SndRtLocalKey(PKEY_ALG_ECDSA, 4, "data", n, counting, PKEY_KEY_HOST);
            PKEY_BACKUP_SndRtLocalKey(PKEY_ALG_ECDSA, 4, "data", n, op, PKEY_KEY_HOST);
            return calls == 0;
        };
    };
    pkey::test::expect_escaping_names_refused({
        {"PKEY_BACKUP_SndRtLocalKey (write)", PKEY_ALG_ECDSA, ec,
         never_runs(PKEY_FS_WriteDataToVFS)},
        {"PKEY_BACKUP_SndRtLocalKey (remove)", PKEY_ALG_ECDSA, ec, never_runs(remove_op)},
    });
}

TEST_F(BackupTest, BatchMakesTheStandbysFlashStoreEqualAbsenceIncluded) {
    const Tree active = {{"hostkey", "H"},         {"serverkey", "S"},       {"dsakey", "D"},
                         {"pkey/rsa/a.key", "ra"}, {"pkey/dsa/b.key", "db"}, {"other", "kept"}};
    seed(store.work_dir(1), active);
    // The standby has stale keys: a named key deleted here, an ECDSA host key
    // this node does not have, an old host key, and memory copies.
    seed(store.work_dir(2), {{"pkey/rsa/gone.key", "stale"},
                             {"ecdsakey", "stale"},
                             {"hostkey", "old"},
                             {"unrelated", "theirs"}});
    seed(store.mem_dir(2) + "/pkey", {{"hostkey", "old"}, {"rsa/gone.key", "stale"}});

    EXPECT_EQ(PKEY_BACKUP_Batch(2), -1);  // no ECDSA host key here
    Tree want = active;
    want.erase("other");
    want["unrelated"] = "theirs";
    EXPECT_EQ(tree(store.work_dir(2)), want);
    EXPECT_FALSE(fsys::exists(store.mem_dir(2) + "/pkey"));

    put(store.work_dir(1) + "/ecdsakey", "E");
    EXPECT_EQ(PKEY_BACKUP_Batch(2), 0);
    EXPECT_EQ(get(store.work_dir(2) + "/ecdsakey"), "E");
}

TEST_F(BackupTest, BatchRefusesToCopyAStoreOntoItself) {
    const Tree keys = {{"hostkey", "H"}, {"pkey/rsa/a.key", "ra"}};
    seed(work(), keys);
    EXPECT_EQ(PKEY_BACKUP_BatchDevProc(1), static_cast<int>(PKEY_ERR_FAILED));
    EXPECT_EQ(tree(work()), keys);
}

TEST(BackupPaths, AnUnresolvableWorkDirectoryStopsTheCopyButNotTheCleanUp) {
    PKEY_TEST_HOST_ONLY("the host's work directories lengthen with the store root");
    // A store root too long for the batch's work-directory buffers.
    pkey::test::TempStore base;
    const std::string deep =
        base.root() + "/" + std::string(120, 'd') + "/" + std::string(120, 'e');
    ASSERT_EQ(PCTL_OpenStore(deep.c_str()), 0);
    const std::string mem2 = deep + "/node2/run/pkey";
    put(mem2 + "/hostkey", "old");
    put(deep + "/node1/flash/hostkey", "H");

    const int r = PKEY_BACKUP_Batch(2);
    EXPECT_TRUE(r != 0 && r != -1) << r;
    EXPECT_FALSE(fsys::exists(mem2));
    EXPECT_FALSE(fsys::exists(deep + "/node2/flash"));
}

}  // namespace
