// Locked whole-file reads and writes, directory creation, copies and removals.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "pkey_fs.h"
#include "test_store.hpp"

namespace {

namespace fsys = std::filesystem;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

class FsFileTest : public ::testing::Test {
protected:
    std::string path(const std::string &rel) const { return store.root() + "/" + rel; }

    static void put(const std::string &file, const std::string &content) {
        fsys::create_directories(fsys::path(file).parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }
    static std::string get(const std::string &file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Reads through the library; "<null>" when it refuses.
    static std::string read_vfs(const std::string &file) {
        unsigned int len = 0;
        void *data = PKEY_FS_ReadDataFromVFS(file.c_str(), &len);
        if (data == nullptr) return "<null>";
        std::string out(static_cast<const char *>(data), len);
        std::free(data);
        return out;
    }
    static mode_t mode_of(const std::string &p) {
        struct stat st {};
        stat(p.c_str(), &st);
        return st.st_mode & 07777;
    }

    pkey::test::TempStore store;
};

// Runs body in a child whose files may not grow beyond limit bytes; returns
// the child's exit code.
template <typename Body>
int in_child_with_file_limit(rlim_t limit, Body body) {
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead of killing
        const rlimit rl{limit, limit};
        setrlimit(RLIMIT_FSIZE, &rl);
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FsFileTest, MakeDirCreatesEveryDirectoryBeforeTheLastSlash) {
    EXPECT_EQ(PKEY_FS_MakeDir("no-slash-here"), 0);
    EXPECT_FALSE(fsys::exists("no-slash-here"));

    EXPECT_EQ(PKEY_FS_MakeDir(path("a//b/c").c_str()), 0);
    EXPECT_TRUE(fsys::is_directory(path("a/b")));
    EXPECT_FALSE(fsys::exists(path("a/b/c")));
    EXPECT_EQ(mode_of(path("a")), 0770u);
    EXPECT_EQ(mode_of(path("a/b")), 0770u);

    EXPECT_EQ(PKEY_FS_MakeDir(path("a/b/c/d/").c_str()), 0);
    EXPECT_TRUE(fsys::is_directory(path("a/b/c/d")));
}

TEST_F(FsFileTest, MakeDirLeavesExistingDirectoriesAndFailsOnAFileInTheWay) {
    fsys::create_directory(path("kept"));
    chmod(path("kept").c_str(), 0700);
    EXPECT_EQ(PKEY_FS_MakeDir(path("kept/new/x").c_str()), 0);
    EXPECT_EQ(mode_of(path("kept")), 0700u);

    put(path("file"), "x");
    EXPECT_EQ(PKEY_FS_MakeDir(path("file/sub/x").c_str()), kFailed);
}

TEST_F(FsFileTest, WriteCreatesDirectoriesAndAPrivateFileThatReadsBackWhole) {
    const std::string file = path("node1/flash/pkey/rsa/k.key");
    const std::string data("\x00\x01key\xff", 6);
    ASSERT_EQ(PKEY_FS_WriteDataToVFS(data.data(), static_cast<unsigned>(data.size()), file.c_str()),
              0);
    EXPECT_EQ(read_vfs(file), data);
    EXPECT_EQ(mode_of(file), 0660u);
    EXPECT_EQ(mode_of(path("node1/flash/pkey")), 0770u);
    if (geteuid() == 0) {
        struct stat st {};
        stat(file.c_str(), &st);
        EXPECT_EQ(st.st_uid, 1u);
        EXPECT_EQ(st.st_gid, 1u);
    }
    // A rewrite replaces the whole file, a shorter one included.
    ASSERT_EQ(PKEY_FS_WriteDataToVFS("ab", 2, file.c_str()), 0);
    EXPECT_EQ(get(file), "ab");
}

TEST_F(FsFileTest, ReadRefusesMissingEmptyAndNonRegularFiles) {
    EXPECT_EQ(read_vfs(path("missing")), "<null>");
    put(path("empty"), "");
    EXPECT_EQ(read_vfs(path("empty")), "<null>");
    fsys::create_directory(path("dir"));
    EXPECT_EQ(read_vfs(path("dir")), "<null>");
    EXPECT_EQ(PKEY_FS_ReadDataFromVFS(nullptr, nullptr), nullptr);
}

TEST_F(FsFileTest, AFailedWriteLeavesNoFileBehind) {
    const std::string file = path("d/big");
    put(file, "previous content");
    const int code = in_child_with_file_limit(100, [&] {
        const std::string data(4096, 'x');
        return PKEY_FS_WriteDataToVFS(data.data(), 4096, file.c_str()) == kFailed ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
    EXPECT_FALSE(fsys::exists(file));
}

TEST_F(FsFileTest, AShortWriteIsAFailure) {
    const std::string file = path("short");
    const int code = in_child_with_file_limit(10, [&] {
        const int fd = PKEY_FS_OpenCreateLock(file.c_str());
        const int r = PKEY_FS_WriteDataToVFSWithFd("0123456789abcdef", 16, fd);
        PKEY_FS_CloseUnLock(fd);
        return r == kFailed ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

TEST_F(FsFileTest, SymlinksInPlaceOfKeyFilesAreNeverFollowed) {
    const std::string target = path("outside/target");
    put(target, "precious");
    const std::string link = path("node1/flash/hostkey");
    fsys::create_directories(path("node1/flash"));
    fsys::create_symlink(target, link);

    EXPECT_EQ(PKEY_FS_WriteDataToVFS("evil", 4, link.c_str()), kFailed);
    EXPECT_EQ(get(target), "precious");
    EXPECT_EQ(read_vfs(link), "<null>");
    EXPECT_EQ(PKEY_FS_IsFileExisted(link.c_str()), 0);
    EXPECT_EQ(PKEY_FS_OpenLock(link.c_str()), -1);
    EXPECT_EQ(PKEY_FS_CopyFileByFullName(path("nothing").c_str(), link.c_str()), -1);
    put(path("src"), "copied");
    PKEY_FS_CopyFileByFullName(path("src").c_str(), link.c_str());
    EXPECT_EQ(get(target), "precious");
}

TEST_F(FsFileTest, RemovalOfAMissingFileSucceeds) {
    EXPECT_EQ(PKEY_FS_RemoveFileFromVFS(0, 0, path("never").c_str()), 0);
    put(path("f"), "x");
    EXPECT_EQ(PKEY_FS_RemoveFileFromVFS(0, 0, path("f").c_str()), 0);
    EXPECT_FALSE(fsys::exists(path("f")));
    put(path("full/x"), "x");
    EXPECT_EQ(PKEY_FS_RemoveFileFromVFS(0, 0, path("full").c_str()), kFailed);
}

TEST_F(FsFileTest, ExistenceTestsTellFilesFromDirectories) {
    put(path("f"), "x");
    EXPECT_EQ(PKEY_FS_IsFileExisted(path("f").c_str()), 1);
    EXPECT_EQ(PKEY_FS_IsDirExisted(path("f").c_str()), 0);
    EXPECT_EQ(PKEY_FS_IsDirExisted(store.root().c_str()), 1);
    EXPECT_EQ(PKEY_FS_IsDirExisted((store.root() + "/").c_str()), 1);
    EXPECT_EQ(PKEY_FS_IsFileExisted(store.root().c_str()), 0);
    EXPECT_EQ(PKEY_FS_IsFileExisted(path("missing").c_str()), 0);
}

TEST_F(FsFileTest, CopyMakesTheDestinationAndSkipsEmptyOrMissingSources) {
    put(path("src/key"), "0123456789");
    EXPECT_EQ(PKEY_FS_CopyFileByFullName(path("src/key").c_str(), path("dst/deep/key").c_str()), 0);
    EXPECT_EQ(get(path("dst/deep/key")), "0123456789");

    EXPECT_EQ(PKEY_FS_CopyFileByFullName(path("src/none").c_str(), path("dst/none").c_str()), -1);
    put(path("src/empty"), "");
    EXPECT_EQ(PKEY_FS_CopyFileByFullName(path("src/empty").c_str(), path("dst/empty").c_str()), 0);
    EXPECT_FALSE(fsys::exists(path("dst/empty")));
}

TEST_F(FsFileTest, KeyDirectoriesAreCopiedAndRemovedFlat) {
    put(path("w/pkey/rsa/a.key"), "A");
    put(path("w/pkey/rsa/b.key"), "BB");
    EXPECT_EQ(PKEY_FS_CopyPkeyDir("/pkey/rsa/", path("w").c_str(), path("m").c_str()), 0);
    EXPECT_EQ(get(path("m/pkey/rsa/a.key")), "A");
    EXPECT_EQ(get(path("m/pkey/rsa/b.key")), "BB");

    // A missing or empty source creates nothing at the destination.
    EXPECT_EQ(PKEY_FS_CopyPkeyDir("/pkey/dsa/", path("w").c_str(), path("m").c_str()), 0);
    fsys::create_directories(path("w/pkey/ecdsa"));
    EXPECT_EQ(PKEY_FS_CopyPkeyDir("/pkey/ecdsa/", path("w").c_str(), path("m").c_str()), 0);
    EXPECT_FALSE(fsys::exists(path("m/pkey/dsa")));
    EXPECT_FALSE(fsys::exists(path("m/pkey/ecdsa")));

    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", path("m").c_str()), 0);
    EXPECT_FALSE(fsys::exists(path("m/pkey/rsa")));
    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", path("m").c_str()), kFailed);  // now missing
}

TEST_F(FsFileTest, RemovingADirectoryWithANonEmptySubdirectoryRemovesOnlyThePlainFiles) {
    put(path("k/pkey/rsa/a.key"), "A");
    put(path("k/pkey/rsa/sub/inner"), "I");
    EXPECT_EQ(PKEY_FS_RemovePkeyDir("/pkey/rsa/", path("k").c_str()), kFailed);
    EXPECT_FALSE(fsys::exists(path("k/pkey/rsa/a.key")));
    EXPECT_TRUE(fsys::exists(path("k/pkey/rsa/sub/inner")));
}

TEST_F(FsFileTest, ALockedFileKeepsOtherReadersAndWritersWaiting) {
    const std::string file = path("locked");
    put(file, "old");
    const int fd = PKEY_FS_OpenLock(file.c_str());
    ASSERT_NE(fd, -1);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(ready[0]);
        (void)!write(ready[1], "go", 2);
        _exit(PKEY_FS_WriteDataToVFS("new", 3, file.c_str()) == 0 ? 0 : 1);
    }
    close(ready[1]);
    char go[2];
    ASSERT_EQ(read(ready[0], go, 2), 2);
    usleep(100 * 1000);
    // The writer has truncated the file at its open but waits for the lock.
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);
    PKEY_FS_CloseUnLock(fd);
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(get(file), "new");
    close(ready[0]);
}

TEST_F(FsFileTest, ConcurrentReadersSeeOnlyWholeWrites) {
    const std::string file = path("contended");
    const std::string a(1000, 'a'), b(3000, 'b');
    ASSERT_EQ(PKEY_FS_WriteDataToVFS(a.data(), 1000, file.c_str()), 0);
    const pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0; i < 400; ++i) {
            const std::string &d = i % 2 == 0 ? b : a;
            if (PKEY_FS_WriteDataToVFS(d.data(), static_cast<unsigned>(d.size()), file.c_str()) !=
                0)
                _exit(1);
        }
        _exit(0);
    }
    int whole = 0, refused = 0, damaged = 0;
    for (int i = 0; i < 400; ++i) {
        const std::string got = read_vfs(file);
        if (got == a || got == b) {
            ++whole;
        } else if (got == "<null>") {
            ++refused;
        } else {
            ++damaged;
        }
    }
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(damaged, 0) << whole << " whole, " << refused << " refused";
    EXPECT_GT(whole, 0);
}

}  // namespace
