// A directory read that fails part-way is a failure of the operation, never
// the end of the listing: every walk over a key directory is made to meet one.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "pkey_backup.h"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "readdir_fault.h"
#include "test_keys.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

namespace fsys = std::filesystem;
using pkey::test::put;

std::set<std::string> names_in(const std::string &dir) {
    std::set<std::string> out;
    if (fsys::exists(dir))
        for (const auto &e : fsys::directory_iterator(dir)) out.insert(e.path().filename());
    return out;
}

class DirReadFailure : public pkey::test::StoreTest {
protected:
    void TearDown() override { readdir_fault_arm(-1); }
    std::string work() const { return store.work_dir(1); }
    // Three RSA key files on flash, and the ECDSA host key a backup needs.
    void seed_flash() {
        for (const char *name : {"a.key", "b.key", "c.key"})
            put(work() + "/pkey/rsa/" + name, name);
        put(work() + "/ecdsakey", "E");
    }
};

TEST_F(DirReadFailure, CopyAndRemoveOfAKeyDirectoryFail) {
    seed_flash();
    const std::string dst = store.root() + "/copy";
    readdir_fault_arm(3);  // after ".", ".." or a file or two
    EXPECT_EQ(PKEY_FS_CopyPkeyDir("/pkey/rsa/", work().c_str(), dst.c_str()), -1);

    readdir_fault_arm(2);
    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", work().c_str()),
              static_cast<int>(PKEY_ERR_FAILED));
    EXPECT_TRUE(fsys::exists(work() + "/pkey/rsa"));  // not listed whole: left in place

    EXPECT_EQ(PKEY_FS_CopyPkeyDir("/pkey/rsa/", work().c_str(), dst.c_str()), 0);
}

TEST_F(DirReadFailure, EnumerationEndsWithErrnoSet) {
    EVP_PKEY *key = pkey::test::test_key("rsa1024");
    for (const char *name : {"k1", "k2", "k3"}) ASSERT_EQ(PKEY_SaveLocalKey(name, key), 0) << name;
    const auto walk = [](int fail_at) {
        PKEY_LOCAL_NEXT_HANDLE_S *h = PKEY_LOCAL_GetNextInit(PKEY_ALG_RSA);
        PKEY_LOCAL_KEY_INFO_S *info = PKEY_LOCAL_GetFirst(h);
        readdir_fault_arm(fail_at);
        int records = 0;
        while (info != nullptr) {
            ++records;
            PKEY_LOCAL_KEY_INFO_S *next = PKEY_LOCAL_GetNext(h, info);
            PKEY_LOCAL_DestroyLocalKeyInfo(info);
            info = next;
        }
        const int err = errno;
        PKEY_LOCAL_GetNextFinal(h);
        return std::pair{records, err};
    };
    const auto [all, end_errno] = walk(-1);
    EXPECT_EQ(all, 5);  // host key, server key, three named keys
    EXPECT_EQ(end_errno, 0);
    const auto [cut, fail_errno] = walk(3);
    EXPECT_LT(cut, all);
    EXPECT_EQ(fail_errno, EOVERFLOW);
}

TEST_F(DirReadFailure, MirrorIsTakenBackAndFilledWholeNextTime) {
    seed_flash();
    readdir_fault_arm(1);  // the RSA key directory's first read
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    EXPECT_FALSE(fsys::exists(mem("")));
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    EXPECT_EQ(names_in(mem("rsa")), (std::set<std::string>{"a.key", "b.key", "c.key"}));
}

TEST_F(DirReadFailure, StandbyBackupFails) {
    seed_flash();
    readdir_fault_arm(2);
    EXPECT_EQ(PKEY_BACKUP_BatchDevProc(2), static_cast<int>(PKEY_ERR_FAILED));
    EXPECT_EQ(PKEY_BACKUP_BatchDevProc(2), 0);
    EXPECT_EQ(names_in(store.work_dir(2) + "/pkey/rsa"),
              (std::set<std::string>{"a.key", "b.key", "c.key"}));
}

}  // namespace
