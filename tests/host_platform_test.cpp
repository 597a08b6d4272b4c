// The Linux host platform: store paths, file-name analysis, shared settings,
// the key-file cipher, the configuration database and the C helpers.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "host_platform.h"
#include "pkey_platform.h"
#include "test_store.hpp"

namespace {

namespace fs = std::filesystem;
using pkey::test::TempStore;
using Bytes = std::vector<unsigned char>;

// Runs body in a forked child; the child's exit code is body's result (255 if it died).
int run_in_child(const std::function<int()> &body) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return 255;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

// Children started by start() block in wait() until release() is called, so
// that they all start their work at the same moment.
class StartGate {
public:
    StartGate() { EXPECT_EQ(::pipe(fds_), 0); }
    ~StartGate() {
        for (int fd : fds_)
            if (fd >= 0) ::close(fd);
    }
    pid_t start(const std::function<int()> &body) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(fds_[1]);
            char c;
            (void)::read(fds_[0], &c, 1);  // returns at EOF, when the parent releases
            ::_exit(body());
        }
        children_.push_back(pid);
        return pid;
    }
    // Releases the children and returns how many of them exited with 0.
    int release_and_wait() {
        ::close(fds_[1]);
        fds_[1] = -1;
        int ok = 0;
        for (pid_t pid : children_) {
            int status = 0;
            if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0)
                ++ok;
        }
        return ok;
    }

private:
    int fds_[2] = {-1, -1};
    std::vector<pid_t> children_;
};

// ---------------------------------------------------------------------------
// Store paths

class HostPathsTest : public ::testing::Test {
protected:
    TempStore store;
};

std::string node_path_name(const char *path, unsigned int node) {
    char out[512];
    return FS_GetNodePathName(path, node, sizeof out, out) == 0 ? out : "<error>";
}

TEST_F(HostPathsTest, WorkDirectoriesFollowNodeAndSelf) {
    char out[512];
    ASSERT_EQ(FS_GetNodeDefaultWorkDir(3, sizeof out, out), 0);
    EXPECT_EQ(out, store.work_dir(3));
    ASSERT_EQ(FS_GetDefaultWorkDirBySlot(7, sizeof out, out), 0);
    EXPECT_EQ(out, store.work_dir(7));
    ASSERT_EQ(FS_GetLocalDefaultWorkDir(sizeof out, out), 0);
    EXPECT_EQ(out, store.work_dir(1));

    HOST_SetSelfNode(5);
    EXPECT_EQ(DEV_GetSelf(), 5);
    EXPECT_EQ(DEV_GetSelfSlot(), 5u);
    ASSERT_EQ(FS_GetLocalDefaultWorkDir(sizeof out, out), 0);
    EXPECT_EQ(out, store.work_dir(5));
}

TEST_F(HostPathsTest, TooSmallBufferFailsButStaysTerminated) {
    char out[16];
    std::memset(out, 'x', sizeof out);
    EXPECT_NE(FS_GetNodeDefaultWorkDir(1, 10, out), 0);
    EXPECT_EQ(out[9], '\0');
    EXPECT_EQ(out[10], 'x');
    EXPECT_NE(FS_GetNodePathName("/var/run/pkey", 1, 10, out), 0);
    EXPECT_EQ(std::strlen(out), 9u);
    EXPECT_NE(FS_GetNodePathName("/some/long/host/path", 1, 8, out), 0);
    EXPECT_EQ(std::strlen(out), 7u);
    EXPECT_NE(FS_GetLocalDefaultWorkDir(0, out), 0);
}

TEST_F(HostPathsTest, VarRunBecomesTheNodesMemoryRoot) {
    EXPECT_EQ(node_path_name("/var/run", 2), store.mem_dir(2));
    EXPECT_EQ(node_path_name("/var/run/pkey/rsa", 4), store.mem_dir(4) + "/pkey/rsa");
    // Only the memory root itself is mapped: look-alikes and other paths stay as they are.
    EXPECT_EQ(node_path_name("/var/running", 2), "/var/running");
    EXPECT_EQ(node_path_name("/tmp/var/run", 2), "/tmp/var/run");
    EXPECT_EQ(node_path_name("flash:/x", 2), "flash:/x");
}

// ---------------------------------------------------------------------------
// File-name analysis

struct Split {
    int rc = -1;
    unsigned short loc1 = 0x1234;
    unsigned short loc2 = 0x1234;
    std::string device, dir, file;
};

Split analyse(const std::string &name) {
    Split s;
    char device[FS_DEVICE_NAME_LEN] = "?";
    char dir[FS_DIR_NAME_LEN] = "?";
    char file[FS_FILE_NAME_LEN] = "?";
    s.rc = FS_AnalyseFileName(name.c_str(), &s.loc1, &s.loc2, device, dir, file);
    s.device = device;
    s.dir = dir;
    s.file = file;
    return s;
}

void expect_flash(const Split &s, unsigned short slot, const std::string &dir,
                  const std::string &file) {
    EXPECT_EQ(s.rc, 0);
    EXPECT_EQ(s.device, "flash");
    EXPECT_EQ(s.loc1, 0);
    EXPECT_EQ(s.loc2, slot);
    EXPECT_EQ(s.dir, dir);
    EXPECT_EQ(s.file, file);
}

class HostAnalyseTest : public HostPathsTest {};

TEST_F(HostAnalyseTest, DeviceFormGivesSlotDeviceDirAndFile) {
    expect_flash(analyse("flash:/pkey/rsa/a.key"), 1, "pkey/rsa", "a.key");
    // Device names are lower-cased, the rest keeps its case.
    expect_flash(analyse("slot3#FLASH:/HostKey"), 3, "", "HostKey");
    expect_flash(analyse("flash:/"), 1, "", "");
    expect_flash(analyse("flash:"), 1, "", "");
    expect_flash(analyse("flash:/pkey/"), 1, "pkey", "");
    expect_flash(analyse("flash://pkey//./x"), 1, "pkey", "x");
    HOST_SetSelfNode(2);
    expect_flash(analyse("flash:/hostkey"), 2, "", "hostkey");
    Split cf = analyse("cfcard:/a/b");
    EXPECT_EQ(cf.device, "cfcard");
    EXPECT_EQ(cf.dir, "a");
}

TEST_F(HostAnalyseTest, WorkDirectoryPathsAreFlashOfTheirSlot) {
    expect_flash(analyse(store.work_dir(1)), 1, "", "");
    expect_flash(analyse(store.work_dir(1) + "/"), 1, "", "");
    expect_flash(analyse(store.work_dir(1) + "/pkey/hostkey"), 1, "pkey", "hostkey");
    expect_flash(analyse(store.work_dir(2) + "/hostkey"), 2, "", "hostkey");
    expect_flash(analyse(store.work_dir(1) + "/pkey/"), 1, "pkey", "");
}

TEST_F(HostAnalyseTest, SlashesDotsAndDotDotsAreResolved) {
    expect_flash(analyse(store.root() + "//node1///flash/./pkey//x"), 1, "pkey", "x");
    // ".." inside a part that does not exist yet is resolved on the text.
    expect_flash(analyse(store.work_dir(1) + "/nothere/../hostkey"), 1, "", "hostkey");
    // ".." through existing directories is resolved by the file system.
    fs::create_directories(store.work_dir(1) + "/a/b");
    expect_flash(analyse(store.work_dir(1) + "/a/b/../../hostkey"), 1, "", "hostkey");
    expect_flash(analyse(store.work_dir(1) + "/a/../../flash/pkey/k"), 1, "pkey", "k");
}

TEST_F(HostAnalyseTest, SymlinksIntoTheWorkDirectoryAreSeen) {
    fs::create_directories(store.work_dir(1) + "/pkey");
    fs::create_directory_symlink(store.work_dir(1), store.root() + "/link");
    expect_flash(analyse(store.root() + "/link/pkey/rsa/k.key"), 1, "pkey/rsa", "k.key");

    std::ofstream(store.work_dir(1) + "/hostkey") << "x";
    fs::create_symlink(store.work_dir(1) + "/hostkey", store.root() + "/hk");
    expect_flash(analyse(store.root() + "/hk"), 1, "", "hostkey");
    // A dangling link: writing through it would create the key file.
    fs::create_symlink(store.work_dir(1) + "/dsakey", store.root() + "/dangling");
    expect_flash(analyse(store.root() + "/dangling"), 1, "", "dsakey");
    // A relative link, and ".." taken from where a link leads, not from its text.
    fs::create_directories(store.root() + "/x");
    fs::create_directory_symlink("../node1/flash/pkey", store.root() + "/x/rel");
    expect_flash(analyse(store.root() + "/x/rel/rsa/k"), 1, "pkey/rsa", "k");
    expect_flash(analyse(store.root() + "/x/rel/../hostkey"), 1, "", "hostkey");

    // A node whose flash directory is itself a symlink to somewhere else.
    fs::create_directories(store.root() + "/elsewhere/pkey");
    fs::create_directories(store.root() + "/node4");
    fs::create_directory_symlink(store.root() + "/elsewhere", store.work_dir(4));
    expect_flash(analyse(store.root() + "/elsewhere/pkey/k"), 4, "pkey", "k");
}

TEST_F(HostAnalyseTest, OtherAbsolutePathsAreOnTheHostFileSystem) {
    const std::string root_rel = store.root().substr(1);
    for (const std::string &name :
         {store.root() + "/other/z", store.root() + "/node1/flashy/z", store.mem_dir(1) + "/z",
          store.root() + "/node01/flash/z"}) {
        Split s = analyse(name);
        EXPECT_EQ(s.rc, 0) << name;
        EXPECT_EQ(s.device, "") << name;
        EXPECT_EQ(s.loc1, 0xFFFF);
        EXPECT_EQ(s.loc2, 0xFFFF);
        EXPECT_EQ(s.file, "z") << name;
        EXPECT_EQ("/" + s.dir + "/z", name);
    }
}

TEST_F(HostAnalyseTest, RefusesRelativeAndOverlongNames) {
    EXPECT_NE(analyse("pkey/hostkey").rc, 0);
    fs::create_symlink(store.root() + "/loop-b", store.root() + "/loop-a");
    fs::create_symlink(store.root() + "/loop-a", store.root() + "/loop-b");
    EXPECT_NE(analyse(store.root() + "/loop-a/x").rc, 0);
    EXPECT_NE(analyse("").rc, 0);
    EXPECT_NE(analyse("flash:/" + std::string(FS_FILE_NAME_LEN, 'f')).rc, 0);
    EXPECT_NE(analyse("flash:/" + std::string(FS_DIR_NAME_LEN, 'd') + "/f").rc, 0);
    EXPECT_NE(analyse(std::string(FS_DEVICE_NAME_LEN, 'd') + ":/f").rc, 0);
    unsigned short l1, l2;
    char d[FS_DEVICE_NAME_LEN], p[FS_DIR_NAME_LEN], f[FS_FILE_NAME_LEN];
    EXPECT_NE(FS_AnalyseFileName(nullptr, &l1, &l2, d, p, f), 0);
    EXPECT_NE(FS_AnalyseFileName("flash:/x", &l1, &l2, d, nullptr, f), 0);
}

TEST(HostFullFileNameTest, AcceptsDeviceAndAbsoluteNamesOnly) {
    for (const char *ok : {"flash:/a", "slot2#flash:/pkey/x", "/tmp/a", "cfcard:", "/"})
        EXPECT_EQ(FS_IsValidFullFileName(ok, 0, 0, 0), 0) << ok;
    for (const char *bad : {"", "a/b", "flash", "1flash:/x", "flash:a", "/tmp/a\x01", "/tmp/\x7f",
                            "flash:/a\nb"})
        EXPECT_NE(FS_IsValidFullFileName(bad, 0, 0, 0), 0) << bad;
    EXPECT_NE(FS_IsValidFullFileName(nullptr, 0, 0, 0), 0);
    EXPECT_EQ(FS_IsValidFullFileName(("/" + std::string(510, 'a')).c_str(), 0, 0, 0), 0);
    EXPECT_NE(FS_IsValidFullFileName(("/" + std::string(511, 'a')).c_str(), 0, 0, 0), 0);
}

// ---------------------------------------------------------------------------
// Settings

class HostSettingsTest : public ::testing::Test {
protected:
    TempStore store;
};

std::vector<unsigned short> standby_nodes() {
    unsigned int count = 99;
    unsigned short *nodes = DEV_GetAllStandbyNodes(&count);
    std::vector<unsigned short> out(nodes, nodes + (nodes != nullptr ? count : 0));
    if (nodes == nullptr) {
        EXPECT_EQ(count, 0u);
    }
    std::free(nodes);
    return out;
}

int status_of(unsigned int node) {
    int status = -7;
    EXPECT_EQ(DEV_GetDeviceStatusEx(node, 0xFFFF, &status), 0);
    return status;
}

TEST_F(HostSettingsTest, FreshStoreDefaults) {
    EXPECT_EQ(DEV_GetSelf(), 1);
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 0);
    EXPECT_TRUE(standby_nodes().empty());
    EXPECT_EQ(status_of(9), DEV_STATUS_NORMAL);
    EXPECT_NE(DEV_GetDeviceStatusEx(9, 0xFFFF, nullptr), 0);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 0);
    for (unsigned int code : {CRYPTO_ALG_MD5, CRYPTO_ALG_SHA256, CRYPTO_ALG_RSA, 300u})
        EXPECT_EQ(CRYPTO_AlgoIsEnabled(code), 1) << code;
    struct stat st {};
    ASSERT_EQ(::stat((store.root() + "/settings").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
}

TEST_F(HostSettingsTest, Md5FollowsFipsModeUnlessOverridden) {
    HOST_SetFipsMode(1);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 0);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_SHA256), 1);
    HOST_SetAlgoEnabled(CRYPTO_ALG_MD5, 1);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 1);
    HOST_SetFipsMode(0);
    HOST_SetAlgoEnabled(CRYPTO_ALG_MD5, 0);
    HOST_SetAlgoEnabled(CRYPTO_ALG_DSA, 0);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 0);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_DSA), 0);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_RSA), 1);
    HOST_SetAlgoEnabled(CRYPTO_ALG_MD5, -1);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 1);
}

TEST_F(HostSettingsTest, ListsAndStatusesRoundTrip) {
    std::vector<unsigned short> many(70);
    for (unsigned int i = 0; i < many.size(); ++i) many[i] = static_cast<unsigned short>(100 + i);
    HOST_SetStandbyNodes(many.data(), static_cast<unsigned int>(many.size()));
    EXPECT_EQ(standby_nodes(), std::vector<unsigned short>(many.begin(), many.begin() + 64));
    const unsigned short two[] = {2, 3};
    HOST_SetStandbyNodes(two, 2);
    EXPECT_EQ(standby_nodes(), (std::vector<unsigned short>{2, 3}));
    HOST_SetStandbyNodes(nullptr, 0);
    EXPECT_TRUE(standby_nodes().empty());

    HOST_SetNodeStatus(3, 5);
    HOST_SetNodeStatus(4, 6);
    HOST_SetNodeStatus(3, 7);
    EXPECT_EQ(status_of(3), 7);
    EXPECT_EQ(status_of(4), 6);
    EXPECT_EQ(status_of(5), DEV_STATUS_NORMAL);
    HOST_SetMemAlarm(2);
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 2);
}

TEST_F(HostSettingsTest, ChangesAreSeenByOtherProcessesAtOnce) {
    // The parent has its mapping before the child writes: nothing is re-read.
    ASSERT_EQ(CRYPTO_FIPSIsEnabled(), 0);
    ASSERT_EQ(run_in_child([] {
                  HOST_SetFipsMode(1);
                  const unsigned short nodes[] = {2, 3, 4};
                  HOST_SetStandbyNodes(nodes, 3);
                  HOST_SetNodeStatus(3, 2);
                  HOST_SetMemAlarm(1);
                  return 0;
              }),
              0);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1);
    EXPECT_EQ(standby_nodes(), (std::vector<unsigned short>{2, 3, 4}));
    EXPECT_EQ(status_of(3), 2);
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 1);

    // The other way round: a child that already uses the settings sees the parent's change.
    int to_child[2];
    int to_parent[2];
    ASSERT_EQ(::pipe(to_child), 0);
    ASSERT_EQ(::pipe(to_parent), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const bool before = DEV_GetSelf() == 1;
        char c = 'r';
        (void)::write(to_parent[1], &c, 1);
        (void)::read(to_child[0], &c, 1);
        ::_exit(before && DEV_GetSelf() == 6 && CRYPTO_FIPSIsEnabled() == 0 ? 0 : 1);
    }
    char c;
    ASSERT_EQ(::read(to_parent[0], &c, 1), 1);
    HOST_SetSelfNode(6);
    HOST_SetFipsMode(0);
    ASSERT_EQ(::write(to_child[1], &c, 1), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {to_child[0], to_child[1], to_parent[0], to_parent[1]}) ::close(fd);
}

TEST_F(HostSettingsTest, StandbyListIsNeverSeenHalfWritten) {
    std::vector<unsigned short> long_list(64, 7);
    std::vector<unsigned short> short_list(10, 9);
    const pid_t writer = ::fork();
    if (writer == 0) {
        for (int i = 0; i < 3000; ++i) {
            HOST_SetStandbyNodes(long_list.data(), 64);
            HOST_SetStandbyNodes(short_list.data(), 10);
        }
        ::_exit(0);
    }
    int torn = 0;
    for (int i = 0; i < 3000; ++i) {
        std::vector<unsigned short> seen = standby_nodes();
        if (!seen.empty() && seen != long_list && seen != short_list) ++torn;
    }
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    EXPECT_EQ(torn, 0);
}

TEST_F(HostSettingsTest, EachStoreHasItsOwnSettings) {
    HOST_SetSelfNode(4);
    {
        TempStore other;
        EXPECT_EQ(DEV_GetSelf(), 1);
        char out[512];
        ASSERT_EQ(FS_GetLocalDefaultWorkDir(sizeof out, out), 0);
        EXPECT_EQ(out, other.work_dir(1));
    }
    store.use();
    EXPECT_EQ(DEV_GetSelf(), 4);
}

TEST_F(HostSettingsTest, OpenCreatesTheRootAndMakesItAbsolute) {
    EXPECT_EQ(run_in_child([&] {
                  if (::chdir(store.root().c_str()) != 0 || HOST_Open("sub/store") != 0) return 1;
                  char out[512];
                  if (FS_GetNodeDefaultWorkDir(2, sizeof out, out) != 0) return 2;
                  return out == store.root() + "/sub/store/node2/flash" ? 0 : 3;
              }),
              0);
    std::ofstream(store.root() + "/plain") << "x";
    EXPECT_EQ(HOST_Open((store.root() + "/plain/store").c_str()), -1);
    EXPECT_EQ(HOST_Open(nullptr), -1);
    EXPECT_EQ(HOST_Open(""), -1);
}

// ---------------------------------------------------------------------------
// Key-file cipher

class HostCipherTest : public ::testing::Test {
protected:
    static Bytes plain(std::size_t n) {
        Bytes p(n);
        for (std::size_t i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(i * 7 + 3);
        return p;
    }
    static Bytes encrypt(const Bytes &p, std::size_t extra = 0) {
        Bytes region(p.size() + PKEY_CIPHER_OVERHEAD + extra, 0xEE);
        EXPECT_EQ(PKEY_Encrypt(static_cast<unsigned int>(p.size()), p.data(),
                               static_cast<unsigned int>(region.size()), region.data()),
                  0u);
        return region;
    }
    // The plain bytes, or an empty vector when Decrypt refused.
    static Bytes decrypt(const Bytes &region, std::size_t cap) {
        Bytes out(cap, 0xA5);
        const unsigned int n = PKEY_Decrypt(static_cast<unsigned int>(region.size()), region.data(),
                                            static_cast<unsigned int>(cap), out.data());
        if (n == 0) {
            EXPECT_EQ(out, Bytes(cap, 0xA5)) << "refused, yet wrote into out";
            return {};
        }
        out.resize(n);
        return out;
    }
    TempStore store;
};

TEST_F(HostCipherTest, RoundTripsAtSeveralSizes) {
    for (std::size_t n : {1u, 16u, 84u, 1000u, 65535u}) {
        const Bytes p = plain(n);
        const Bytes region = encrypt(p);
        EXPECT_EQ(region[0], 1);
        EXPECT_EQ(region[1] * 256u + region[2], n);
        EXPECT_NE(Bytes(region.begin() + PKEY_CIPHER_OVERHEAD, region.end()), p) << n;
        EXPECT_EQ(decrypt(region, n), p) << n;
    }
}

TEST_F(HostCipherTest, TrailingRegionBytesAreIgnored) {
    const Bytes p = plain(100);
    Bytes region = encrypt(p, 19);
    for (std::size_t i = p.size() + PKEY_CIPHER_OVERHEAD; i < region.size(); ++i) region[i] ^= 0x5A;
    EXPECT_EQ(decrypt(region, region.size()), p);
}

TEST_F(HostCipherTest, EveryChangedByteOfTheUsedRegionIsRefused) {
    const Bytes p = plain(48);
    const Bytes region = encrypt(p, 19);
    for (std::size_t i = 0; i < p.size() + PKEY_CIPHER_OVERHEAD; ++i) {
        for (unsigned char flip : {0x01, 0x80}) {
            Bytes bad = region;
            bad[i] ^= flip;
            EXPECT_TRUE(decrypt(bad, region.size()).empty()) << "byte " << i;
        }
    }
}

TEST_F(HostCipherTest, RefusesBadArgumentsAndShortBuffers) {
    const Bytes p = plain(32);
    Bytes out(p.size() + PKEY_CIPHER_OVERHEAD);
    EXPECT_NE(PKEY_Encrypt(32, p.data(), static_cast<unsigned int>(out.size() - 1), out.data()), 0u);
    EXPECT_NE(PKEY_Encrypt(32, nullptr, static_cast<unsigned int>(out.size()), out.data()), 0u);
    EXPECT_NE(PKEY_Encrypt(32, p.data(), static_cast<unsigned int>(out.size()), nullptr), 0u);
    EXPECT_NE(PKEY_Encrypt(0, p.data(), static_cast<unsigned int>(out.size()), out.data()), 0u);
    Bytes big(65536);
    Bytes big_out(big.size() + PKEY_CIPHER_OVERHEAD);
    EXPECT_NE(PKEY_Encrypt(65536, big.data(), static_cast<unsigned int>(big_out.size()),
                           big_out.data()),
              0u);

    const Bytes region = encrypt(p);
    EXPECT_TRUE(decrypt(region, p.size() - 1).empty());  // plaintext would not fit
    EXPECT_TRUE(decrypt(Bytes(region.begin(), region.end() - 1), 64).empty());  // truncated
    EXPECT_EQ(PKEY_Decrypt(static_cast<unsigned int>(region.size()), nullptr, 64, out.data()), 0u);
}

TEST_F(HostCipherTest, DeciphersInPlace) {
    const Bytes p = plain(200);
    Bytes buf = encrypt(p, 19);
    const unsigned int n = PKEY_Decrypt(static_cast<unsigned int>(buf.size()), buf.data(),
                                        static_cast<unsigned int>(buf.size()), buf.data());
    ASSERT_EQ(n, p.size());
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + n), p);
}

TEST_F(HostCipherTest, AnotherStoresKeyIsRefused) {
    const Bytes p = plain(64);
    const Bytes region = encrypt(p);
    {
        TempStore other;
        EXPECT_TRUE(decrypt(region, 64).empty());
        EXPECT_NE(encrypt(p), region);
    }
    store.use();
    EXPECT_EQ(decrypt(region, 64), p);
}

TEST_F(HostCipherTest, DeviceKeyIsPrivateAndMadeOnceByRacingProcesses) {
    const Bytes p = plain(64);
    const std::string out_dir = store.root() + "/out";
    fs::create_directory(out_dir);
    StartGate gate;
    constexpr int kChildren = 4;
    for (int i = 0; i < kChildren; ++i) {
        gate.start([&, i] {
            Bytes region(p.size() + PKEY_CIPHER_OVERHEAD);
            if (PKEY_Encrypt(64, p.data(), static_cast<unsigned int>(region.size()), region.data()) != 0)
                return 1;
            std::ofstream(out_dir + "/" + std::to_string(i), std::ios::binary)
                .write(reinterpret_cast<const char *>(region.data()),
                       static_cast<std::streamsize>(region.size()));
            return 0;
        });
    }
    ASSERT_EQ(gate.release_and_wait(), kChildren);

    // SIV is deterministic, so equal regions mean every process used one key.
    const Bytes mine = encrypt(p);
    for (int i = 0; i < kChildren; ++i) {
        std::ifstream in(out_dir + "/" + std::to_string(i), std::ios::binary);
        Bytes theirs((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(theirs, mine) << "child " << i;
    }
    struct stat st {};
    ASSERT_EQ(::stat((store.root() + "/device.key").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_size, 64);
    for (const auto &entry : fs::directory_iterator(store.root()))
        EXPECT_FALSE(entry.path().filename().string().starts_with(".device.key")) << entry.path();
}

// ---------------------------------------------------------------------------
// Configuration database

class HostDbmTest : public ::testing::Test {
protected:
    static int open(int mode, const char *db = "PKEY") {
        const DBM_OPEN_OPTIONS_S options{1, 0, 1, 0, "1"};
        int handle = -1;
        EXPECT_EQ(DBM_Open(db, db, mode, &options, &handle), 0);
        return handle;
    }
    static int set(int h, const std::string &key, const std::string &value, unsigned int type = 1) {
        return DBM_SetBinary(h, key.data(), static_cast<unsigned int>(key.size()), -1,
                             static_cast<unsigned int>(value.size()), value.data(), type);
    }
    static std::string get(int h, const std::string &key) {
        const int len = DBM_Len(h, key.data(), static_cast<unsigned int>(key.size()));
        if (len < 1) return "<none>";
        std::string out(static_cast<std::size_t>(len), '\0');
        const int n = DBM_GetBinary(h, key.data(), static_cast<unsigned int>(key.size()), 0,
                                    static_cast<unsigned int>(len), out.data());
        return n == len ? out : "<short read>";
    }
    static int del(int h, const std::string &key) {
        return DBM_DeleteKey(h, key.data(), static_cast<unsigned int>(key.size()));
    }
    static std::vector<std::string> keys(int h, unsigned int capacity, unsigned int type = 1) {
        std::vector<DBM_KEY_ENTRY_S> entries(capacity + 1);
        DBM_ITERATOR it = nullptr;
        const unsigned int n = DBM_GetKeysByValueType(h, capacity, type, &it, entries.data());
        EXPECT_NE(it, nullptr);
        std::vector<std::string> out;
        for (unsigned int i = 0; i < n; ++i) out.emplace_back(entries[i].pcKey, entries[i].uiKeyLen);
        DBM_FreeIterator(it);
        return out;
    }
    TempStore store;
};

TEST_F(HostDbmTest, ReplacingAValueKeepsItsPlaceInTableOrder) {
    const int h = open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (const char *k : {"alpha", "bravo", "charlie"}) ASSERT_EQ(set(h, k, std::string("v-") + k), 0);
    ASSERT_EQ(set(h, "bravo", "replaced value"), 0);
    EXPECT_EQ(get(h, "bravo"), "replaced value");
    EXPECT_EQ(keys(h, 10), (std::vector<std::string>{"alpha", "bravo", "charlie"}));
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 1), 3u);

    // Partial reads from an offset; reading past the end gives nothing.
    char buf[8] = {};
    EXPECT_EQ(DBM_GetBinary(h, "bravo", 5, 9, 3, buf), 3);
    EXPECT_EQ(std::string(buf, 3), "val");
    EXPECT_EQ(DBM_GetBinary(h, "bravo", 5, 9, 8, buf), 5);
    EXPECT_LT(DBM_GetBinary(h, "bravo", 5, 14, 8, buf), 1);
    EXPECT_LT(DBM_GetBinary(h, "delta", 5, 0, 8, buf), 1);
    EXPECT_LT(DBM_Len(h, "delta", 5), 1);
    EXPECT_EQ(DBM_SetBinary(h, "bravo", 5, 3, 1, "x", 1), DBM_ERR_PARAM);
    EXPECT_EQ(DBM_SetBinary(h, "bravo", 5, 0, 1, "x", 1), 0);
    EXPECT_EQ(get(h, "bravo"), "x");
    EXPECT_EQ(DBM_Close(h), 0);
}

TEST_F(HostDbmTest, DeleteReportsWhetherThereWasARecord) {
    const int h = open(DBM_MODE_READ | DBM_MODE_WRITE | DBM_MODE_DELETE);
    ASSERT_EQ(set(h, "a", "1"), 0);
    ASSERT_EQ(set(h, "b", "2"), 0);
    EXPECT_EQ(del(h, "a"), 0);
    EXPECT_EQ(del(h, "a"), DBM_ERR_NOT_FOUND);
    EXPECT_EQ(get(h, "a"), "<none>");
    EXPECT_EQ(keys(h, 10), std::vector<std::string>{"b"});
    DBM_Close(h);
}

TEST_F(HostDbmTest, HandlesOnlyDoWhatTheirModeAllows) {
    const int writer = open(DBM_MODE_WRITE | DBM_MODE_DELETE);
    const int reader = open(DBM_MODE_READ);
    const int deleter = open(DBM_MODE_DELETE);
    ASSERT_EQ(set(writer, "k", "v"), 0);
    EXPECT_LT(DBM_Len(writer, "k", 1), 1);
    EXPECT_EQ(DBM_GetKeyNumByValueType(writer, 1), 0u);
    EXPECT_TRUE(keys(writer, 4).empty());
    EXPECT_EQ(set(reader, "k", "w"), DBM_ERR_DENIED);
    EXPECT_EQ(del(reader, "k"), DBM_ERR_DENIED);
    EXPECT_EQ(set(deleter, "k", "w"), DBM_ERR_DENIED);
    EXPECT_EQ(get(reader, "k"), "v");
    EXPECT_EQ(del(deleter, "k"), 0);

    // A closed handle does nothing at all.
    ASSERT_EQ(DBM_Close(reader), 0);
    EXPECT_LT(DBM_Len(reader, "k", 1), 1);
    EXPECT_NE(set(reader, "k", "v"), 0);

    int h = -1;
    EXPECT_EQ(DBM_Open(nullptr, "PKEY", 1, nullptr, &h), DBM_ERR_PARAM);
    EXPECT_EQ(DBM_Open("PKEY", "PKEY", 1, nullptr, nullptr), DBM_ERR_PARAM);
    EXPECT_EQ(DBM_Open("PKEY", "PKEY", 0, nullptr, &h), DBM_ERR_PARAM);
    EXPECT_EQ(DBM_Open("PKEY", "PKEY", 8, nullptr, &h), DBM_ERR_PARAM);
    EXPECT_EQ(DBM_Open("../x", "PKEY", 1, nullptr, &h), DBM_ERR_PARAM);
    DBM_Close(writer);
    DBM_Close(deleter);
}

TEST_F(HostDbmTest, ListingFiltersByTypeAndStopsAtCapacity) {
    const int h = open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(set(h, "key" + std::to_string(i), "v", i % 2 == 0 ? 1 : 2), 0);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 1), 5u);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 2), 5u);
    EXPECT_EQ(keys(h, 3, 1), (std::vector<std::string>{"key0", "key2", "key4"}));
    EXPECT_EQ(keys(h, 10, 2), (std::vector<std::string>{"key1", "key3", "key5", "key7", "key9"}));
    EXPECT_TRUE(keys(h, 10, 3).empty());  // still hands out an iterator to free
    DBM_FreeIterator(nullptr);
    // Databases are separate files.
    const int other = open(DBM_MODE_READ, "OTHER");
    EXPECT_EQ(DBM_GetKeyNumByValueType(other, 1), 0u);
    EXPECT_TRUE(fs::exists(store.root() + "/db/PKEY.db"));
    DBM_Close(other);
    DBM_Close(h);
}

TEST_F(HostDbmTest, ValuesAndKeysAreKeptByteExact) {
    const int h = open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (std::size_t n = 0; n <= 4096; n += (n < 32 ? 1 : 509)) {
        std::string value(n, '\0');
        for (std::size_t i = 0; i < n; ++i) value[i] = static_cast<char>(i * 31);
        const std::string key = "len" + std::to_string(n);
        ASSERT_EQ(set(h, key, value), 0);
        EXPECT_EQ(DBM_Len(h, key.data(), static_cast<unsigned int>(key.size())),
                  static_cast<int>(n));
        if (n > 0) {
            EXPECT_EQ(get(h, key), value) << n;
        }
    }
    // Keys are bytes: an embedded NUL makes a different key, not a shorter one.
    ASSERT_EQ(set(h, std::string("a\0b", 3), "with nul"), 0);
    ASSERT_EQ(set(h, "a", "plain"), 0);
    EXPECT_EQ(get(h, std::string("a\0b", 3)), "with nul");
    EXPECT_EQ(get(h, "a"), "plain");
    DBM_Close(h);
}

std::string child_key(int child, int i) {
    std::string key("c");
    key += std::to_string(child);
    key += '-';
    key += std::to_string(i);
    return key;
}

TEST_F(HostDbmTest, ConcurrentWritersInSeveralProcessesLoseNothing) {
    // The parent's connection is open before the children write: it must see their rows at once.
    const int h = open(DBM_MODE_READ | DBM_MODE_WRITE);
    ASSERT_EQ(set(h, "parent", "p"), 0);
    StartGate gate;
    constexpr int kPerChild = 500;
    for (int c = 0; c < 2; ++c) {
        gate.start([c] {
            const int ch = open(DBM_MODE_WRITE | DBM_MODE_DELETE);
            for (int i = 0; i < kPerChild; ++i) {
                const std::string key = child_key(c, i);
                if (set(ch, key, key + "-value") != 0) return 1;
            }
            return DBM_Close(ch) == 0 ? 0 : 2;
        });
    }
    ASSERT_EQ(gate.release_and_wait(), 2);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 1), 2u * kPerChild + 1);
    for (int c = 0; c < 2; ++c) {
        for (int i = 0; i < kPerChild; i += 97) {
            const std::string key = child_key(c, i);
            EXPECT_EQ(get(h, key), key + "-value");
        }
    }
    EXPECT_EQ(get(h, "parent"), "p");
    DBM_Close(h);
}


TEST_F(HostDbmTest, ListingManyKeysGivesThemAllInTableOrder) {
    constexpr unsigned int kKeys = 100000;
    const int h = open(DBM_MODE_READ);  // makes the file and its table
    {
        // Seeding through DBM_SetBinary would commit 100,000 times: write them in one go.
        sqlite3 *db = nullptr;
        ASSERT_EQ(sqlite3_open((store.root() + "/db/PKEY.db").c_str(), &db), SQLITE_OK);
        sqlite3_busy_timeout(db, 30000);
        ASSERT_EQ(sqlite3_exec(db,
                               "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n "
                               "WHERE i + 1 < 100000) INSERT INTO records(key, type, value) "
                               "SELECT CAST('peer-key-' || i AS BLOB), 1, x'76' FROM n",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }
    std::vector<DBM_KEY_ENTRY_S> entries(kKeys);
    DBM_ITERATOR it = nullptr;
    const unsigned int n = DBM_GetKeysByValueType(h, kKeys, 1, &it, entries.data());
    ASSERT_EQ(n, kKeys);
    for (unsigned int i : {0u, 1u, 4999u, kKeys - 1})
        EXPECT_EQ(std::string(entries[i].pcKey, entries[i].uiKeyLen), "peer-key-" + std::to_string(i));
    DBM_FreeIterator(it);
    DBM_Close(h);
}

// ---------------------------------------------------------------------------
// C helpers

TEST(HostSystemHelpersTest, BoundedFormattingAndCopying) {
    char buf[8];
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%s", "abc"), 3);
    EXPECT_EQ(scnprintf(buf, 4, "%d", 123456), 3);
    EXPECT_STREQ(buf, "123");
    EXPECT_EQ(scnprintf(buf, 0, "%d", 1), 0);

    EXPECT_EQ(strlcpy(buf, "abcdefghij", sizeof buf), 10u);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(strlcpy(buf, "xy", 0), 2u);
    EXPECT_STREQ(buf, "abcdefg");

    char text[] = "HostKey-RSA9";
    EXPECT_EQ(lowercase(text), text);
    EXPECT_STREQ(text, "hostkey-rsa9");
    EXPECT_EQ(lowercase(nullptr), nullptr);
}

TEST(HostSystemHelpersTest, FreedirReleasesAScandirList) {
    struct dirent **list = nullptr;
    const int n = ::scandir("/", &list, nullptr, nullptr);
    ASSERT_GT(n, 0);
    EXPECT_EQ(freedir(list, n), 0);  // leak checkers catch a wrong count
    EXPECT_EQ(freedir(nullptr, 0), 0);
}

}  // namespace
