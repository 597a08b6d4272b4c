// The peer key store: peer public keys by name in the configuration database
// "PKEY", the name listings, and the FIPS purge.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "pkey_cfgmng.h"
#include "pkey_der.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

constexpr const char *kDatabase = "PKEY";
constexpr unsigned int kPeerValueType = 1;
constexpr int kWholeValue = -1;
constexpr unsigned int kMaxListedName = PKEY_CFGMNG_NAME_SLOT - 1;

// Closes a database handle when it goes out of scope.
class DbHandle {
public:
    explicit DbHandle(int mode) noexcept : handle_(PKEY_CFGMNG_OpenDBM(mode)) {}
    ~DbHandle() { (void)close(); }
    // True when the database took the handle's writes.
    bool close() noexcept {
        const int h = std::exchange(handle_, -1);
        return h != -1 && DBM_Close(h) == DBM_OK;
    }
    DbHandle(const DbHandle &) = delete;
    DbHandle &operator=(const DbHandle &) = delete;
    bool ok() const noexcept { return handle_ != -1; }
    int get() const noexcept { return handle_; }

private:
    int handle_;
};

unsigned int name_len(const char *name) noexcept {
    return static_cast<unsigned int>(std::strlen(name));
}

unsigned char *_cfgmng_GetPeerPubKeyValue(int handle, const char *name, unsigned int *len) {
    const int size = DBM_Len(handle, name, name_len(name));
    if (size < 1) return nullptr;
    auto *value = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(size)));
    if (value == nullptr) return nullptr;
    const int got =
        DBM_GetBinary(handle, name, name_len(name), 0, static_cast<unsigned>(size), value);
    if (got < 1) {
        std::free(value);
        return nullptr;
    }
    *len = static_cast<unsigned int>(got);
    return value;
}

void _cfgmng_FreePeerKeyNameNode(PKEY_NAME_NODE_S *node) { std::free(node); }

// A name's place in byte order: its first 16 bytes as two big-endian numbers
// (the slot is zero-padded, so a shorter name compares low, as in strcmp),
// and the slot for the rare tie between longer names. Sorting these keeps
// the comparisons in one small array instead of chasing every name.
struct SortKey {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    unsigned int index = 0;
};

std::uint64_t load_be64(const char *p) noexcept {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | static_cast<unsigned char>(p[i]);
    return v;
}

// Releases the key texts of a listing whatever happens to the entries.
struct IteratorGuard {
    DBM_ITERATOR it = nullptr;
    ~IteratorGuard() { DBM_FreeIterator(it); }
};

// ---- The FIPS purge ------------------------------------------------------
//
// In FIPS mode every lookup is preceded by a purge of the keys the FIPS policy
// refuses. Where the database counts its changes, the purge leaves a mark in
// the database itself: the change count of the peer records when it last
// finished, and the policy it judged by. A purge that finds the same count
// and policy does nothing, and one that finds a higher count examines only
// the records written since; anything else (no mark, another policy, a count
// that went back, a database without the counters) examines every key. The
// mark travels with the records, so every process of the device shares it,
// and a copy of the database restored from elsewhere brings its own.

// Weak: a platform may leave change tracking out, and then they are NULL.
extern "C" int DBM_GetChangeStamp(int handle, unsigned int valueType, DBM_STAMP *stamp)
    __attribute__((weak));
extern "C" int DBM_GetKeysChangedSince(int handle, DBM_STAMP since, unsigned int capacity,
                                       unsigned int valueType, DBM_ITERATOR *iterator,
                                       DBM_KEY_ENTRY_S *entries, DBM_STAMP *last)
    __attribute__((weak));

// The mark's key starts with a zero byte, which no peer key name can hold,
// and its value type keeps it out of every peer listing and count.
constexpr char kPurgeMarkKey[] = "\0fips-purge";
constexpr unsigned int kPurgeMarkKeyLen = sizeof kPurgeMarkKey - 1;
constexpr unsigned int kPurgeMarkType = 2;
constexpr std::uint8_t kPurgeMarkFormat = 1;
// Raised whenever the rule that decides which peer keys FIPS mode refuses
// changes, so that marks left by an earlier rule are not trusted.
constexpr std::uint8_t kFipsPolicyVersion = 1;
constexpr std::size_t kPurgeMarkLen = 12;
constexpr unsigned int kChangedBatch = 256;

struct PurgeMark {
    std::uint8_t policy = 0;    // the refusal rule's version
    std::uint8_t switches = 0;  // the algorithm switches in force
    DBM_STAMP stamp = 0;        // the peer records' change count it covers
};

bool change_tracking() noexcept {
    return DBM_GetChangeStamp != nullptr && DBM_GetKeysChangedSince != nullptr;
}

// The algorithm switches in force, one bit each; part of the mark so that a
// purge made under other switches is not taken for one made under these.
std::uint8_t algorithm_switches() noexcept {
    std::uint8_t bits = 0;
    const unsigned int codes[] = {CRYPTO_ALG_RSA, CRYPTO_ALG_DSA, CRYPTO_ALG_ECDSA};
    for (unsigned int i = 0; i < 3; ++i)
        if (CRYPTO_AlgoIsEnabled(codes[i]) == 1) bits = static_cast<std::uint8_t>(bits | (1U << i));
    return bits;
}

bool read_mark(int handle, PurgeMark &mark) noexcept {
    // One byte of room more than a mark takes tells a longer value from a mark.
    unsigned char value[kPurgeMarkLen + 1];
    if (DBM_GetBinary(handle, kPurgeMarkKey, kPurgeMarkKeyLen, 0, sizeof value, value) !=
        static_cast<int>(kPurgeMarkLen))
        return false;
    pkey::ByteReader in(value, kPurgeMarkLen);
    std::uint8_t format = 0, reserved = 0;
    std::uint32_t high = 0, low = 0;
    if (!in.read_u8(format) || format != kPurgeMarkFormat || !in.read_u8(mark.policy) ||
        !in.read_u8(mark.switches) || !in.read_u8(reserved) || !in.read_u32(high) ||
        !in.read_u32(low))
        return false;
    mark.stamp = (static_cast<DBM_STAMP>(high) << 32) | low;
    return true;
}

void write_mark(const PurgeMark &mark) noexcept {
    unsigned char value[kPurgeMarkLen];
    pkey::ByteWriter out(value, sizeof value);
    if (!out.put_u8(kPurgeMarkFormat) || !out.put_u8(mark.policy) || !out.put_u8(mark.switches) ||
        !out.put_u8(0) || !out.put_u32(static_cast<std::uint32_t>(mark.stamp >> 32)) ||
        !out.put_u32(static_cast<std::uint32_t>(mark.stamp)))
        return;
    // A mark that cannot be written only means the next purge looks again.
    const DbHandle db(PKEY_CFGMNG_MODE_SAVE);
    if (db.ok())
        (void)DBM_SetBinary(db.get(), kPurgeMarkKey, kPurgeMarkKeyLen, kWholeValue, kPurgeMarkLen,
                            value, kPurgeMarkType);
}

// Examines one listed peer key and deletes it when the FIPS policy refuses
// it. A key that cannot be read leaves the purge incomplete (except when it
// is gone: a deleted record has nothing left to refuse); a value that does
// not decode is kept, since only a key can be judged.
struct Purger {
    int handle;
    unsigned int deleted = 0;
    bool complete = true;

    void examine(const char *name) noexcept {
        unsigned int len = 0;
        pkey::MallocPtr<unsigned char> value(_cfgmng_GetPeerPubKeyValue(handle, name, &len));
        if (!value || len == 0) {
            if (DBM_Len(handle, name, name_len(name)) >= 1) complete = false;
            return;
        }
        const pkey::EvpPkeyPtr key = pkey::der::decode_public_key({value.get(), len}).key;
        if (!key || PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) == 1) return;
        const int r = DBM_DeleteKey(handle, name, name_len(name));
        if (r == DBM_OK)
            ++deleted;
        else if (static_cast<unsigned int>(r) != DBM_ERR_NOT_FOUND)
            complete = false;
    }

    // Every listed peer key.
    void all() noexcept {
        unsigned int count = 0;
        pkey::MallocPtr<char> table(PKEY_CFGMNG_GetPeerPubKeyList(handle, &count));
        if (!table && DBM_GetKeyNumByValueType(handle, kPeerValueType) != 0) complete = false;
        for (unsigned int i = 0; table && i < count; ++i)
            examine(table.get() + static_cast<size_t>(i) * PKEY_CFGMNG_NAME_SLOT);
    }

    // The peer keys written since the stamp, a batch at a time in stamp order.
    void changed_since(DBM_STAMP since) noexcept {
        for (;;) {
            DBM_KEY_ENTRY_S entries[kChangedBatch] = {};
            IteratorGuard iterator;
            DBM_STAMP last = since;
            const int n = DBM_GetKeysChangedSince(handle, since, kChangedBatch, kPeerValueType,
                                                  &iterator.it, entries, &last);
            if (n < 0 || n > static_cast<int>(kChangedBatch) || (n > 0 && last <= since)) {
                complete = false;
                return;
            }
            for (int i = 0; i < n; ++i) {
                // Names too long to list are never purged, whatever changed.
                if (entries[i].pcKey == nullptr || entries[i].uiKeyLen > kMaxListedName) continue;
                char name[PKEY_CFGMNG_NAME_SLOT] = {};
                std::memcpy(name, entries[i].pcKey, entries[i].uiKeyLen);
                // A name with a zero byte inside is no peer key name.
                if (std::strlen(name) != entries[i].uiKeyLen) continue;
                examine(name);
            }
            if (n < static_cast<int>(kChangedBatch)) return;
            since = last;
        }
    }
};

void purge_peer_keys() noexcept {
    DbHandle db(PKEY_CFGMNG_MODE_PURGE);
    if (!db.ok()) return;
    Purger purger{db.get()};
    PurgeMark now{kFipsPolicyVersion, algorithm_switches(), 0};
    if (!change_tracking() || DBM_GetChangeStamp(db.get(), kPeerValueType, &now.stamp) != DBM_OK) {
        purger.all();
        return;
    }
    PurgeMark mark;
    if (read_mark(db.get(), mark) && mark.policy == now.policy && mark.switches == now.switches &&
        mark.stamp <= now.stamp) {
        if (mark.stamp == now.stamp) return;  // nothing changed since the last purge
        purger.changed_since(mark.stamp);
    } else {
        purger.all();
    }
    // Our own deletions moved the count on. When they account for all of its
    // move, nobody else wrote meanwhile and the mark can say so; otherwise it
    // keeps the count from before, and the next purge looks at what came after.
    DBM_STAMP after = 0;
    if (purger.deleted != 0 && DBM_GetChangeStamp(db.get(), kPeerValueType, &after) == DBM_OK &&
        after == now.stamp + purger.deleted)
        now.stamp = after;
    // The deletions count once they are committed, which closing the handle does.
    if (db.close() && purger.complete) write_mark(now);
}

}  // namespace

extern "C" {

int PKEY_CFGMNG_OpenDBM(int mode) noexcept {
    DBM_OPEN_OPTIONS_S options{};
    options.uiWord0 = 1;
    options.uiWord1 = 0;
    options.uiWord2 = 1;
    options.uiWord3 = 0;
    options.szText[0] = '1';
    int handle = -1;
    return DBM_Open(kDatabase, kDatabase, mode, &options, &handle) == 0 ? handle : -1;
}

unsigned int PKEY_CFGMNG_Save(const char *name, unsigned int len,
                              const unsigned char *der) noexcept {
    if (name == nullptr || der == nullptr) return PKEY_ERR_FAILED;
    const DbHandle db(PKEY_CFGMNG_MODE_SAVE);
    if (!db.ok()) return PKEY_ERR_FAILED;
    return static_cast<unsigned int>(
        DBM_SetBinary(db.get(), name, name_len(name), kWholeValue, len, der, kPeerValueType));
}

unsigned int PKEY_CFGMNG_Delete(const char *name) noexcept {
    if (name == nullptr) return PKEY_ERR_FAILED;
    const DbHandle db(PKEY_CFGMNG_MODE_DELETE);
    if (!db.ok()) return 0;  // nothing can be stored under the name either
    return static_cast<unsigned int>(DBM_DeleteKey(db.get(), name, name_len(name)));
}

unsigned char *PKEY_CFGMNG_GetPeerPubKeyValue(const char *name, unsigned int *len) noexcept {
    if (name == nullptr || len == nullptr) return nullptr;
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
    const DbHandle db(PKEY_CFGMNG_MODE_READ);
    return db.ok() ? _cfgmng_GetPeerPubKeyValue(db.get(), name, len) : nullptr;
}

char *PKEY_CFGMNG_GetPeerPubKeyList(int handle, unsigned int *count) noexcept {
    if (count == nullptr) return nullptr;
    *count = 0;
    return pkey::c_boundary<char *>(nullptr, [&]() -> char * {
        const unsigned int n = DBM_GetKeyNumByValueType(handle, kPeerValueType);
        if (n == 0) return nullptr;
        std::vector<DBM_KEY_ENTRY_S> entries(n);
        IteratorGuard iterator;
        const unsigned int m =
            DBM_GetKeysByValueType(handle, n, kPeerValueType, &iterator.it, entries.data());
        if (m == 0) return nullptr;
        auto *table = static_cast<char *>(std::calloc(std::min(m, n), PKEY_CFGMNG_NAME_SLOT));
        if (table == nullptr) return nullptr;
        unsigned int copied = 0;
        for (unsigned int i = 0; i < std::min(m, n); ++i) {
            // Longer names are never listed; they stay reachable by exact name.
            if (entries[i].pcKey == nullptr || entries[i].uiKeyLen > kMaxListedName) continue;
            std::memcpy(table + static_cast<size_t>(copied) * PKEY_CFGMNG_NAME_SLOT,
                        entries[i].pcKey, entries[i].uiKeyLen);
            ++copied;
        }
        *count = copied;
        return table;
    });
}

PKEY_NAME_LINK_S *PKEY_CFGMNG_GetSortedPeerKeyNameList(int handle, unsigned int *count) noexcept {
    if (count == nullptr) return nullptr;
    *count = 0;
    auto *head = static_cast<PKEY_NAME_LINK_S *>(std::malloc(sizeof(PKEY_NAME_LINK_S)));
    if (head == nullptr) return nullptr;
    head->pstPrev = head->pstNext = head;
    unsigned int names = 0;
    pkey::MallocPtr<char> table(PKEY_CFGMNG_GetPeerPubKeyList(handle, &names));
    if (!table || names == 0) {
        PKEY_CFGMNG_DestroySortedPeerKeyNameList(head);
        return nullptr;
    }
    const bool built = pkey::c_boundary(false, [&] {
        const auto slot = [&](unsigned int i) {
            return table.get() + static_cast<size_t>(i) * PKEY_CFGMNG_NAME_SLOT;
        };
        // Ascending byte order; equal names keep their table order.
        std::vector<SortKey> order(names);
        for (unsigned int i = 0; i < names; ++i)
            order[i] = SortKey{load_be64(slot(i)), load_be64(slot(i) + 8), i};
        std::sort(order.begin(), order.end(), [&](const SortKey &a, const SortKey &b) {
            if (a.high != b.high) return a.high < b.high;
            if (a.low != b.low) return a.low < b.low;
            // Equal first 16 bytes: a name that ends within them equals the other.
            if (slot(a.index)[15] != '\0') {
                const int c = std::strcmp(slot(a.index) + 16, slot(b.index) + 16);
                if (c != 0) return c < 0;
            }
            return a.index < b.index;
        });
        for (const SortKey &key : order) {
            const unsigned int i = key.index;
            auto *node = static_cast<PKEY_NAME_NODE_S *>(std::malloc(sizeof(PKEY_NAME_NODE_S)));
            if (node == nullptr) return false;
            // Slots and names have the same size and the slot is zero-padded.
            static_assert(sizeof node->szName == PKEY_CFGMNG_NAME_SLOT);
            std::memcpy(node->szName, slot(i), sizeof node->szName);
            node->stLink.pstNext = head;
            node->stLink.pstPrev = head->pstPrev;
            head->pstPrev->pstNext = &node->stLink;
            head->pstPrev = &node->stLink;
            ++*count;
        }
        return true;
    });
    if (!built) {
        *count = 0;
        PKEY_CFGMNG_DestroySortedPeerKeyNameList(head);
        return nullptr;
    }
    return head;
}

void PKEY_CFGMNG_DestroySortedPeerKeyNameList(PKEY_NAME_LINK_S *head) noexcept {
    if (head == nullptr) return;
    for (PKEY_NAME_LINK_S *link = head->pstNext; link != head && link != nullptr;) {
        PKEY_NAME_LINK_S *next = link->pstNext;
        _cfgmng_FreePeerKeyNameNode(reinterpret_cast<PKEY_NAME_NODE_S *>(link));
        link = next;
    }
    head->pstPrev = head->pstNext = head;
    std::free(head);
}

void PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey(void) noexcept {
    if (CRYPTO_FIPSIsEnabled() != 1) return;
    pkey::c_boundary_void([] { purge_peer_keys(); });
}

}  // extern "C"
