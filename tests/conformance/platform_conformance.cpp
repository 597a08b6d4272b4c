// platform_conformance.cpp - what libpkey relies on from its platform, checked
// on the platform alone.
//
// Each test name states one promise of a service of pkey_platform.h, grouped
// by service; together they read as the checklist a platform must pass before
// the library's own tests are worth running on it. The program links the
// platform library and its test control seam (platform_control.h), never
// libpkey. Every test starts on a fresh store of its own.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "pkey_platform.h"
#include "platform_calls.hpp"
#include "platform_control.h"
#include "temp_store.hpp"
#include "test_util.hpp"

namespace {

namespace fsys = std::filesystem;
using namespace pkey::test;  // NOLINT(google-build-using-namespace): the suite's helpers
using Bytes = std::vector<unsigned char>;
using Strings = std::vector<std::string>;

// The algorithm codes the library passes to CRYPTO_AlgoIsEnabled.
constexpr unsigned int kAlgoCodes[] = {CRYPTO_ALG_MD5, CRYPTO_ALG_SHA256, CRYPTO_ALG_RSA,
                                       CRYPTO_ALG_DSA, CRYPTO_ALG_ECDSA,  CRYPTO_ALG_OTHER};
// The message numbers the peer key-code entry prints.
constexpr unsigned int kLibraryMessages[] = {0x060C0032U, 0x060C003BU, 0x060C003CU};
// The library's path buffers: 512 bytes for key files, 256 for the batch
// copy's work directories, 4096 for its memory root.
constexpr unsigned int kPathSizes[] = {256, 512, 4096};
// Larger than the largest key-file body the library enciphers (an RSA pair of
// 16384 bits, the largest OpenSSL makes: about 9.3 KB) and the largest value
// it stores (the DER public key of one: about 2.1 KB).
constexpr unsigned int kLargestBody = 16384;
constexpr unsigned int kLargestValue = 4096;
constexpr unsigned char kCanary = 0xA5;
// Whether every byte of b from offset from on still holds the canary.
bool untouched(const Bytes &b, std::size_t from) {
    return std::all_of(b.begin() + static_cast<long>(from), b.end(),
                       [](unsigned char c) { return c == kCanary; });
}

class PlatformTest : public ::testing::Test {
protected:
    TempStore store;
};

// ---------------------------------------------------------------------------
// Helpers over the services

// The directory a path service writes into a buffer of size bytes.
template <typename Service>
std::string directory(const std::string &call, unsigned int size, Service service) {
    std::string out(size, 'x');
    const int r = service(out.data());
    EXPECT_EQ(r, 0) << call << " with " << size << " bytes";
    return r == 0 ? out.c_str() : "<failed>";
}
std::string work_dir(unsigned int node, unsigned int size = 512) {
    return directory("FS_GetNodeDefaultWorkDir(" + std::to_string(node) + ")", size,
                     [&](char *out) { return FS_GetNodeDefaultWorkDir(node, size, out); });
}
std::string local_work_dir(unsigned int size = 512) {
    return directory("FS_GetLocalDefaultWorkDir", size,
                     [&](char *out) { return FS_GetLocalDefaultWorkDir(size, out); });
}
std::string slot_work_dir(unsigned int slot, unsigned int size = 512) {
    return directory("FS_GetDefaultWorkDirBySlot(" + std::to_string(slot) + ")", size,
                     [&](char *out) { return FS_GetDefaultWorkDirBySlot(slot, size, out); });
}
std::string mem_root(unsigned int node, unsigned int size = 512) {
    return directory("FS_GetNodePathName(/var/run, " + std::to_string(node) + ")", size,
                     [&](char *out) { return FS_GetNodePathName("/var/run", node, size, out); });
}

// What FS_AnalyseFileName makes of a name, its outputs preset as the library presets them.
struct Place {
    int result = -1;
    unsigned short location1 = 0xFFFF, location2 = 0xFFFF;
    std::string device, dir, file;
    bool terminated = true;  // every text output NUL-terminated within its size
};
Place analyse(const std::string &name) {
    Place p;
    char device[FS_DEVICE_NAME_LEN + 8], dir[FS_DIR_NAME_LEN + 8], file[FS_FILE_NAME_LEN + 8];
    std::memset(device, 'x', sizeof device);
    std::memset(dir, 'x', sizeof dir);
    std::memset(file, 'x', sizeof file);
    device[0] = dir[0] = file[0] = '\0';
    p.result = FS_AnalyseFileName(name.c_str(), &p.location1, &p.location2, device, dir, file);
    p.terminated = ::strnlen(device, FS_DEVICE_NAME_LEN) < FS_DEVICE_NAME_LEN &&
                   ::strnlen(dir, FS_DIR_NAME_LEN) < FS_DIR_NAME_LEN &&
                   ::strnlen(file, FS_FILE_NAME_LEN) < FS_FILE_NAME_LEN;
    if (p.terminated) {
        p.device = device;
        p.dir = dir;
        p.file = file;
    }
    return p;
}
// The same storage device and location, as the library's guard compares them.
bool same_device(const Place &a, const Place &b) {
    return ::strcasecmp(a.device.c_str(), b.device.c_str()) == 0 && a.location1 == b.location1 &&
           a.location2 == b.location2;
}
std::string describe(const Place &p) {
    return std::to_string(p.result) + " " + std::to_string(p.location1) + "/" +
           std::to_string(p.location2) + " " + p.device + ":" + p.dir + "|" + p.file;
}

// The keys of one listing of the given capacity, as the library lists them.
Strings db_keys(int h, unsigned int capacity, unsigned int type = kPeerType) {
    std::vector<DBM_KEY_ENTRY_S> entries(capacity);
    DBM_ITERATOR it = nullptr;
    const unsigned int n = DBM_GetKeysByValueType(h, capacity, type, &it, entries.data());
    EXPECT_LE(n, capacity);
    Strings out;
    for (unsigned int i = 0; i < std::min(n, capacity); ++i)
        out.emplace_back(entries[i].pcKey, entries[i].uiKeyLen);
    DBM_FreeIterator(it);
    return out;
}

// How much of its region the cipher writes for p: the bytes behind are those
// that keep whatever the region held before.
std::size_t used_length(const Bytes &p) {
    const Bytes zeros = encrypt(p, 0x00), ones = encrypt(p, 0xFF);
    std::size_t used = zeros.size();
    while (used > 0 && zeros[used - 1] == 0x00 && ones[used - 1] == 0xFF) --used;
    return used;
}

// ---------------------------------------------------------------------------
// A fresh store

using FreshStore = PlatformTest;

// Its statuses, memory alarm and switches are checked with their services.
TEST_F(FreshStore, IsNodeOneWithNoStandbyAndAnEmptyDatabase) {
    EXPECT_EQ(DEV_GetSelf(), 1);
    unsigned int count = 0;
    unsigned short *standby = DEV_GetAllStandbyNodes(&count);
    EXPECT_TRUE(standby == nullptr || count == 0);
    std::free(standby);
    const int h = db_open(DBM_MODE_READ);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, kPeerType), 0u);
    DBM_Close(h);
}

// ---------------------------------------------------------------------------
// Configuration database

using ConfigDatabase = PlatformTest;

TEST_F(ConfigDatabase, OpensInEveryModeTheLibraryUsesAndRefusesOthersWithParamError) {
    for (int mode : {1, 2, 3, 6, 4, 7}) {
        int handle = -1;
        ASSERT_EQ(DBM_Open(kDb, kDb, mode, &kDbOptions, &handle), DBM_OK) << mode;
        EXPECT_NE(handle, -1) << mode;
        DBM_Close(handle);
    }
    for (int mode : {0, 8, 9, 16, -1}) {
        int handle = -1;
        EXPECT_EQ(DBM_Open(kDb, kDb, mode, &kDbOptions, &handle), DBM_ERR_PARAM) << mode;
    }
}

TEST_F(ConfigDatabase, HandlesDoOnlyWhatTheirModeAllowsAndRefuseTheRestAsDenied) {
    const int save = db_open(DBM_MODE_WRITE | DBM_MODE_DELETE);  // the library's save
    ASSERT_EQ(db_set(save, "k", "v1"), DBM_OK);
    ASSERT_EQ(db_set(save, "gone", "v"), DBM_OK);
    EXPECT_EQ(db_delete(save, "gone"), DBM_OK);
    DBM_Close(save);

    const int reader = db_open(DBM_MODE_READ);
    EXPECT_EQ(db_get(reader, "k"), "v1");
    EXPECT_EQ(db_set(reader, "k", "w"), DBM_ERR_DENIED);
    EXPECT_EQ(db_delete(reader, "k"), DBM_ERR_DENIED);
    DBM_Close(reader);

    const int writer = db_open(DBM_MODE_WRITE);
    EXPECT_LT(DBM_Len(writer, "k", 1), 1);
    EXPECT_EQ(db_delete(writer, "k"), DBM_ERR_DENIED);
    DBM_Close(writer);

    const int deleter = db_open(DBM_MODE_DELETE);
    EXPECT_EQ(db_set(deleter, "k", "w"), DBM_ERR_DENIED);
    DBM_Close(deleter);

    const int purge = db_open(DBM_MODE_READ | DBM_MODE_DELETE);  // the library's FIPS purge
    EXPECT_EQ(db_keys(purge, 4), Strings{"k"});
    EXPECT_EQ(db_get(purge, "k"), "v1");
    EXPECT_EQ(db_set(purge, "k", "w"), DBM_ERR_DENIED);
    EXPECT_EQ(db_delete(purge, "k"), DBM_OK);
    DBM_Close(purge);
}

TEST_F(ConfigDatabase, AClosedHandleIsRefusedWithParamError) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE | DBM_MODE_DELETE);
    ASSERT_EQ(db_set(h, "k", "v"), DBM_OK);
    DBM_Close(h);
    EXPECT_EQ(db_set(h, "k", "w"), DBM_ERR_PARAM);
    EXPECT_EQ(db_delete(h, "k"), DBM_ERR_PARAM);
    EXPECT_LT(DBM_Len(h, "k", 1), 1);
}

TEST_F(ConfigDatabase, KeysAreExactByteStringsNulAndEveryByteValueIncluded) {
    std::string every_byte(256, '\0');
    std::iota(every_byte.begin(), every_byte.end(), '\0');
    const Strings keys = {"a",
                          std::string("a\0b", 3),
                          std::string("a\0", 2),
                          "A",
                          "a ",
                          every_byte,
                          std::string(64, 'n'),
                          std::string(65, 'n'),
                          std::string(255, 'n')};
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (std::size_t i = 0; i < keys.size(); ++i)
        ASSERT_EQ(db_set(h, keys[i], "value " + std::to_string(i)), DBM_OK) << i;
    for (std::size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(db_get(h, keys[i]), "value " + std::to_string(i)) << i;
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, kPeerType), keys.size());
    Strings listed = db_keys(h, static_cast<unsigned int>(keys.size()));
    std::sort(listed.begin(), listed.end());
    Strings want = keys;
    std::sort(want.begin(), want.end());
    EXPECT_EQ(listed, want);
    DBM_Close(h);
}

TEST_F(ConfigDatabase, ValuesKeepEveryByteAndTheirExactLength) {
    std::string value(kLargestValue, '\0');
    for (std::size_t i = 0; i < value.size(); ++i) value[i] = static_cast<char>(i * 7 + (i >> 8));
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (std::size_t n : {std::size_t{1}, std::size_t{2}, std::size_t{255}, std::size_t{256},
                          std::size_t{1000}, std::size_t{kLargestValue}}) {
        const std::string key = "len" + std::to_string(n);
        ASSERT_EQ(db_set(h, key, value.substr(0, n)), DBM_OK) << n;
        EXPECT_EQ(DBM_Len(h, key.data(), static_cast<unsigned int>(key.size())),
                  static_cast<int>(n));
        EXPECT_EQ(db_get(h, key), value.substr(0, n)) << n;
    }
    DBM_Close(h);
}

TEST_F(ConfigDatabase, GetBinaryCopiesAtMostSizeBytesFromTheOffsetAndNothingBeyond) {
    const std::string value = "0123456789abcdef";
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    ASSERT_EQ(db_set(h, "k", value), DBM_OK);
    struct Case {
        unsigned int offset, size;
        int copied;
    };
    for (const Case c : {Case{0, 16, 16}, Case{0, 40, 16}, Case{0, 5, 5}, Case{3, 4, 4},
                         Case{10, 40, 6}, Case{15, 1, 1}}) {
        Bytes buf(64, kCanary);
        EXPECT_EQ(DBM_GetBinary(h, "k", 1, c.offset, c.size, buf.data()), c.copied)
            << c.offset << "+" << c.size;
        EXPECT_EQ(std::string(buf.begin(), buf.begin() + c.copied),
                  value.substr(c.offset, c.copied));
        EXPECT_TRUE(untouched(buf, static_cast<std::size_t>(c.copied)))
            << "wrote past the bytes it reported, offset " << c.offset << " size " << c.size;
    }
    char buf[8];
    EXPECT_LT(DBM_GetBinary(h, "k", 1, 16, 8, buf), 1);  // at the end
    EXPECT_LT(DBM_GetBinary(h, "none", 4, 0, 8, buf), 1);
    EXPECT_LT(DBM_Len(h, "none", 4), 1);
    DBM_Close(h);
}

TEST_F(ConfigDatabase, SetBinaryAtOffsetMinusOneOrZeroReplacesTheWholeValue) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    ASSERT_EQ(db_set(h, "k", std::string(300, 'L')), DBM_OK);
    ASSERT_EQ(db_set(h, "k", "short", -1), DBM_OK);
    EXPECT_EQ(db_get(h, "k"), "short");
    ASSERT_EQ(db_set(h, "k", "ab", 0), DBM_OK);
    EXPECT_EQ(db_get(h, "k"), "ab");
    ASSERT_EQ(db_set(h, "k", std::string(1000, 'M'), -1), DBM_OK);
    EXPECT_EQ(db_get(h, "k"), std::string(1000, 'M'));
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, kPeerType), 1u);  // one record per key
    EXPECT_EQ(db_keys(h, 4), Strings{"k"});
    DBM_Close(h);
}

TEST_F(ConfigDatabase, CountsAndListsOnlyRecordsOfTheValueTypeAsked) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    ASSERT_EQ(db_set(h, "one", "v", -1, 1), DBM_OK);
    ASSERT_EQ(db_set(h, "two", "v", -1, 2), DBM_OK);
    ASSERT_EQ(db_set(h, "also-one", "v", -1, 1), DBM_OK);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 1), 2u);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 2), 1u);
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, 3), 0u);
    EXPECT_EQ(db_keys(h, 8, 1), (Strings{"one", "also-one"}));
    EXPECT_EQ(db_keys(h, 8, 2), Strings{"two"});
    EXPECT_TRUE(db_keys(h, 8, 3).empty());
    DBM_Close(h);
}

// The library's sorted name list keeps listing order for ties (names equal up
// to a NUL), so the order records were first stored in must show.
TEST_F(ConfigDatabase, ListsKeysInTheOrderTheyWereFirstStoredWithTheirExactLengths) {
    const Strings keys = {"delta", "alpha", std::string("a\0tie", 5), "charlie", "a", "bravo"};
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (const std::string &k : keys) ASSERT_EQ(db_set(h, k, "v"), DBM_OK);
    ASSERT_EQ(DBM_GetKeyNumByValueType(h, kPeerType), keys.size());
    EXPECT_EQ(db_keys(h, static_cast<unsigned int>(keys.size())), keys);
    DBM_Close(h);
}

TEST_F(ConfigDatabase, ListingFillsAtMostTheCapacityAskedAndNoEntryBeyond) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE);
    for (const char *k : {"k1", "k2", "k3", "k4", "k5"}) ASSERT_EQ(db_set(h, k, "v"), DBM_OK);
    for (unsigned int capacity : {1u, 3u, 5u}) {
        static const char kSentinel[] = "untouched";
        std::vector<DBM_KEY_ENTRY_S> entries(capacity + 2,
                                             DBM_KEY_ENTRY_S{kSentinel, 0xDEAD, 7, 7});
        std::fill_n(entries.begin(), capacity, DBM_KEY_ENTRY_S{nullptr, 0, 0, 0});
        DBM_ITERATOR it = nullptr;
        EXPECT_EQ(DBM_GetKeysByValueType(h, capacity, kPeerType, &it, entries.data()), capacity);
        for (unsigned int i = 0; i < capacity; ++i)
            EXPECT_EQ(std::string(entries[i].pcKey, entries[i].uiKeyLen),
                      "k" + std::to_string(i + 1));
        for (unsigned int i = capacity; i < capacity + 2; ++i)
            EXPECT_TRUE(entries[i].pcKey == kSentinel && entries[i].uiKeyLen == 0xDEAD)
                << "entry " << i << " written with capacity " << capacity;
        DBM_FreeIterator(it);
    }
    DBM_Close(h);
}

TEST_F(ConfigDatabase, ListedKeyTextsLiveUntilTheirIteratorIsFreed) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE | DBM_MODE_DELETE);
    const Strings first = {"first-1", "first-2", "first-3"};
    for (const std::string &k : first) ASSERT_EQ(db_set(h, k, "v"), DBM_OK);
    DBM_KEY_ENTRY_S entries[3] = {};
    DBM_ITERATOR it = nullptr;
    ASSERT_EQ(DBM_GetKeysByValueType(h, 3, kPeerType, &it, entries), 3u);
    // Everything the library might do meanwhile: write, delete, list again.
    ASSERT_EQ(db_set(h, "later", std::string(500, 'x')), DBM_OK);
    ASSERT_EQ(db_delete(h, "first-2"), DBM_OK);
    EXPECT_EQ(db_keys(h, 8), (Strings{"first-1", "first-3", "later"}));
    DBM_Close(h);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(std::string(entries[i].pcKey, entries[i].uiKeyLen), first[i]);
    DBM_FreeIterator(it);
}

TEST_F(ConfigDatabase, AnIteratorIsFreedSafelyWhenNothingWasListedOrItWasNeverSet) {
    DBM_FreeIterator(nullptr);  // the library frees its preset iterator whatever happened
    const int h = db_open(DBM_MODE_READ);
    DBM_KEY_ENTRY_S entry{};
    DBM_ITERATOR it = nullptr;
    EXPECT_EQ(DBM_GetKeysByValueType(h, 1, kPeerType, &it, &entry), 0u);
    DBM_FreeIterator(it);
    DBM_Close(h);
}

TEST_F(ConfigDatabase, DeleteRemovesTheRecordAndReportsAMissingOneAsNotFound) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_WRITE | DBM_MODE_DELETE);
    ASSERT_EQ(db_set(h, "a", "1"), DBM_OK);
    ASSERT_EQ(db_set(h, "b", "2"), DBM_OK);
    EXPECT_EQ(db_delete(h, "a"), DBM_OK);
    EXPECT_EQ(db_get(h, "a"), "<none>");
    EXPECT_EQ(db_get(h, "b"), "2");
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, kPeerType), 1u);
    EXPECT_EQ(db_keys(h, 4), Strings{"b"});
    EXPECT_EQ(db_delete(h, "a"), DBM_ERR_NOT_FOUND);
    EXPECT_EQ(db_delete(h, "never"), DBM_ERR_NOT_FOUND);
    DBM_Close(h);
}

TEST_F(ConfigDatabase, RecordsOutliveTheirHandleAndTheStoreBeingOpenedAgain) {
    int h = db_open(DBM_MODE_WRITE | DBM_MODE_DELETE);
    ASSERT_EQ(db_set(h, "kept", "value"), DBM_OK);
    DBM_Close(h);
    h = db_open(DBM_MODE_READ);
    EXPECT_EQ(db_get(h, "kept"), "value");
    DBM_Close(h);
    {
        TempStore other;
        h = db_open(DBM_MODE_READ);
        EXPECT_EQ(db_get(h, "kept"), "<none>");  // each store has its own database
        DBM_Close(h);
    }
    store.use();
    h = db_open(DBM_MODE_READ);
    EXPECT_EQ(db_get(h, "kept"), "value");
    DBM_Close(h);
}

// The SSH server and the configuration service are separate processes on one database.
TEST_F(ConfigDatabase, WritesOfOneProcessAreSeenByAnotherOnceItsHandleIsClosed) {
    int h = db_open(DBM_MODE_WRITE | DBM_MODE_DELETE);
    ASSERT_EQ(db_set(h, "parent", "p"), DBM_OK);
    DBM_Close(h);
    EXPECT_EQ(
        exit_code(spawn([] {
            int c = -1;
            if (DBM_Open(kDb, kDb, DBM_MODE_READ, &kDbOptions, &c) != DBM_OK) return 1;
            const bool seen = db_get(c, "parent") == "p";
            DBM_Close(c);
            if (!seen) return 2;
            if (DBM_Open(kDb, kDb, DBM_MODE_WRITE | DBM_MODE_DELETE, &kDbOptions, &c) != DBM_OK)
                return 3;
            const int r = db_set(c, "child", "c");
            DBM_Close(c);
            return r == DBM_OK ? 0 : 4;
        })),
        0);
    h = db_open(DBM_MODE_READ);
    EXPECT_EQ(db_get(h, "child"), "c");
    EXPECT_EQ(DBM_GetKeyNumByValueType(h, kPeerType), 2u);
    DBM_Close(h);
}

// ---------------------------------------------------------------------------
// Change tracking (optional: a platform without it skips these)

extern "C" int DBM_GetChangeStamp(int, unsigned int, DBM_STAMP *) __attribute__((weak));
extern "C" int DBM_GetKeysChangedSince(int, DBM_STAMP, unsigned int, unsigned int, DBM_ITERATOR *,
                                       DBM_KEY_ENTRY_S *, DBM_STAMP *) __attribute__((weak));

class ChangeTracking : public PlatformTest {
protected:
    void SetUp() override {
        if (DBM_GetChangeStamp == nullptr || DBM_GetKeysChangedSince == nullptr)
            GTEST_SKIP() << "this platform does not track database changes";
    }
    static DBM_STAMP stamp(int h, unsigned int type = kPeerType) {
        DBM_STAMP s = ~0ULL;
        EXPECT_EQ(DBM_GetChangeStamp(h, type, &s), DBM_OK);
        return s;
    }
    // The keys written after since, listed capacity at a time; *last as the final call left it.
    static Strings changed(int h, DBM_STAMP since, unsigned int capacity, DBM_STAMP *last) {
        Strings out;
        for (;;) {
            std::vector<DBM_KEY_ENTRY_S> entries(capacity);
            DBM_ITERATOR it = nullptr;
            const int n =
                DBM_GetKeysChangedSince(h, since, capacity, kPeerType, &it, entries.data(), last);
            EXPECT_GE(n, 0);
            for (int i = 0; i < std::min(n, static_cast<int>(capacity)); ++i)
                out.emplace_back(entries[static_cast<std::size_t>(i)].pcKey,
                                 entries[static_cast<std::size_t>(i)].uiKeyLen);
            DBM_FreeIterator(it);
            if (n < static_cast<int>(capacity)) return out;
            EXPECT_GT(*last, since);
            since = *last;
        }
    }
};

TEST_F(ChangeTracking, EachWriteOrDeleteOfATypeCountsOnceForThatTypeAlone) {
    const int h = db_open(DBM_MODE_READ | DBM_MODE_DELETE | DBM_MODE_WRITE);
    const DBM_STAMP start = stamp(h), other = stamp(h, 2);
    ASSERT_EQ(db_set(h, "a", "1"), DBM_OK);
    ASSERT_EQ(db_set(h, "b", "1"), DBM_OK);
    ASSERT_EQ(db_set(h, "a", "2"), DBM_OK);  // a replacement counts too
    EXPECT_EQ(stamp(h), start + 3);
    ASSERT_EQ(db_set(h, std::string("\0mark", 5), "x", -1, 2), DBM_OK);
    EXPECT_EQ(stamp(h), start + 3);  // another type's write does not
    EXPECT_EQ(stamp(h, 2), other + 1);
    EXPECT_EQ(db_delete(h, "b"), DBM_OK);
    EXPECT_EQ(db_delete(h, "b"), DBM_ERR_NOT_FOUND);  // nothing deleted, nothing counted
    EXPECT_EQ(stamp(h), start + 4);
    ASSERT_EQ(db_set(h, "a", "3", -1, 2), DBM_OK);  // moving a record counts for both types
    EXPECT_EQ(stamp(h), start + 5);
    EXPECT_EQ(stamp(h, 2), other + 2);
    DBM_Close(h);
}

TEST_F(ChangeTracking, ChangedKeysComeInWriteOrderAPageAtATime) {
    int h = db_open(DBM_MODE_READ | DBM_MODE_DELETE | DBM_MODE_WRITE);
    for (const char *k : {"k1", "k2", "k3", "k4", "k5"}) ASSERT_EQ(db_set(h, k, "v"), DBM_OK);
    const DBM_STAMP mid = stamp(h);
    ASSERT_EQ(db_set(h, "k2", "again"), DBM_OK);  // moves to the end
    ASSERT_EQ(db_set(h, "k6", "v"), DBM_OK);
    ASSERT_EQ(db_delete(h, "k4"), DBM_OK);
    ASSERT_EQ(db_set(h, "x", "v", -1, 2), DBM_OK);  // not of the type asked
    DBM_STAMP last = 0;
    EXPECT_EQ(changed(h, 0, 2, &last), (Strings{"k1", "k3", "k5", "k2", "k6"}));
    EXPECT_EQ(changed(h, mid, 1, &last), (Strings{"k2", "k6"}));
    EXPECT_EQ(last, mid + 2);
    const DBM_STAMP now = stamp(h);
    EXPECT_EQ(changed(h, now, 4, &last), Strings{});
    EXPECT_EQ(last, now);
    DBM_Close(h);

    // The counts belong to the database: another process and a reopened store see them.
    EXPECT_EQ(exit_code(spawn([] {
                  int c = -1;
                  if (DBM_Open(kDb, kDb, DBM_MODE_READ | DBM_MODE_WRITE, &kDbOptions, &c) != DBM_OK)
                      return 1;
                  const int r = db_set(c, "child", "c");
                  DBM_Close(c);
                  return r == DBM_OK ? 0 : 2;
              })),
              0);
    { TempStore other; }
    store.use();
    h = db_open(DBM_MODE_READ);
    EXPECT_EQ(stamp(h), now + 1);
    EXPECT_EQ(changed(h, now, 4, &last), Strings{"child"});
    DBM_Close(h);
}

// ---------------------------------------------------------------------------
// Device service

using DeviceService = PlatformTest;

TEST_F(DeviceService, SelfNodeIsTheOneLastSet) {
    for (unsigned short node : {4, 2, 1}) {
        ASSERT_EQ(PCTL_SetSelfNode(node), 0) << PCTL_LastError();
        EXPECT_EQ(DEV_GetSelf(), node);
    }
}

TEST_F(DeviceService, StandbyNodesComeAsAMallocedArrayTheCallerFrees) {
    const unsigned short nodes[] = {2, 5, 3, 9, 1000, 65535};
    for (unsigned int n : {6u, 1u, 0u}) {
        ASSERT_EQ(PCTL_SetStandbyNodes(n != 0 ? nodes : nullptr, n), 0) << PCTL_LastError();
        unsigned int count = 0;
        unsigned short *got = DEV_GetAllStandbyNodes(&count);
        if (n == 0) {
            EXPECT_TRUE(got == nullptr || count == 0) << "none left, yet " << count;
        } else {
            ASSERT_NE(got, nullptr) << n;
            EXPECT_EQ(std::multiset<unsigned short>(got, got + count),
                      std::multiset<unsigned short>(nodes, nodes + n));
        }
        std::free(got);
    }
}

TEST_F(DeviceService, EveryNodeIsNormalUntilItsStatusIsSet) {
    ASSERT_EQ(PCTL_SetNodeStatus(2, 3), 0) << PCTL_LastError();
    ASSERT_EQ(PCTL_SetNodeStatus(7, 0), 0);
    const std::pair<unsigned int, int> want[] = {
        {1, DEV_STATUS_NORMAL}, {2, 3}, {3, DEV_STATUS_NORMAL}, {7, 0}, {65535, DEV_STATUS_NORMAL}};
    for (const auto &[node, status] : want) {
        int got = -99;
        EXPECT_EQ(DEV_GetDeviceStatusEx(node, 0xFFFF, &got), 0) << node;
        EXPECT_EQ(got, status) << node;
    }
    ASSERT_EQ(PCTL_SetNodeStatus(2, DEV_STATUS_NORMAL), 0);
    int got = -99;
    EXPECT_EQ(DEV_GetDeviceStatusEx(2, 0xFFFF, &got), 0);
    EXPECT_EQ(got, DEV_STATUS_NORMAL);
}

// ---------------------------------------------------------------------------
// File-system service

using FileSystemService = PlatformTest;

TEST_F(FileSystemService, WorkDirectoriesAndMemoryRootsAreAbsoluteWithoutTrailingSlashAtEverySize) {
    for (unsigned int node : {1u, 2u, 3u, 65535u}) {
        const std::string work = work_dir(node), mem = mem_root(node);
        for (const std::string &dir : {work, mem}) {
            SCOPED_TRACE("node " + std::to_string(node) + ": " + dir);
            ASSERT_GT(dir.size(), 1u);
            EXPECT_EQ(dir.front(), '/');
            EXPECT_NE(dir.back(), '/');
        }
        for (unsigned int size : kPathSizes) {
            if (work.size() < size) {
                EXPECT_EQ(work_dir(node, size), work) << size;
            }
            if (mem.size() < size) {
                EXPECT_EQ(mem_root(node, size), mem) << size;
            }
        }
    }
}

// The library writes the memory copy and the device copy of one key as two
// files; a standby node's copies must not land on this node's.
TEST_F(FileSystemService, EveryNodeHasItsOwnWorkDirectoryAndMemoryRootApartFromEachOther) {
    std::set<std::string> seen;
    for (unsigned int node : {1u, 2u, 3u, 4u}) {
        const std::string work = work_dir(node), mem = mem_root(node);
        EXPECT_TRUE(seen.insert(work).second)
            << "work directory of node " << node << " is taken: " << work;
        EXPECT_TRUE(seen.insert(mem).second)
            << "memory root of node " << node << " is taken: " << mem;
        EXPECT_NE(mem + "/pkey", work)
            << "default key files of both copies coincide on node " << node;
    }
}

TEST_F(FileSystemService, LocalWorkDirectoryAndSlotWorkDirectoryAreTheRunningNodes) {
    for (unsigned short node : {1, 3}) {
        ASSERT_EQ(PCTL_SetSelfNode(node), 0) << PCTL_LastError();
        SCOPED_TRACE("self node " + std::to_string(node));
        const std::string work = work_dir(node);
        EXPECT_EQ(local_work_dir(), work);
        EXPECT_EQ(local_work_dir(256), work);
        const Place slot = analyse(slot_work_dir(DEV_GetSelfSlot())), own = analyse(work);
        EXPECT_EQ(slot.result, 0);
        EXPECT_EQ(own.result, 0);
        EXPECT_TRUE(same_device(slot, own)) << describe(slot) << " vs " << describe(own);
        EXPECT_EQ(slot.dir, own.dir);
        EXPECT_EQ(slot.file, own.file);
    }
}

TEST_F(FileSystemService, WorkDirectoriesAndMemoryRootsTakeTheLibrarysDirectoriesAndFiles) {
    for (unsigned int node : {1u, 2u}) {
        for (const std::string &base : {work_dir(node), mem_root(node)}) {
            const std::string dir = base + "/pkey/rsa", file = dir + "/conformance.key";
            std::error_code ec;
            fsys::create_directories(dir, ec);
            ASSERT_FALSE(ec) << dir << ": " << ec.message();
            pkey::test::put(file, "probe");
            EXPECT_EQ(pkey::test::get(file), "probe") << file;
            fsys::remove(file, ec);
        }
    }
}

// The library cuts nothing itself: a prefix that does not fit must fail, and
// its buffer must not be written past its size.
TEST_F(FileSystemService, PathServicesRefuseABufferTooSmallWithoutWritingPastIt) {
    struct Service {
        const char *name;
        int (*call)(unsigned int size, char *out);
    };
    const Service services[] = {
        {"FS_GetNodeDefaultWorkDir",
         [](unsigned int s, char *o) { return FS_GetNodeDefaultWorkDir(2, s, o); }},
        {"FS_GetLocalDefaultWorkDir",
         [](unsigned int s, char *o) { return FS_GetLocalDefaultWorkDir(s, o); }},
        {"FS_GetDefaultWorkDirBySlot",
         [](unsigned int s, char *o) {
             return FS_GetDefaultWorkDirBySlot(DEV_GetSelfSlot(), s, o);
         }},
        {"FS_GetNodePathName",
         [](unsigned int s, char *o) { return FS_GetNodePathName("/var/run", 2, s, o); }},
    };
    for (const Service &s : services) {
        SCOPED_TRACE(s.name);
        std::string full(4096, '\0');
        ASSERT_EQ(s.call(4096, full.data()), 0);
        full.resize(std::strlen(full.c_str()));
        const auto fit = static_cast<unsigned int>(full.size() + 1);
        for (unsigned int size : {fit - 1, fit / 2, 1u}) {
            std::string out(fit + 16, 'x');
            EXPECT_NE(s.call(size, out.data()), 0) << "size " << size;
            EXPECT_EQ(out.substr(size), std::string(out.size() - size, 'x')) << "size " << size;
        }
        std::string out(fit + 16, 'x');
        EXPECT_EQ(s.call(fit, out.data()), 0);
        EXPECT_EQ(out.c_str(), full);
        EXPECT_EQ(out.substr(fit), std::string(16, 'x'));
    }
}

// The guard on user file names refuses the key store's files: those at the
// top of the work directory (directory part "") and those under its "pkey"
// directory. Names are analysed before the files exist.
TEST_F(FileSystemService, AnalysisPlacesTheLibrarysFileNamesRelativeToTheWorkDirectorysDevice) {
    const std::string work = work_dir(1);
    const Place root = analyse(work);
    ASSERT_EQ(root.result, 0) << work;
    ASSERT_TRUE(root.terminated);
    struct Case {
        std::string rel, dir, file;
    };
    const Case cases[] = {{"hostkey", "", "hostkey"},
                          {"serverkey", "", "serverkey"},
                          {"dsakey", "", "dsakey"},
                          {"ecdsakey", "", "ecdsakey"},
                          {"pkey/rsa/k.key", "pkey/rsa", "k.key"},
                          {"pkey/ecdsa/named-1.key", "pkey/ecdsa", "named-1.key"},
                          {"pkey/publickey/peer", "pkey/publickey", "peer"},
                          {"sub/hostkey", "sub", "hostkey"},
                          {"notes.txt", "", "notes.txt"}};
    for (const Case &c : cases) {
        const Place p = analyse(work + "/" + c.rel);
        SCOPED_TRACE(c.rel + ": " + describe(p));
        EXPECT_EQ(p.result, 0);
        EXPECT_TRUE(p.terminated);
        EXPECT_TRUE(same_device(p, root));
        EXPECT_EQ(p.dir, c.dir);
        EXPECT_EQ(p.file, c.file);
    }
    const Place pkey_dir = analyse(work + "/pkey");
    EXPECT_EQ(pkey_dir.result, 0);
    EXPECT_TRUE(same_device(pkey_dir, root));
    EXPECT_TRUE(pkey_dir.dir == "pkey" || (pkey_dir.dir.empty() && pkey_dir.file == "pkey"))
        << describe(pkey_dir);
}

TEST_F(FileSystemService, FullFileNamesInAWorkSubdirectoryAreValidEmptyAndRelativeOnesAreNot) {
    const std::string work = work_dir(1);
    EXPECT_EQ(FS_IsValidFullFileName((work + "/sub/notes.txt").c_str(), 0, 0, 0), 0);
    EXPECT_EQ(FS_IsValidFullFileName((work + "/notes.txt").c_str(), 0, 0, 0), 0);
    EXPECT_NE(FS_IsValidFullFileName("", 0, 0, 0), 0);
    EXPECT_NE(FS_IsValidFullFileName("relative/notes.txt", 0, 0, 0), 0);
}

// ---------------------------------------------------------------------------
// Crypto switches, read afresh at every call

using CryptoSwitches = PlatformTest;

TEST_F(CryptoSwitches, FipsModeReadsOneWhenOnAndZeroWhenOffAtTheVeryNextCall) {
    for (int on : {1, 0, 1, 1, 0}) {
        ASSERT_EQ(PCTL_SetFipsMode(on), 0) << PCTL_LastError();
        EXPECT_EQ(CRYPTO_FIPSIsEnabled(), on);
    }
}

TEST_F(CryptoSwitches, ByDefaultEveryAlgorithmIsEnabledExceptMd5InFipsMode) {
    for (int fips : {0, 1}) {
        ASSERT_EQ(PCTL_SetFipsMode(fips), 0);
        for (unsigned int code : kAlgoCodes)
            EXPECT_EQ(CRYPTO_AlgoIsEnabled(code), fips && code == CRYPTO_ALG_MD5 ? 0 : 1)
                << "code " << code << (fips ? " in FIPS mode" : "");
    }
}

TEST_F(CryptoSwitches, EachSwitchTurnsExactlyItsAlgorithmOffAndBackOn) {
    for (unsigned int code : kAlgoCodes) {
        SCOPED_TRACE("code " + std::to_string(code));
        ASSERT_EQ(PCTL_SetAlgoEnabled(code, 0), 0) << PCTL_LastError();
        for (unsigned int other : kAlgoCodes)
            EXPECT_EQ(CRYPTO_AlgoIsEnabled(other), other == code ? 0 : 1) << "asking " << other;
        ASSERT_EQ(PCTL_SetAlgoEnabled(code, 1), 0);
        EXPECT_EQ(CRYPTO_AlgoIsEnabled(code), 1);
        ASSERT_EQ(PCTL_SetAlgoEnabled(code, 0), 0);
        ASSERT_EQ(PCTL_SetAlgoEnabled(code, -1), 0);
        EXPECT_EQ(CRYPTO_AlgoIsEnabled(code), 1);
    }
}

TEST_F(CryptoSwitches, Md5SwitchedOnExplicitlyStaysOnInFipsMode) {
    ASSERT_EQ(PCTL_SetFipsMode(1), 0);
    ASSERT_EQ(PCTL_SetAlgoEnabled(CRYPTO_ALG_MD5, 1), 0);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 1);
    ASSERT_EQ(PCTL_SetAlgoEnabled(CRYPTO_ALG_MD5, -1), 0);
    EXPECT_EQ(CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5), 0);
}

// ---------------------------------------------------------------------------
// Key-file cipher

using KeyFileCipher = PlatformTest;

TEST_F(KeyFileCipher, EncryptWritesAtMostInLenPlus19BytesWhateverTheRoomGiven) {
    for (unsigned int n : {0u, 1u, 15u, 16u, 17u, 100u, 1000u, kLargestBody}) {
        const Bytes p = plain(n);
        for (unsigned int extra : {0u, 64u}) {
            Bytes region(n + PKEY_CIPHER_OVERHEAD + 64, kCanary);
            const unsigned int cap = n + PKEY_CIPHER_OVERHEAD + extra;
            const unsigned int r = PKEY_Encrypt(n, p.data(), cap, region.data());
            if (n != 0) {
                EXPECT_EQ(r, 0u) << n;  // nothing to encipher may be refused
            }
            EXPECT_TRUE(untouched(region, n + PKEY_CIPHER_OVERHEAD))
                << n << " bytes with room for " << cap;
        }
        if (n == 0) continue;
        // Less room than that: refused, or at least not written past.
        Bytes region(n + PKEY_CIPHER_OVERHEAD, kCanary);
        const unsigned int cap = n + PKEY_CIPHER_OVERHEAD - 1;
        (void)PKEY_Encrypt(n, p.data(), cap, region.data());
        EXPECT_EQ(region.back(), kCanary) << n;
    }
}

TEST_F(KeyFileCipher, EveryLengthRoundTripsThroughTheWholeRegion) {
    std::vector<unsigned int> lengths(300);
    std::iota(lengths.begin(), lengths.end(), 1u);
    for (unsigned int n : {511u, 512u, 1000u, 2048u, 4096u, 9400u, kLargestBody})
        lengths.push_back(n);
    for (unsigned int n : lengths) {
        const Bytes p = plain(n, n);
        const Bytes region = encrypt(p);
        ASSERT_FALSE(region.empty()) << n;
        // Room as the library gives it (the region's size), and exactly the plain length.
        EXPECT_EQ(decrypt(region, region.size()), p) << n;
        EXPECT_EQ(decrypt(region, n), p) << n;
    }
}

// The library deciphers a key file into the buffer it read it into.
TEST_F(KeyFileCipher, DecryptWorksInPlace) {
    for (unsigned int n : {1u, 64u, 1500u, kLargestBody}) {
        const Bytes p = plain(n);
        Bytes region = encrypt(p);
        const auto len = static_cast<unsigned int>(region.size());
        ASSERT_EQ(PKEY_Decrypt(len, region.data(), len, region.data()), n);
        EXPECT_EQ(Bytes(region.begin(), region.begin() + n), p) << n;
    }
}

TEST_F(KeyFileCipher, DecryptRefusesLessRoomThanThePlainLengthWithoutWritingPastIt) {
    const Bytes p = plain(100);
    const Bytes region = encrypt(p);
    for (unsigned int cap : {99u, 50u, 1u}) {
        Bytes out(200, kCanary);
        EXPECT_EQ(
            PKEY_Decrypt(static_cast<unsigned int>(region.size()), region.data(), cap, out.data()),
            0u)
            << cap;
        EXPECT_TRUE(untouched(out, cap)) << cap;
    }
}

// The library writes the whole region of inLen + 19 bytes to disk, whatever
// the cipher used of it, and hands all of it back to Decrypt.
TEST_F(KeyFileCipher, DecryptIgnoresWhateverTheCipherLeftUnusedAtTheEndOfTheRegion) {
    for (unsigned int n : {1u, 33u, 300u}) {
        const Bytes p = plain(n);
        const std::size_t used = used_length(p);
        ASSERT_GE(used, n) << "a region shorter than its plaintext";
        for (unsigned char fill : {0x00, 0x5A, 0xFF}) {
            Bytes region = encrypt(p, fill);
            for (std::size_t i = used; i < region.size(); ++i)
                region[i] = static_cast<unsigned char>(i * 13);
            EXPECT_EQ(decrypt(region, region.size()), p) << n << " bytes, fill " << int{fill};
        }
    }
}

TEST_F(KeyFileCipher, DecryptRefusesEveryDamagedByteAndEveryTruncationWithZero) {
    for (unsigned int n : {1u, 33u, 300u}) {
        const Bytes p = plain(n);
        const Bytes region = encrypt(p);
        const std::size_t used = used_length(p);
        for (std::size_t i = 0; i < used; ++i) {
            for (unsigned char flip : {0x01, 0x80, 0xFF}) {
                Bytes bad = region;
                bad[i] ^= flip;
                Bytes out(bad.size());
                ASSERT_EQ(PKEY_Decrypt(static_cast<unsigned int>(bad.size()), bad.data(),
                                       static_cast<unsigned int>(out.size()), out.data()),
                          0u)
                    << n << " bytes, byte " << i << " ^ " << int{flip};
            }
        }
        for (std::size_t len = 0; len < used; ++len) {
            Bytes out(region.size());
            ASSERT_EQ(PKEY_Decrypt(static_cast<unsigned int>(len), region.data(),
                                   static_cast<unsigned int>(out.size()), out.data()),
                      0u)
                << n << " bytes cut to " << len;
        }
    }
}

// Key files written by one process (the configuration service) are read by
// another (the SSH server), and after the device starts again.
TEST_F(KeyFileCipher, RegionsDecryptInOtherProcessesAndAfterTheStoreIsOpenedAgain) {
    const Bytes p = plain(200);
    const std::size_t size = p.size() + PKEY_CIPHER_OVERHEAD;
    auto *shared = static_cast<unsigned char *>(
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    EXPECT_EQ(exit_code(spawn([&] {
                  return PKEY_Encrypt(static_cast<unsigned int>(p.size()), p.data(),
                                      static_cast<unsigned int>(size), shared) == 0
                             ? 0
                             : 1;
              })),
              0);
    const Bytes from_child(shared, shared + size);
    ::munmap(shared, size);
    EXPECT_EQ(decrypt(from_child, size), p);

    const Bytes mine = encrypt(p);
    EXPECT_EQ(exit_code(spawn([&] { return decrypt(mine, size) == p ? 0 : 1; })), 0);

    { TempStore other; }
    store.use();
    EXPECT_EQ(decrypt(mine, size), p);
    EXPECT_EQ(decrypt(from_child, size), p);
}

// ---------------------------------------------------------------------------
// Memory alarm

using MemoryAlarm = PlatformTest;

TEST_F(MemoryAlarm, ReadsZeroExactlyWhenTheAlarmIsClear) {
    EXPECT_EQ(Mem_Alert_GetCurrentState(), 0);
    for (int state : {1, 2, 0, 1, 0}) {
        ASSERT_EQ(PCTL_SetMemAlarm(state), 0) << PCTL_LastError();
        if (state == 0) {
            EXPECT_EQ(Mem_Alert_GetCurrentState(), 0);
        } else {
            EXPECT_NE(Mem_Alert_GetCurrentState(), 0) << state;
        }
    }
}

// ---------------------------------------------------------------------------
// Message texts

TEST(MessageTexts, TheLibrarysMessagesHaveDistinctNonEmptyTextsAndUnknownOnesAreNeverNull) {
    std::set<std::string> texts;
    for (unsigned int id : kLibraryMessages) {
        const char *text = RC_LoadString(id);
        ASSERT_NE(text, nullptr) << std::hex << id;
        EXPECT_STRNE(text, "") << std::hex << id;
        texts.insert(text);
        EXPECT_STREQ(RC_LoadString(id), text) << "the same text every time";
    }
    EXPECT_EQ(texts.size(), std::size(kLibraryMessages));
    for (unsigned int id : {0u, 1u, 0x060C0000U, 0x060C0031U, 0x7FFFFFFFU})
        EXPECT_NE(RC_LoadString(id), nullptr) << std::hex << id;
    EXPECT_STREQ(RC_LoadString(0xFFFFFFFFU), "");
}

// ---------------------------------------------------------------------------
// System helpers

using SystemHelpers = PlatformTest;

TEST_F(SystemHelpers, ScnprintfStoresWhatFitsTerminatedAndReturnsTheCountStored) {
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(scnprintf(buf, 8, "%s%s", "abc", "defghij"), 7);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(buf[8], 'x');
    EXPECT_EQ(scnprintf(buf, 8, "%s", "abcdefg"), 7);  // exactly fits
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(scnprintf(buf, 8, "%s", "abc"), 3);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(scnprintf(buf, 1, "%s", "abc"), 0);
    EXPECT_STREQ(buf, "");
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(scnprintf(buf, 0, "%s", "abc"), 0);
    EXPECT_EQ(buf[0], 'x');
    // The formats the library uses.
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%02X%02X", 0x0Au, 0xFFu), 4);
    EXPECT_STREQ(buf, "0AFF");
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%.*s", 4, "pkey/rsa"), 4);
    EXPECT_STREQ(buf, "pkey");
    EXPECT_EQ(scnprintf(buf, 11, "%04d/%02d/%02d", 2024, 3, 5), 10);
    EXPECT_STREQ(buf, "2024/03/05");
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%u %s", 2048u, "abc"), 8);
    EXPECT_STREQ(buf, "2048 abc");
}

TEST_F(SystemHelpers, LowercaseLowersAsciiLettersInPlaceAndReturnsItsArgument) {
    char text[] = "PKey/RSA/Host-Key_1.KEY";
    EXPECT_EQ(lowercase(text), text);
    EXPECT_STREQ(text, "pkey/rsa/host-key_1.key");
    char empty[] = "";
    EXPECT_EQ(lowercase(empty), empty);
    EXPECT_STREQ(empty, "");
}

int keep_key_files(const struct dirent *e) {
    const std::string name = e->d_name;
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".key") == 0;
}

// The library lists a key directory with scandir and hands the list to freedir.
TEST_F(SystemHelpers, FreedirFreesAScandirListAndReturnsZero) {
    const std::string dir = store.root() + "/listing";
    fsys::create_directories(dir);
    for (const char *name : {"a.key", "b.key", "c.txt"}) pkey::test::put(dir + "/" + name, "x");
    struct dirent **list = nullptr;
    const int count = ::scandir(dir.c_str(), &list, keep_key_files, nullptr);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(freedir(list, count), 0);

    fsys::create_directories(dir + "/empty");
    list = nullptr;
    const int none = ::scandir((dir + "/empty").c_str(), &list, keep_key_files, nullptr);
    ASSERT_EQ(none, 0);
    EXPECT_EQ(freedir(list, none), 0);
}

}  // namespace
