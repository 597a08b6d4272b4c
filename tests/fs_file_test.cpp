// Locked whole-file reads and writes, directory creation, copies and removals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>

#include "pkey_fs.h"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

using pkey::test::exit_code;
using pkey::test::get;
using pkey::test::mode_of;
using pkey::test::put;
using pkey::test::spawn;

namespace fsys = std::filesystem;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

// Reads through the library; "<null>" when it refuses.
std::string read_vfs(const std::string &file) {
    unsigned int len = 0;
    char *data = static_cast<char *>(PKEY_FS_ReadDataFromVFS(file.c_str(), &len));
    std::string out = data != nullptr ? std::string(data, len) : "<null>";
    std::free(data);
    return out;
}
int write_vfs(const std::string &file, const std::string &data) {
    return PKEY_FS_WriteDataToVFS(data.data(), static_cast<unsigned>(data.size()), file.c_str());
}

class FsFileTest : public pkey::test::StoreTest {
protected:
    std::string path(const std::string &rel) const { return store.root() + "/" + rel; }
};

TEST_F(FsFileTest, MakeDirCreatesEveryDirectoryBeforeTheLastSlashAndKeepsExistingOnes) {
    EXPECT_EQ(PKEY_FS_MakeDir(path("a//b/c").c_str()), 0);
    EXPECT_TRUE(fsys::is_directory(path("a/b")));
    EXPECT_FALSE(fsys::exists(path("a/b/c")));
    EXPECT_EQ(mode_of(path("a")), 0770u);
    EXPECT_EQ(mode_of(path("a/b")), 0770u);
    EXPECT_EQ(PKEY_FS_MakeDir(path("a/b/c/d/").c_str()), 0);
    EXPECT_TRUE(fsys::is_directory(path("a/b/c/d")));

    chmod(path("a").c_str(), 0700);
    EXPECT_EQ(PKEY_FS_MakeDir(path("a/new/x").c_str()), 0);
    EXPECT_EQ(mode_of(path("a")), 0700u);
    put(path("file"), "x");
    EXPECT_EQ(PKEY_FS_MakeDir(path("file/sub/x").c_str()), kFailed);
}

TEST_F(FsFileTest, WriteCreatesDirectoriesAndAPrivateFileThatReadsBackWhole) {
    const std::string file = path("node1/flash/pkey/rsa/k.key"), data("\x00\x01key\xff", 6);
    ASSERT_EQ(write_vfs(file, data), 0);
    EXPECT_EQ(read_vfs(file), data);
    EXPECT_EQ(mode_of(path("node1/flash/pkey")), 0770u);
    EXPECT_EQ(mode_of(file), 0660u);
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_TRUE(geteuid() != 0 || (st.st_uid == 1 && st.st_gid == 1)) << st.st_uid;  // as root
    // A rewrite replaces the whole file, a shorter one included.
    ASSERT_EQ(write_vfs(file, "ab"), 0);
    EXPECT_EQ(get(file), "ab");
    // Missing, empty and non-regular files are not read.
    put(path("empty"), "");
    for (const char *bad : {"missing", "empty", "node1"})
        EXPECT_EQ(read_vfs(path(bad)), "<null>") << bad;
}

TEST_F(FsFileTest, AFailedOrShortWriteIsAFailureAndLeavesNoFileBehind) {
    const std::string file = path("d/big");
    put(file, "previous content");
    EXPECT_EQ(exit_code(spawn([&] {
                  signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead of killing
                  const rlimit rl{10, 10};
                  setrlimit(RLIMIT_FSIZE, &rl);
                  if (write_vfs(file, std::string(4096, 'x')) != kFailed) return 1;
                  const int fd = PKEY_FS_OpenCreateLock(path("short").c_str());
                  const int r = PKEY_FS_WriteDataToVFSWithFd("0123456789abcdef", 16, fd);
                  PKEY_FS_CloseUnLock(fd);
                  return r == kFailed ? 0 : 2;
              })),
              0);
    EXPECT_FALSE(fsys::exists(file));
}

TEST_F(FsFileTest, SymlinksInPlaceOfKeyFilesAreNeverFollowed) {
    const std::string target = path("outside/target"), link = path("node1/flash/hostkey");
    put(target, "precious");
    put(path("src"), "copied");
    fsys::create_directories(path("node1/flash"));
    fsys::create_symlink(target, link);
    EXPECT_EQ(write_vfs(link, "evil"), kFailed);
    EXPECT_EQ(read_vfs(link), "<null>");
    EXPECT_EQ(PKEY_FS_IsFileExisted(link.c_str()), 0);
    EXPECT_EQ(PKEY_FS_OpenLock(link.c_str()), -1);
    PKEY_FS_CopyFileByFullName(path("src").c_str(), link.c_str());
    EXPECT_EQ(get(target), "precious");
}

TEST_F(FsFileTest, ExistenceTellsFilesFromDirectoriesAndRemovingAMissingFileSucceeds) {
    put(path("f"), "x");
    const std::tuple<std::string, int, int> cases[] = {// path, is a file, is a directory
                                                       {path("f"), 1, 0},
                                                       {store.root(), 0, 1},
                                                       {store.root() + "/", 0, 1},
                                                       {path("none"), 0, 0}};
    for (const auto &[p, file, dir] : cases) {
        EXPECT_EQ(PKEY_FS_IsFileExisted(p.c_str()), file) << p;
        EXPECT_EQ(PKEY_FS_IsDirExisted(p.c_str()), dir) << p;
    }

    EXPECT_EQ(PKEY_FS_RemoveFileFromVFS(0, 0, path("never").c_str()), 0);
    EXPECT_EQ(PKEY_FS_RemoveFileFromVFS(0, 0, path("f").c_str()), 0);
    EXPECT_FALSE(fsys::exists(path("f")));
    put(path("full/x"), "x");
    EXPECT_EQ(PKEY_FS_RemoveFileFromVFS(0, 0, path("full").c_str()), kFailed);
}

TEST_F(FsFileTest, CopiesSkipEmptyOrMissingSourcesAndKeyDirectoriesGoFlat) {
    auto copy = [&](const char *from, const char *to) {
        return PKEY_FS_CopyFileByFullName(path(from).c_str(), path(to).c_str());
    };
    put(path("w/pkey/rsa/a.key"), "A");
    put(path("w/pkey/rsa/b.key"), "BB");
    put(path("w/empty"), "");
    fsys::create_directories(path("w/pkey/ecdsa"));
    EXPECT_EQ(copy("w/pkey/rsa/a.key", "dst/deep/a.key"), 0);
    EXPECT_EQ(get(path("dst/deep/a.key")), "A");
    EXPECT_EQ(copy("w/none", "dst/none"), -1);
    EXPECT_EQ(copy("w/empty", "dst/empty"), 0);
    EXPECT_FALSE(fsys::exists(path("dst/empty")));
    // A missing or empty key directory creates nothing at the destination.
    for (const char *dir : {"/pkey/rsa/", "/pkey/dsa/", "/pkey/ecdsa/"})
        EXPECT_EQ(PKEY_FS_CopyPkeyDir(dir, path("w").c_str(), path("m").c_str()), 0) << dir;
    EXPECT_EQ(get(path("m/pkey/rsa/a.key")) + "|" + get(path("m/pkey/rsa/b.key")), "A|BB");
    EXPECT_FALSE(fsys::exists(path("m/pkey/dsa")) || fsys::exists(path("m/pkey/ecdsa")));

    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", path("m").c_str()), 0);
    EXPECT_FALSE(fsys::exists(path("m/pkey/rsa")));
    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", path("m").c_str()), kFailed);  // now missing
    // A non-empty subdirectory fails the removal, but the plain files beside it go.
    put(path("w/pkey/rsa/sub/inner"), "I");
    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", path("w").c_str()), kFailed);
    EXPECT_FALSE(fsys::exists(path("w/pkey/rsa/a.key")));
    EXPECT_TRUE(fsys::exists(path("w/pkey/rsa/sub/inner")));
}

TEST_F(FsFileTest, ALockedFileKeepsWritersWaiting) {
    const std::string file = path("locked");
    put(file, "old");
    const int fd = PKEY_FS_OpenLock(file.c_str());
    ASSERT_NE(fd, -1);
    const pid_t child = spawn([&] { return write_vfs(file, "new") == 0 ? 0 : 1; });
    usleep(100 * 1000);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);  // still waiting for the lock
    PKEY_FS_CloseUnLock(fd);
    EXPECT_EQ(exit_code(child), 0);
    EXPECT_EQ(get(file), "new");
}

// Each case runs in a child under a watchdog: a lock a thread waits on while
// holding it itself would never be released.
TEST_F(FsFileTest, AThreadIsRefusedAFileItHoldsUnderAnyNameAndNothingIsEmptied) {
    const std::string file = path("held"), link = path("other/name");
    put(file, "whole");
    fsys::create_directories(path("other"));
    fsys::create_hard_link(file, link);
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  const int fd = PKEY_FS_OpenLock(file.c_str());
                  if (fd == -1) return 1;
                  int refused = 0;
                  for (const std::string &name : {file, link}) {
                      refused += PKEY_FS_OpenLock(name.c_str()) == -1;
                      refused += PKEY_FS_OpenCreateLock(name.c_str()) == -1;
                      refused += write_vfs(name, "new") == kFailed;
                      refused += read_vfs(name) == "<null>";
                  }
                  if (refused != 8 || get(file) != "whole") return 2;
                  PKEY_FS_CloseUnLock(fd);
                  return write_vfs(link, "again") == 0 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(get(file), "again");
}

TEST_F(FsFileTest, ACopyOntoItselfLeavesTheSourceWhole) {
    const std::string file = path("src"), link = path("dst-link");
    put(file, "key file image");
    fsys::create_hard_link(file, link);
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  return PKEY_FS_CopyFileByFullName(file.c_str(), file.c_str()) == 0 &&
                                 PKEY_FS_CopyFileByFullName(file.c_str(), link.c_str()) == 0 &&
                                 PKEY_FS_CopyPkeyDir("/", store.root().c_str(),
                                                     store.root().c_str()) == 0
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(get(file), "key file image");
}

TEST_F(FsFileTest, FifosAndDevicesAtAFilePathFailPromptlyAndStayAsTheyWere) {
    const std::string fifo = path("fifo"), copy = path("copy"), src = path("src");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0660), 0);
    put(src, "data");
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  int failed = 0;
                  failed += PKEY_FS_OpenLock(fifo.c_str()) == -1;
                  failed += PKEY_FS_OpenCreateLock(fifo.c_str()) == -1;
                  failed += read_vfs(fifo) == "<null>";
                  failed += write_vfs(fifo, "data") == kFailed;
                  failed += PKEY_FS_CopyFileByFullName(fifo.c_str(), copy.c_str()) == -1;
                  PKEY_FS_CopyFileByFullName(src.c_str(), fifo.c_str());
                  // A character device: /dev/null reads as empty and would swallow a write.
                  failed += PKEY_FS_OpenLock("/dev/null") == -1;
                  failed += PKEY_FS_OpenCreateLock("/dev/null") == -1;
                  return failed == 7 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(fsys::is_fifo(fifo));
    EXPECT_FALSE(fsys::exists(copy));
    EXPECT_TRUE(fsys::is_character_file("/dev/null"));
}

// The record of held files is checked against the descriptors themselves: one
// closed behind the layer's back, or reused for another file, holds nothing.
TEST_F(FsFileTest, ADescriptorClosedElsewhereNoLongerCountsAsHeld) {
    const std::string file = path("f"), other = path("g");
    put(file, "f");
    put(other, "g");
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  int fd = PKEY_FS_OpenLock(file.c_str());
                  if (fd == -1) return 1;
                  close(fd);  // not through the layer
                  fd = PKEY_FS_OpenLock(file.c_str());
                  if (fd == -1) return 2;
                  // The same descriptor number, now naming another file.
                  const int g = open(other.c_str(), O_RDONLY);
                  if (g == -1 || dup2(g, fd) != fd) return 3;
                  close(g);
                  const int again = PKEY_FS_OpenLock(file.c_str());
                  if (again == -1) return 4;
                  PKEY_FS_CloseUnLock(again);
                  close(fd);
                  return 0;
              }),
              0);
}

TEST_F(FsFileTest, AnotherThreadOfTheProcessWaitsForTheLockAndThenSucceeds) {
    const std::string file = path("shared");
    put(file, "old");
    EXPECT_EQ(pkey::test::exit_code_within([&] {
                  const int fd = PKEY_FS_OpenLock(file.c_str());
                  if (fd == -1) return 1;
                  std::atomic<int> result{-1};
                  std::thread writer([&] { result = write_vfs(file, "new"); });
                  usleep(100 * 1000);
                  const bool waited = result == -1;  // a refusal would be kFailed by now
                  PKEY_FS_CloseUnLock(fd);
                  writer.join();
                  return waited && result == 0 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(get(file), "new");
}

TEST_F(FsFileTest, ConcurrentReadersSeeOnlyWholeWrites) {
    const std::string file = path("contended"), a(1000, 'a'), b(3000, 'b');
    ASSERT_EQ(write_vfs(file, a), 0);
    const pid_t writer = spawn([&] {
        // A writer truncates at its open, before it holds the lock, so a
        // reader busy at that moment fails cleanly; pauses leave readers room.
        for (int i = 0; i < 400; ++i) {
            if (write_vfs(file, i % 2 == 0 ? b : a) != 0) return 1;
            usleep(200);
        }
        return 0;
    });
    int whole = 0, damaged = 0;
    for (int i = 0; i < 400; ++i) {
        const std::string got = read_vfs(file);
        whole += got == a || got == b;
        damaged += got != a && got != b && got != "<null>";
    }
    EXPECT_EQ(exit_code(writer), 0);
    EXPECT_EQ(damaged, 0) << whole << " whole";
    // How many reads won the race depends on the machine's load; once the
    // writer is done its last write reads back whole.
    EXPECT_EQ(read_vfs(file), a);  // the last of the 400 writes
}

}  // namespace
