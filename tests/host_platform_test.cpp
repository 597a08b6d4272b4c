// The Linux host platform: store paths, file-name analysis, shared settings,
// the key-file cipher and the configuration database.
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host_platform.h"
#include "pkey_local.h"
#include "pkey_peer.h"
#include "pkey_platform.h"
#include "pkey_util.hpp"
#include "platform_calls.hpp"
#include "test_store.hpp"
#include "test_util.hpp"

namespace {

namespace fs = std::filesystem;
using namespace pkey::test;  // NOLINT(google-build-using-namespace): the platform calls
using Bytes = std::vector<unsigned char>;
using Nodes = std::vector<unsigned short>;
using Strings = std::vector<std::string>;

// Runs body(i) in n forked children that all start at once; returns how many exited with 0.
int run_children(int n, const std::function<int(int)> &body) {
    int gate[2];
    if (::pipe(gate) != 0) return -1;
    for (int i = 0; i < n; ++i) {
        if (::fork() != 0) continue;
        ::close(gate[1]);
        char c;
        // Returns at EOF, when the parent closes its end.
        while (::read(gate[0], &c, 1) < 0 && errno == EINTR) {
        }
        ::_exit(body(i));
    }
    ::close(gate[0]);
    ::close(gate[1]);
    int ok = 0, status = 0;
    for (int i = 0; i < n; ++i)
        ok += ::wait(&status) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return ok;
}

// The part must appear in this thread's HOST_LastError.
#define EXPECT_ERROR_HAS(part)                                             \
    EXPECT_NE(std::string(HOST_LastError()).find(part), std::string::npos) \
        << "HOST_LastError: " << HOST_LastError()

// A directory outside any store, removed with everything in it.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = fs::temp_directory_path().string() + "/pkey-scratch-XXXXXX";
        if (::mkdtemp(pattern.data()) != nullptr) path_ = fs::canonical(pattern).string();
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!path_.empty()) fs::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

class HostTest : public ::testing::Test {
protected:
    TempStore store;
};
using HostPathsTest = HostTest;
using HostSettingsTest = HostTest;
using HostCipherTest = HostTest;
using HostDbmTest = HostTest;
using HostGuardTest = HostTest;
using HostOpenTest = HostTest;
using HostSettingsFileTest = HostTest;

// The host layout, spelled out: node N's flash work directory and memory root.
std::string flash_dir(const TempStore &s, unsigned int node) {
    return s.root() + "/node" + std::to_string(node) + "/flash";
}
std::string run_dir(const TempStore &s, unsigned int node) {
    return s.root() + "/node" + std::to_string(node) + "/run";
}

constexpr int kFsErrNoStore = 0x50030003;
constexpr int kFsErrStore = 0x50030005;

// ---------------------------------------------------------------------------
// Store paths and file-name analysis

std::string node_path_name(const char *path, unsigned int node) {
    char out[512];
    return FS_GetNodePathName(path, node, sizeof out, out) == 0 ? out : "<error>";
}

TEST_F(HostPathsTest, WorkDirectoriesAndMemoryRootFollowTheNode) {
    char out[512];
    HOST_SetSelfNode(5);
    ASSERT_EQ(FS_GetLocalDefaultWorkDir(sizeof out, out), 0);
    EXPECT_EQ(out, flash_dir(store, 5));
    EXPECT_EQ(node_path_name("/var/run/pkey/rsa", 4), run_dir(store, 4) + "/pkey/rsa");
    // Only the memory root itself is mapped: look-alikes and other paths stay as they are.
    for (const char *kept : {"/var/running", "/tmp/var/run", "flash:/x"})
        EXPECT_EQ(node_path_name(kept, 2), kept);
    // A too small buffer fails but stays terminated, without writing past its size.
    std::memset(out, 'x', 16);
    EXPECT_NE(FS_GetNodeDefaultWorkDir(1, 10, out), 0);
    EXPECT_EQ(out[9], '\0');
    EXPECT_EQ(out[10], 'x');
    EXPECT_NE(FS_GetNodePathName("/var/run/pkey", 1, 10, out), 0);
    EXPECT_EQ(std::strlen(out), 9u);
}

// "location1/location2 device:dir|file", or "refused".
std::string analyse(const std::string &name) {
    unsigned short l1 = 0, l2 = 0;
    char dev[FS_DEVICE_NAME_LEN] = "?", dir[FS_DIR_NAME_LEN] = "?", file[FS_FILE_NAME_LEN] = "?";
    if (FS_AnalyseFileName(name.c_str(), &l1, &l2, dev, dir, file) != 0) return "refused";
    return std::to_string(l1) + "/" + std::to_string(l2) + " " + dev + ":" + dir + "|" + file;
}

TEST_F(HostPathsTest, AnalysisFindsSlotDirAndFileThroughDotsAndSymlinksAndRefusesBadNames) {
    const std::string r = store.root(), w1 = flash_dir(store, 1);
    for (const std::string &dir :
         {w1 + "/a/b", w1 + "/pkey", r + "/x", r + "/elsewhere/pkey", r + "/node4"})
        fs::create_directories(dir);
    std::ofstream(w1 + "/hostkey") << "x";
    // Links: to the work directory, to a file in it, to a missing file, relative, node 4's
    // flash directory leading somewhere else, and a loop.
    for (const auto &[to, from] : {std::pair<std::string, std::string>{w1, r + "/link"},
                                   {w1 + "/hostkey", r + "/hk"},
                                   {w1 + "/dsakey", r + "/dangling"},
                                   {"../node1/flash/pkey", r + "/x/rel"},
                                   {r + "/elsewhere", flash_dir(store, 4)},
                                   {r + "/loop-b", r + "/loop-a"},
                                   {r + "/loop-a", r + "/loop-b"}})
        fs::create_symlink(to, from);
    HOST_SetSelfNode(2);
    const std::pair<std::string, std::string> cases[] = {
        {"flash:/pkey/rsa/a.key", "0/2 flash:pkey/rsa|a.key"},
        {"flash:", "0/2 flash:|"},
        {"slot3#FLASH:/HostKey", "0/3 flash:|HostKey"},  // only the device is lower-cased
        {"flash://pkey//./x", "0/2 flash:pkey|x"},
        {"cfcard:/a/b", "0/2 cfcard:a|b"},
        {w1 + "/pkey/", "0/1 flash:pkey|"},
        {r + "//node1///flash/./pkey//x", "0/1 flash:pkey|x"},
        // ".." in a part that does not exist is resolved on the text, else by the file system.
        {w1 + "/nothere/../hostkey", "0/1 flash:|hostkey"},
        {w1 + "/a/b/../../hostkey", "0/1 flash:|hostkey"},
        {w1 + "/a/../../flash/pkey/k", "0/1 flash:pkey|k"},
        {r + "/link/pkey/rsa/k.key", "0/1 flash:pkey/rsa|k.key"},
        {r + "/hk", "0/1 flash:|hostkey"},
        {r + "/dangling", "0/1 flash:|dsakey"},  // writing through it would make the key file
        {r + "/x/rel/rsa/k", "0/1 flash:pkey/rsa|k"},
        {r + "/x/rel/../hostkey", "0/1 flash:|hostkey"},  // ".." from where the link leads
        {r + "/elsewhere/pkey/k", "0/4 flash:pkey|k"}};
    for (const auto &[name, want] : cases) EXPECT_EQ(analyse(name), want) << name;
    const std::string refused[] = {"pkey/hostkey",
                                   "",
                                   r + "/loop-a/x",
                                   "flash:/" + std::string(FS_FILE_NAME_LEN, 'f'),
                                   "flash:/" + std::string(FS_DIR_NAME_LEN, 'd') + "/f",
                                   std::string(FS_DEVICE_NAME_LEN, 'd') + ":/f"};
    for (const std::string &name : refused) EXPECT_EQ(analyse(name), "refused") << name;
    // Other absolute paths are on the host file system.
    for (const std::string &name :
         {r + "/other/z", r + "/node1/flashy/z", run_dir(store, 1) + "/z", r + "/node01/flash/z"})
        EXPECT_EQ(analyse(name), "65535/65535 :" + name.substr(1, name.size() - 3) + "|z");
}

TEST_F(HostPathsTest, FullFileNamesAreDeviceOrAbsoluteNamesOnly) {
    for (const char *ok : {"flash:/a", "slot2#flash:/x", "/tmp/a", "cfcard:", "/"})
        EXPECT_EQ(FS_IsValidFullFileName(ok, 0, 0, 0), 0) << ok;
    for (const char *bad :
         {"", "a/b", "flash", "1flash:/x", "flash:a", "/tmp/a\x01", "/tmp/\x7f", "flash:/a\nb"})
        EXPECT_NE(FS_IsValidFullFileName(bad, 0, 0, 0), 0) << bad;
    EXPECT_EQ(FS_IsValidFullFileName(("/" + std::string(510, 'a')).c_str(), 0, 0, 0), 0);
    EXPECT_NE(FS_IsValidFullFileName(("/" + std::string(511, 'a')).c_str(), 0, 0, 0), 0);
}

// The store's own files are out of reach of user file operations through
// every spelling: "..", "//", symlinked directories, device form, hard links.
TEST_F(HostGuardTest, NamesLandingOnTheStoresOwnFilesAreRefusedAndUserFilesAllowed) {
    const std::string r = store.root(), w1 = flash_dir(store, 1), m1 = run_dir(store, 1);
    ScratchDir outside;
    const std::string o = outside.path();
    ASSERT_EQ(PKEY_Encrypt(1, "x", 64, Bytes(64).data()), 0u);  // makes device.key
    int h = -1;
    ASSERT_EQ(DBM_Open("PKEY", "PKEY", DBM_MODE_READ, nullptr, &h), 0);  // makes db/PKEY.db
    for (const std::string &dir : {w1 + "/pkey/rsa", w1 + "/sub", m1 + "/pkey/rsa",
                                   r + "/node2/flash/pkey", r + "/elsewhere4", r + "/node4"})
        fs::create_directories(dir);
    for (const std::string &file : {w1 + "/pkey/rsa/a.key", w1 + "/notes.txt", o + "/a"})
        std::ofstream(file) << "x";
    fs::create_directory_symlink(r, o + "/store");
    fs::create_directory_symlink(r + "/elsewhere4", r + "/node4/flash");
    fs::create_symlink("../../device.key", w1 + "/lnk");
    fs::create_symlink(r + "/db/new.db", w1 + "/dangling");
    fs::create_hard_link(r + "/device.key", o + "/hl-devkey");
    fs::create_hard_link(w1 + "/pkey/rsa/a.key", w1 + "/hl-key");
    fs::create_hard_link(o + "/a", o + "/b");  // linked, but no file of the store

    const std::string refused[] = {
        r, r + "/", r + "/.", o + "/store", r + "/device.key", r + "/.device.key.Ab12Cd",
        r + "/device.key.old", r + "/settings", r + "/.settings.Xy12Zz", r + "/db",
        r + "/db/PKEY.db", r + "/db/PKEY.db-wal", r + "/db/x/y", r + "/node1", r + "/node1/flash",
        r + "/node1/run", r + "/node7", r + "/node7/flash/pkey/x", w1 + "/pkey",
        w1 + "/PKEY/rsa/a.key", w1 + "/pkey/rsa/new.key", w1 + "/HostKey", w1 + "/serverkey",
        w1 + "/DSAKEY", w1 + "/ecdsakey", m1 + "/pkey", m1 + "/pkey/rsa/a.key",
        r + "/node2/flash/pkey/x", r + "/node2/flash/hostkey",  // another node's
        // Other spellings of the same places.
        w1 + "/sub/../pkey/x", r + "/other/../device.key", r + "//node1/./flash//pkey/x",
        o + "/store/device.key", o + "/store/node1/flash/pkey/rsa/a.key", w1 + "/lnk",
        w1 + "/dangling", r + "/elsewhere4", r + "/elsewhere4/pkey/x", r + "/node4/flash/hostkey",
        "flash:/pkey/rsa/a.key", "flash:", "flash:/", "FLASH:/Pkey/x", "slot2#flash:/hostkey",
        "slot7#flash:/pkey/x", "flash:/lnk", "flash:/a/../../pkey/x", "flash:/../hostkey",
        "slot4#flash:/pkey/x",
        // Other names of the store's files.
        o + "/hl-devkey", w1 + "/hl-key"};
    for (const std::string &name : refused)
        EXPECT_EQ(FS_IsValidFullFileName(name.c_str(), 0, 0, 0), kFsErrStore) << name;

    const std::string allowed[] = {"flash:/backup.pub",
                                   "flash:/sub/hostkey",
                                   "flash:/pkeys/a",
                                   "slot2#flash:/notes.txt",
                                   "cfcard:/pkey/x",
                                   w1 + "/notes.txt",
                                   w1 + "/sub/hostkey",
                                   w1 + "/hostkey.bak",
                                   m1 + "/other",
                                   r + "/node1/notes",
                                   r + "/other/x",
                                   r + "/node01/flash/pkey/x",
                                   r + "/hostkey",
                                   r + "/elsewhere4/notes",
                                   o + "/a",
                                   o + "/store/node1/flash/ok.txt",
                                   o + "/new.pub"};
    for (const std::string &name : allowed)
        EXPECT_EQ(FS_IsValidFullFileName(name.c_str(), 0, 0, 0), 0) << name;
    DBM_Close(h);
}

// ---------------------------------------------------------------------------
// Settings

Nodes standby_nodes() {
    unsigned int count = 99;
    unsigned short *nodes = DEV_GetAllStandbyNodes(&count);
    Nodes out(nodes, nodes + (nodes != nullptr ? count : 0));
    std::free(nodes);
    return out;
}
int status_of(unsigned int node) {
    int status = -7;
    EXPECT_EQ(DEV_GetDeviceStatusEx(node, 0xFFFF, &status), 0);
    return status;
}

TEST_F(HostSettingsTest, SettingsArePrivateToTheStoreAndSeenByOtherProcessesAtOnce) {
    Nodes many(70);
    std::iota(many.begin(), many.end(), 100);
    ASSERT_EQ(CRYPTO_FIPSIsEnabled(), 0);  // read before the child writes: nothing may be cached
    ASSERT_EQ(run_children(1,
                           [&](int) {
                               HOST_SetFipsMode(1);
                               HOST_SetStandbyNodes(many.data(),
                                                    static_cast<unsigned int>(many.size()));
                               HOST_SetNodeStatus(3, 2);
                               HOST_SetNodeStatus(4, 6);
                               HOST_SetNodeStatus(3, 7);
                               HOST_SetMemAlarm(1);
                               HOST_SetSelfNode(4);
                               return 0;
                           }),
              1);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1);
    EXPECT_EQ(standby_nodes(), Nodes(many.begin(), many.begin() + 64));  // at most 64 are kept
    EXPECT_EQ((std::vector{status_of(3), status_of(4), status_of(5)}),
              (std::vector{7, 6, DEV_STATUS_NORMAL}));
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 1);
    EXPECT_EQ(DEV_GetSelf(), 4);
    EXPECT_EQ(mode_of(store.root() + "/settings"), 0660u);
    {
        TempStore other;
        EXPECT_EQ(DEV_GetSelf(), 1);
    }
    store.use();
    EXPECT_EQ(DEV_GetSelf(), 4);
}

TEST_F(HostSettingsTest, StandbyListIsNeverSeenHalfWritten) {
    const Nodes long_list(64, 7), short_list(10, 9);
    EXPECT_EQ(
        run_children(2,
                     [&](int writer) {
                         for (int i = 0; i < 3000; ++i) {
                             if (writer) {
                                 HOST_SetStandbyNodes(long_list.data(), 64);
                                 HOST_SetStandbyNodes(short_list.data(), 10);
                             } else if (const Nodes seen = standby_nodes();
                                        !seen.empty() && seen != long_list && seen != short_list) {
                                 return 1;
                             }
                         }
                         return 0;
                     }),
        2);
}

TEST_F(HostSettingsTest, OpenMakesARelativeRootAbsoluteAndRefusesUnusableOnes) {
    const fs::path cwd = fs::current_path();
    fs::current_path(store.root());
    EXPECT_EQ(HOST_Open("sub/store"), 0);
    fs::current_path(cwd);
    char out[512];
    ASSERT_EQ(FS_GetNodeDefaultWorkDir(2, sizeof out, out), 0);
    EXPECT_EQ(out, store.root() + "/sub/store/node2/flash");
    std::ofstream(store.root() + "/plain") << "x";
    HOST_ClearError();
    EXPECT_EQ(HOST_Open((store.root() + "/plain/store").c_str()), -1);
    EXPECT_ERROR_HAS("cannot create the pkey store " + store.root() + "/plain/store");
    HOST_ClearError();
    EXPECT_EQ(HOST_Open((store.root() + "/plain").c_str()), -1);
    EXPECT_ERROR_HAS("not a directory");
}

TEST_F(HostSettingsTest, NoRootMeansPkeyRootFromTheEnvironment) {
    const std::string env_root = store.root() + "/from-env";
    ::setenv("PKEY_ROOT", env_root.c_str(), 1);
    EXPECT_EQ(HOST_OpenExisting(nullptr), -1);  // not there yet
    EXPECT_EQ(HOST_Open(""), 0);
    EXPECT_EQ(HOST_OpenExisting(nullptr), 0);
    ::unsetenv("PKEY_ROOT");
    char out[512];
    ASSERT_EQ(FS_GetNodeDefaultWorkDir(2, sizeof out, out), 0);
    EXPECT_EQ(out, env_root + "/node2/flash");
}

// ---------------------------------------------------------------------------
// Key-file cipher

// What every platform's cipher promises is checked by the conformance suite;
// these are the host's own: its region format, its 64 KiB limit, silence on a
// damaged region, and one device key per store.
TEST_F(HostCipherTest, RegionsAreVersionedLengthPrefixedAndBoundToTheirStore) {
    for (std::size_t n : {1u, 65535u}) {
        const Bytes p = plain(n);
        const Bytes region = encrypt(p, 0xEE, 19);
        EXPECT_EQ(region[0], 1);
        EXPECT_EQ(region[1] * 256u + region[2], n);
        EXPECT_NE(Bytes(region.begin() + PKEY_CIPHER_OVERHEAD, region.end() - 19), p) << n;
        EXPECT_EQ(decrypt(region, n), p) << n;
    }
    const Bytes p = plain(32);
    Bytes region = encrypt(p, 0xEE, 19);
    HOST_ClearError();
    region[5] ^= 1;
    EXPECT_TRUE(decrypt(region, region.size()).empty());
    EXPECT_STREQ(HOST_LastError(), "");  // a region that does not decipher is a verdict
    region[5] ^= 1;
    {
        TempStore other;
        EXPECT_TRUE(decrypt(region, 64).empty());
    }
    store.use();
    EXPECT_EQ(decrypt(region, 64), p);

    // Encipher refuses a region without room, nothing at all, and more than a 16-bit length holds.
    Bytes big(65536 + PKEY_CIPHER_OVERHEAD);
    for (const auto &[len, room] : {std::pair{32u, 32u + PKEY_CIPHER_OVERHEAD - 1},
                                    {0u, 64u},
                                    {65536u, 65536u + PKEY_CIPHER_OVERHEAD}})
        EXPECT_NE(PKEY_Encrypt(len, big.data(), room, big.data()), 0u) << len;
}

TEST_F(HostCipherTest, DeviceKeyIsPrivateAndMadeOnceByRacingProcesses) {
    constexpr int kChildren = 4;
    constexpr std::size_t kRegion = 64 + PKEY_CIPHER_OVERHEAD;
    auto *shared = static_cast<unsigned char *>(::mmap(
        nullptr, kChildren * kRegion, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    const Bytes p = plain(64);
    ASSERT_EQ(run_children(kChildren,
                           [&](int i) {
                               return PKEY_Encrypt(64, p.data(), kRegion, shared + i * kRegion) == 0
                                          ? 0
                                          : 1;
                           }),
              kChildren);
    // SIV is deterministic, so equal regions mean every process used one key.
    const Bytes mine = encrypt(p);
    for (int i = 0; i < kChildren; ++i)
        EXPECT_EQ(Bytes(shared + i * kRegion, shared + (i + 1) * kRegion), mine) << "child " << i;
    ::munmap(shared, kChildren * kRegion);
    EXPECT_EQ(mode_of(store.root() + "/device.key"), 0600u);
    EXPECT_EQ(fs::file_size(store.root() + "/device.key"), 64u);
    for (const auto &entry : fs::directory_iterator(store.root()))
        EXPECT_FALSE(entry.path().filename().string().starts_with(".device.key")) << entry.path();
}

// ---------------------------------------------------------------------------
// Configuration database

constexpr int kRead = DBM_MODE_READ, kWrite = DBM_MODE_WRITE, kDelete = DBM_MODE_DELETE;

Strings keys(int h, unsigned int capacity, unsigned int type = 1) {
    std::vector<DBM_KEY_ENTRY_S> entries(capacity + 1);
    DBM_ITERATOR it = nullptr;
    const unsigned int n = DBM_GetKeysByValueType(h, capacity, type, &it, entries.data());
    EXPECT_NE(it, nullptr);  // handed out even for an empty listing
    Strings out;
    for (unsigned int i = 0; i < n; ++i) out.emplace_back(entries[i].pcKey, entries[i].uiKeyLen);
    DBM_FreeIterator(it);
    return out;
}

// Modes, listing and byte-exact records are conformance checks; these are
// the host's own rules: database names stay inside the store, databases are
// separate, and a partial write is refused rather than guessed at.
TEST_F(HostDbmTest, DatabasesAreSeparateNamedSafelyAndWrittenWhole) {
    const int h = db_open(kRead | kWrite | kDelete);
    ASSERT_EQ(db_set(h, "alpha", "v"), 0);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 1), 1u);
    EXPECT_EQ(DBM_GetKeyNumByValueType(db_open(kRead, "OTHER"), 1), 0u);
    int other = -1;
    EXPECT_EQ(DBM_Open("../x", "PKEY", 1, nullptr, &other), DBM_ERR_PARAM);
    EXPECT_EQ(DBM_SetBinary(h, "alpha", 5, 3, 1, "x", 1), DBM_ERR_PARAM);
    EXPECT_EQ(db_get(h, "alpha"), "v");
}

TEST_F(HostDbmTest, ConcurrentWritersInSeveralProcessesLoseNothing) {
    // The parent's connection is open before the children write: it must see their rows at once.
    const int h = db_open(kRead | kWrite);
    constexpr int kPerChild = 500;
    auto key = [](int c, int i) { return "c" + std::to_string(c) + "-" + std::to_string(i); };
    ASSERT_EQ(run_children(2,
                           [&](int c) {
                               const int ch = db_open(kWrite);
                               for (int i = 0; i < kPerChild; ++i)
                                   if (db_set(ch, key(c, i), key(c, i) + "-value") != 0) return 1;
                               return DBM_Close(ch);
                           }),
              2);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 1), 2u * kPerChild);
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < kPerChild; i += 97)
            EXPECT_EQ(db_get(h, key(c, i)), key(c, i) + "-value");
}

TEST_F(HostDbmTest, ABatchOfWritesIsSeenByOtherProcessesWhenItsHandleCloses) {
    const int h = db_open(kWrite | kDelete);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(db_set(h, "k" + std::to_string(i), "v"), 0);
    ASSERT_EQ(db_delete(h, "k0"), 0);
    const auto count_elsewhere = [] {
        return pkey::test::exit_code(pkey::test::spawn(
            [] { return static_cast<int>(DBM_GetKeyNumByValueType(db_open(kRead), 1)); }));
    };
    // Readers elsewhere are not held up by the open batch, and never see half of it.
    EXPECT_LE(count_elsewhere(), 1);
    EXPECT_EQ(db_get(db_open(kRead), "k99"), "v");  // this process sees its own writes at once
    ASSERT_EQ(DBM_Close(h), 0);
    EXPECT_EQ(count_elsewhere(), 99);
}

TEST_F(HostDbmTest, ListingManyKeysGivesThemAllInTableOrder) {
    constexpr unsigned int kKeys = 100000;
    const int h = db_open(kRead);  // makes the file and its table
    // Seeding through DBM_SetBinary would commit 100,000 times: write them in one go.
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open((store.root() + "/db/PKEY.db").c_str(), &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 30000);
    const char *seed =
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < "
        "99999) INSERT INTO records(key, type, value) "
        "SELECT CAST('peer-key-' || i AS BLOB), 1, x'76' FROM n";
    EXPECT_EQ(sqlite3_exec(db, seed, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    const Strings all = keys(h, kKeys);
    ASSERT_EQ(all.size(), kKeys);
    for (unsigned int i : {0u, 1u, 4999u, kKeys - 1})
        EXPECT_EQ(all[i], "peer-key-" + std::to_string(i));
}

TEST_F(HostDbmTest, AnUnreadableDatabaseFailsNamingTheFileAndSqlitesReason) {
    pkey::test::put(store.root() + "/db/PKEY.db", std::string(4096, 'x'));
    HOST_ClearError();
    int h = -1;
    EXPECT_NE(DBM_Open("PKEY", "PKEY", kRead, nullptr, &h), 0);
    EXPECT_ERROR_HAS("cannot open the configuration database " + store.root() +
                     "/db/PKEY.db: file is not a database");
    // A record that is not there is an answer, not a failure.
    HOST_ClearError();
    const int other = db_open(kRead | kDelete, "OTHER");
    EXPECT_EQ(db_get(other, "missing"), "<none>");
    EXPECT_EQ(db_delete(other, "missing"), DBM_ERR_NOT_FOUND);
    EXPECT_STREQ(HOST_LastError(), "");
}

TEST_F(HostCipherTest, ADeviceKeyOfTheWrongSizeIsReportedAndNeverReplaced) {
    const std::string key_file = store.root() + "/device.key";
    pkey::test::put(key_file, std::string(12, 'k'));
    HOST_ClearError();
    Bytes region(64);
    EXPECT_NE(PKEY_Encrypt(4, "abcd", 64, region.data()), 0u);
    EXPECT_ERROR_HAS(key_file + ": wrong size (12 bytes)");
    EXPECT_EQ(pkey::test::get(key_file), std::string(12, 'k'));
}

// ---------------------------------------------------------------------------
// The settings file: byte layout, refusals, migration, and the state a
// refused file leaves the process in

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

// An n-byte integer at off, little-endian unless told otherwise.
void put_int(Bytes &b, std::size_t off, std::uint32_t v, int n, bool little = true) {
    for (int i = 0; i < n; ++i)
        b[off + static_cast<std::size_t>(little ? i : n - 1 - i)] =
            static_cast<unsigned char>(v >> (8 * i));
}

// Bytes 8..23: the first 16 bytes of SHA-256 over the file with them zeroed.
void seal(Bytes &b) {
    Bytes zeroed = b;
    std::fill(zeroed.begin() + 8, zeroed.begin() + 24, 0);
    unsigned char md[SHA256_DIGEST_LENGTH];
    SHA256(zeroed.data(), zeroed.size(), md);
    std::copy(md, md + 16, b.begin() + 8);
}

struct Settings {
    std::int32_t fips = -1;
    std::int32_t alarm = 0;
    std::uint32_t self = 1;
    Nodes standby;
    std::vector<std::pair<std::uint32_t, std::int32_t>> status;
    std::vector<std::pair<unsigned int, std::int8_t>> algo;  // switches other than -1
};

Settings with_fips(std::int32_t fips) {
    Settings s;
    s.fips = fips;
    return s;
}

// A version-2 file laid out from the documented offsets, all little-endian.
Bytes v2_file(const Settings &s) {
    Bytes b(944, 0);
    put_int(b, 0, 0x50484B53, 4);
    put_int(b, 4, 2, 4);
    put_int(b, 24, static_cast<std::uint32_t>(s.fips), 4);
    put_int(b, 28, static_cast<std::uint32_t>(s.alarm), 4);
    put_int(b, 32, s.self, 4);
    put_int(b, 36, static_cast<std::uint32_t>(s.standby.size()), 4);
    put_int(b, 40, static_cast<std::uint32_t>(s.status.size()), 4);
    for (std::size_t i = 0; i < s.standby.size(); ++i) put_int(b, 48 + 2 * i, s.standby[i], 2);
    for (std::size_t i = 0; i < s.status.size(); ++i) {
        put_int(b, 176 + 8 * i, s.status[i].first, 4);
        put_int(b, 180 + 8 * i, static_cast<std::uint32_t>(s.status[i].second), 4);
    }
    std::fill(b.begin() + 688, b.end(), 0xFF);
    for (const auto &[code, value] : s.algo) b[688 + code] = static_cast<unsigned char>(value);
    seal(b);
    return b;
}

// The version-1 layout (928 bytes, no checksum) in either byte order.
Bytes v1_file(const Settings &s, bool little) {
    Bytes b(928, 0);
    const auto put = [&](std::size_t off, std::uint32_t v, int n) {
        put_int(b, off, v, n, little);
    };
    put(0, 0x50484B53, 4);
    put(4, 1, 4);
    put(8, 928, 4);
    put(12, static_cast<std::uint32_t>(s.fips), 4);
    put(16, static_cast<std::uint32_t>(s.alarm), 4);
    put(20, s.self, 4);
    put(24, static_cast<std::uint32_t>(s.standby.size()), 4);
    put(28, static_cast<std::uint32_t>(s.status.size()), 4);
    for (std::size_t i = 0; i < s.standby.size(); ++i) put(32 + 2 * i, s.standby[i], 2);
    for (std::size_t i = 0; i < s.status.size(); ++i) {
        put(160 + 8 * i, s.status[i].first, 4);
        put(164 + 8 * i, static_cast<std::uint32_t>(s.status[i].second), 4);
    }
    std::fill(b.begin() + 672, b.end(), 0xFF);
    for (const auto &[code, value] : s.algo) b[672 + code] = static_cast<unsigned char>(value);
    return b;
}

void put_file(const std::string &path, const Bytes &b) {
    pkey::test::put(path, std::string(b.begin(), b.end()));
}
Bytes file_bytes(const std::string &path) {
    const std::string s = pkey::test::get(path);
    return Bytes(s.begin(), s.end());
}
Strings entries(const std::string &dir) {
    Strings names;
    for (const auto &e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    return names;
}

using OpenFn = int (*)(const char *);
const std::pair<const char *, OpenFn> kOpeners[] = {{"HOST_Open", HOST_Open},
                                                    {"HOST_OpenExisting", HOST_OpenExisting}};

TEST_F(HostSettingsFileTest, DamagedForeignAndUnknownSettingsAreRefusedAndLeftAsTheyAre) {
    const Bytes good = v2_file(with_fips(1));
    using Edit = std::tuple<std::size_t, std::uint32_t, int>;  // offset, value, bytes
    const auto edited = [&](std::initializer_list<Edit> edits) {
        Bytes b = good;
        for (const auto &[off, value, n] : edits) put_int(b, off, value, n);
        seal(b);
        return b;
    };
    Bytes fips_flipped = good;
    fips_flipped[24] ^= 1;  // FIPS on turned off by a stray write: the checksum no longer fits
    Bytes longer = good;
    longer.push_back(0);
    const Bytes v1 = v1_file(with_fips(1), kLittleEndian);
    struct Case {
        const char *what;
        Bytes file;
        std::string cause;
    };
    const Case cases[] = {
        {"empty", {}, "damaged (empty file)"},
        {"truncated", Bytes(good.begin(), good.begin() + 12), "damaged (wrong size: 12 bytes)"},
        {"longer", longer, "damaged (wrong size: 945 bytes)"},
        {"bad magic", edited({{0, 0x50484B54, 4}}), "damaged (bad magic)"},
        {"checksum", fips_flipped, "damaged (checksum mismatch)"},
        {"version 3", edited({{4, 3, 4}}), "unknown version 3"},
        {"fips", edited({{24, 2, 4}}), "fips mode 2"},
        {"self node", edited({{32, 65536, 4}}), "self node 65536"},
        {"standby count", edited({{36, 65, 4}}), "standby count 65"},
        {"status count", edited({{40, 65, 4}}), "status count 65"},
        {"status node", edited({{40, 1, 4}, {176, 70000, 4}}), "status node 70000"},
        {"algorithm switch", edited({{688 + 59, 2, 1}}), "algorithm switch 2"},
        {"v1 other byte order", v1_file(with_fips(1), !kLittleEndian),
         kLittleEndian ? "version-1 file written on a big-endian machine"
                       : "version-1 file written on a little-endian machine"},
        {"v1 out of range", v1_file(with_fips(5), kLittleEndian), "fips mode 5"},
        {"v1 truncated", Bytes(v1.begin(), v1.begin() + 900), "damaged (wrong size: 900 bytes)"},
    };
    int n = 0;
    for (const Case &c : cases) {
        for (const auto &[opener, open] : kOpeners) {
            const std::string root = store.root() + "/case" + std::to_string(n++);
            put_file(root + "/settings", c.file);
            HOST_ClearError();
            EXPECT_EQ(open(root.c_str()), -1) << c.what << " " << opener;
            EXPECT_ERROR_HAS(root + "/settings: ") << c.what;
            EXPECT_ERROR_HAS(c.cause) << c.what;
            EXPECT_ERROR_HAS("restore it from a backup, or remove it to start from the defaults");
            EXPECT_EQ(file_bytes(root + "/settings"), c.file) << c.what << " " << opener;
            EXPECT_EQ(entries(root), Strings{"settings"}) << c.what << " " << opener;
            EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1) << c.what;
            EXPECT_NE(Mem_Alert_GetCurrentState(), 0) << c.what;
        }
    }
}

TEST_F(HostSettingsFileTest, AfterARefusedOpenEveryServiceFailsClosedUntilAGoodOpen) {
    // The caches of the good store are warm: none of them may go on serving it.
    const int h = db_open(kRead | kWrite);
    ASSERT_EQ(db_set(h, "k", "v"), 0);
    const Bytes region = encrypt(plain(16));
    const Nodes standby{2};
    ASSERT_EQ(HOST_SetStandbyNodes(standby.data(), 1), 0);
    const std::string bad = store.root() + "/bad";
    Bytes damaged = v2_file(with_fips(0));
    damaged[700] ^= 1;
    put_file(bad + "/settings", damaged);
    HOST_ClearError();
    ASSERT_EQ(HOST_Open(bad.c_str()), -1);

    char out[512];
    int h2 = -1, status = 0;
    Bytes sealed(64);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 0);
    EXPECT_NE(Mem_Alert_GetCurrentState(), 0);
    EXPECT_EQ(FS_GetNodeDefaultWorkDir(1, sizeof out, out), kFsErrNoStore);
    EXPECT_EQ(FS_GetLocalDefaultWorkDir(sizeof out, out), kFsErrNoStore);
    EXPECT_EQ(FS_GetNodePathName("/var/run/pkey", 1, sizeof out, out), kFsErrNoStore);
    EXPECT_EQ(FS_IsValidFullFileName("/tmp/x", 0, 0, 0), kFsErrNoStore);
    EXPECT_NE(DBM_Open("PKEY", "PKEY", kRead, nullptr, &h2), 0);
    EXPECT_EQ(db_get(h, "k"), "<none>");  // a handle of the old store
    EXPECT_TRUE(decrypt(region, 64).empty());
    EXPECT_NE(PKEY_Encrypt(4, "abcd", 64, sealed.data()), 0u);
    EXPECT_EQ(standby_nodes(), Nodes{});
    EXPECT_NE(DEV_GetDeviceStatusEx(2, 0xFFFF, &status), 0);
    EXPECT_EQ(HOST_SetFipsMode(0), -1);
    EXPECT_EQ(file_bytes(bad + "/settings"), damaged);
    EXPECT_ERROR_HAS("checksum mismatch");
    // Another thread, which saw none of it, learns the reason from its first failure.
    std::string elsewhere;
    std::thread([&] {
        (void)CRYPTO_FIPSIsEnabled();
        elsewhere = HOST_LastError();
    }).join();
    EXPECT_NE(elsewhere.find(bad + "/settings: damaged (checksum mismatch)"), std::string::npos)
        << elsewhere;

    store.use();
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 0);
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 0);
    EXPECT_EQ(FS_GetNodeDefaultWorkDir(1, sizeof out, out), 0);
    EXPECT_EQ(decrypt(region, 64), plain(16));
    EXPECT_EQ(db_get(db_open(kRead), "k"), "v");
    EXPECT_EQ(standby_nodes(), standby);
}

TEST_F(HostSettingsFileTest, AWriterRefusesToResealSettingsDamagedUnderIt) {
    ASSERT_EQ(HOST_SetFipsMode(1), 0);
    const std::string path = store.root() + "/settings";
    Bytes damaged = file_bytes(path);
    damaged[24] ^= 1;  // FIPS off, written in place by someone else, checksum untouched
    {
        std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(24);
        f.put(static_cast<char>(damaged[24]));
    }
    HOST_ClearError();
    EXPECT_EQ(HOST_SetMemAlarm(0), -1);
    EXPECT_ERROR_HAS(path + ": damaged (checksum mismatch)");
    EXPECT_EQ(file_bytes(path), damaged);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1);  // the mapping says off, but it is no longer trusted
    EXPECT_EQ(HOST_Open(store.root().c_str()), -1);
}

TEST_F(HostSettingsFileTest, AVersion1FileIsMigratedKeepingEveryValue) {
    const Settings values{.fips = 1,
                          .alarm = 1,
                          .self = 2,
                          .standby = {3, 4},
                          .status = {{3, 7}},
                          .algo = {{CRYPTO_ALG_SHA256, 0}}};
    int n = 0;
    for (const auto &[opener, open] : kOpeners) {
        const std::string root = store.root() + "/old" + std::to_string(n++);
        put_file(root + "/settings", v1_file(values, kLittleEndian));
        ASSERT_EQ(open(root.c_str()), 0) << opener << ": " << HOST_LastError();
        EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1) << opener;
        EXPECT_EQ(standby_nodes(), (Nodes{3, 4})) << opener;
        EXPECT_EQ(DEV_GetSelf(), 2) << opener;
        EXPECT_EQ(status_of(3), 7) << opener;
        EXPECT_EQ(Mem_Alert_GetCurrentState(), 1) << opener;
        EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_SHA256), 0) << opener;
        EXPECT_EQ(file_bytes(root + "/settings"), v2_file(values)) << opener;
        EXPECT_EQ(entries(root), Strings{"settings"}) << opener;
    }
}

TEST_F(HostSettingsFileTest, Version2IsReadAndWrittenAtTheDocumentedLittleEndianOffsets) {
    EXPECT_EQ(file_bytes(store.root() + "/settings"), v2_file(with_fips(0)));  // a new store
    Settings values{.fips = 1,
                    .alarm = 3,
                    .self = 0x0102,
                    .standby = {0x0304, 7},
                    .status = {{0x0506, -2}},
                    .algo = {{CRYPTO_ALG_MD5, 1}}};
    const std::string root = store.root() + "/by-hand";
    put_file(root + "/settings", v2_file(values));
    ASSERT_EQ(HOST_OpenExisting(root.c_str()), 0) << HOST_LastError();
    EXPECT_EQ(DEV_GetSelf(), 0x0102);
    EXPECT_EQ(standby_nodes(), (Nodes{0x0304, 7}));
    EXPECT_EQ(status_of(0x0506), -2);
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 3);
    EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 1);  // its switch beats FIPS mode

    ASSERT_EQ(HOST_SetSelfNode(0x0A0B), 0);
    ASSERT_EQ(HOST_SetNodeStatus(0x0C0D, 5), 0);
    ASSERT_EQ(HOST_SetAlgoEnabled(CRYPTO_ALG_MD5, -1), 0);
    ASSERT_EQ(HOST_SetFipsMode(0), 0);
    values.self = 0x0A0B;
    values.status.emplace_back(0x0C0D, 5);
    values.algo.clear();
    values.fips = 0;
    EXPECT_EQ(file_bytes(root + "/settings"), v2_file(values));
}

// Stores made by make-store.sh on machines of either byte order (x86-64 and
// s390x, each under tests/vectors/stores) open and read alike on this one:
// settings, device key, key files and the peer database.
TEST_F(HostOpenTest, StoresMadeOnEitherByteOrderReadTheSameHere) {
    int stores = 0;
    for (const auto &machine : fs::directory_iterator(PKEY_STORE_VECTORS)) {
        if (!fs::is_directory(machine.path() / "store")) continue;
        ++stores;
        const std::string name = machine.path().filename();
        const std::string root = store.root() + "/" + name;
        fs::copy(machine.path() / "store", root, fs::copy_options::recursive);
        ASSERT_EQ(HOST_OpenExisting(root.c_str()), 0) << name << ": " << HOST_LastError();
        EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1) << name;
        EXPECT_EQ(DEV_GetSelf(), 1) << name;
        EXPECT_EQ(standby_nodes(), Nodes{2}) << name;

        std::ifstream expected(machine.path() / "expected");
        std::string what, type, blob;
        int keys = 0;
        while (expected >> what >> type >> blob) {
            ++keys;
            std::string line = type + " " + blob;
            pkey::EvpPkeyPtr want(PKEY_PEER_ReadOpenSSHPubKey(line.data()));
            ASSERT_NE(want, nullptr) << name << " " << what;
            pkey::EvpPkeyPtr got(what == "host-ecdsa"  ? PKEY_GetHostKey(EVP_PKEY_EC, "")
                                 : what == "named-rsa" ? PKEY_GetHostKey(EVP_PKEY_RSA, "named")
                                                       : PKEY_GetUserKeyByName("alice"));
            ASSERT_NE(got, nullptr) << name << " " << what;
            EXPECT_EQ(EVP_PKEY_eq(want.get(), got.get()), 1) << name << " " << what;
        }
        EXPECT_EQ(keys, 3) << name;
    }
    EXPECT_EQ(stores, 2);
}

TEST_F(HostSettingsTest, SettersSayWhenTheyCannotDoIt) {
    for (unsigned short node = 0; node < 64; ++node) ASSERT_EQ(HOST_SetNodeStatus(node, 2), 0);
    HOST_ClearError();
    EXPECT_EQ(HOST_SetNodeStatus(64, 2), -1);
    EXPECT_ERROR_HAS("the status table is full");
    EXPECT_EQ(HOST_SetNodeStatus(5, 3), 0);  // a node already in the table still changes
    EXPECT_EQ(status_of(5), 3);
    HOST_ClearError();
    EXPECT_EQ(HOST_SetAlgoEnabled(256, 1), -1);
    EXPECT_ERROR_HAS("no such code");
}

// ---------------------------------------------------------------------------
// Opening a store

TEST_F(HostOpenTest, OpenExistingCreatesNothingAndNamesWhatIsMissing) {
    const std::string r = store.root();
    std::ofstream(r + "/plain") << "x";
    fs::create_directory(r + "/empty");
    const std::pair<std::string, std::string> cases[] = {
        {r + "/typo/x", "no pkey store at " + r + "/typo/x (no such directory)"},
        {r + "/plain", "no pkey store at " + r + "/plain (not a directory)"},
        {r + "/empty", "no pkey store at " + r + "/empty (no settings file)"}};
    for (const auto &[root, error] : cases) {
        HOST_ClearError();
        EXPECT_EQ(HOST_OpenExisting(root.c_str()), -1) << root;
        EXPECT_ERROR_HAS(error);
        EXPECT_EQ(CRYPTO_FIPSIsEnabled(), 1) << root;
    }
    // The services that follow make nothing either.
    char out[512];
    int h = -1;
    Bytes region(64);
    EXPECT_NE(FS_GetNodeDefaultWorkDir(1, sizeof out, out), 0);
    EXPECT_NE(DBM_Open("PKEY", "PKEY", kRead | kWrite, nullptr, &h), 0);
    EXPECT_NE(PKEY_Encrypt(4, "abcd", 64, region.data()), 0u);
    EXPECT_NE(HOST_SetFipsMode(0), 0);
    EXPECT_FALSE(fs::exists(r + "/typo"));
    EXPECT_TRUE(fs::is_empty(r + "/empty"));
}

TEST_F(HostOpenTest, ProcessesOpeningANewStoreAtOnceNeverSeeAPartialSettingsFile) {
    for (int round = 0; round < 20; ++round) {
        const std::string root = store.root() + "/race" + std::to_string(round);
        EXPECT_EQ(run_children(6,
                               [&](int i) {
                                   if (i % 2 == 0)
                                       return HOST_Open(root.c_str()) == 0 &&
                                                      HOST_SetSelfNode(3) == 0
                                                  ? 0
                                                  : 1;
                                   // Waits for the store to appear; what it finds must be complete.
                                   for (int tries = 0; tries < 1000000; ++tries) {
                                       HOST_ClearError();
                                       if (HOST_OpenExisting(root.c_str()) == 0) return 0;
                                       const std::string e = HOST_LastError();
                                       if (e.find("(no such directory)") == std::string::npos &&
                                           e.find("(no settings file)") == std::string::npos)
                                           return 2;
                                   }
                                   return 3;
                               }),
                  6)
            << "round " << round;
    }
}

TEST_F(HostOpenTest, AProcessThatNeverOpensAStoreChecksTheDefaultOneTheSameWay) {
    const std::string bad = store.root() + "/bad", old = store.root() + "/old",
                      fresh = store.root() + "/fresh";
    Bytes damaged = v2_file(with_fips(1));
    damaged[24] ^= 1;
    put_file(bad + "/settings", damaged);
    put_file(old + "/settings", v1_file(with_fips(1), kLittleEndian));
    const auto probe = [](const std::string &root) {
        return pkey::test::run("PKEY_ROOT=" + root + " " +
                               pkey::test::target_shell_command(HOST_LAZY_PROBE));
    };
    EXPECT_EQ(probe(bad), "fips=1 alarm=1 workdir=fail error=" + bad +
                              "/settings: damaged (checksum mismatch); restore it from a backup, "
                              "or remove it to start from the defaults\n");
    EXPECT_EQ(file_bytes(bad + "/settings"), damaged);
    EXPECT_EQ(probe(old), "fips=1 alarm=0 workdir=ok error=\n");
    EXPECT_EQ(file_bytes(old + "/settings"), v2_file(with_fips(1)));
    EXPECT_TRUE(probe(fresh).ends_with("alarm=0 workdir=ok error=\n"));
    EXPECT_EQ(file_bytes(fresh + "/settings"), v2_file({}));
}

}  // namespace
