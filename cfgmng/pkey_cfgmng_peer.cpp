// The peer key store: peer public keys by name in the configuration database
// "PKEY", the name listings, and the FIPS purge.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pkey_cfgmng.h"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"
#include "pubkey/pkey_der.hpp"

namespace {

constexpr const char *kDatabase = "PKEY";
constexpr unsigned int kPeerValueType = 1;
constexpr int kWholeValue = -1;
constexpr unsigned int kMaxListedName = PKEY_CFGMNG_NAME_SLOT - 1;

// Closes a database handle when it goes out of scope.
class DbHandle {
public:
    explicit DbHandle(int mode) noexcept : handle_(PKEY_CFGMNG_OpenDBM(mode)) {}
    ~DbHandle() {
        if (handle_ != -1) DBM_Close(handle_);
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
    const int got = DBM_GetBinary(handle, name, name_len(name), 0, static_cast<unsigned>(size), value);
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

}  // namespace

extern "C" {

int PKEY_CFGMNG_OpenDBM(int mode) {
    DBM_OPEN_OPTIONS_S options{};
    options.uiWord0 = 1;
    options.uiWord1 = 0;
    options.uiWord2 = 1;
    options.uiWord3 = 0;
    options.szText[0] = '1';
    int handle = -1;
    return DBM_Open(kDatabase, kDatabase, mode, &options, &handle) == 0 ? handle : -1;
}

unsigned int PKEY_CFGMNG_Save(const char *name, unsigned int len, const unsigned char *der) {
    if (name == nullptr || der == nullptr) return PKEY_ERR_FAILED;
    const DbHandle db(PKEY_CFGMNG_MODE_SAVE);
    if (!db.ok()) return PKEY_ERR_FAILED;
    return static_cast<unsigned int>(
        DBM_SetBinary(db.get(), name, name_len(name), kWholeValue, len, der, kPeerValueType));
}

unsigned int PKEY_CFGMNG_Delete(const char *name) {
    if (name == nullptr) return PKEY_ERR_FAILED;
    const DbHandle db(PKEY_CFGMNG_MODE_DELETE);
    if (!db.ok()) return 0;  // nothing can be stored under the name either
    return static_cast<unsigned int>(DBM_DeleteKey(db.get(), name, name_len(name)));
}

unsigned char *PKEY_CFGMNG_GetPeerPubKeyValue(const char *name, unsigned int *len) {
    if (name == nullptr || len == nullptr) return nullptr;
    PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey();
    const DbHandle db(PKEY_CFGMNG_MODE_READ);
    return db.ok() ? _cfgmng_GetPeerPubKeyValue(db.get(), name, len) : nullptr;
}

char *PKEY_CFGMNG_GetPeerPubKeyList(int handle, unsigned int *count) {
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

PKEY_NAME_LINK_S *PKEY_CFGMNG_GetSortedPeerKeyNameList(int handle, unsigned int *count) {
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

void PKEY_CFGMNG_DestroySortedPeerKeyNameList(PKEY_NAME_LINK_S *head) {
    if (head == nullptr) return;
    for (PKEY_NAME_LINK_S *link = head->pstNext; link != head && link != nullptr;) {
        PKEY_NAME_LINK_S *next = link->pstNext;
        _cfgmng_FreePeerKeyNameNode(reinterpret_cast<PKEY_NAME_NODE_S *>(link));
        link = next;
    }
    head->pstPrev = head->pstNext = head;
    std::free(head);
}

void PKEY_CFGMNG_DestroyNonFIPSApprovedPeerPubKey(void) {
    if (CRYPTO_FIPSIsEnabled() != 1) return;
    const DbHandle db(PKEY_CFGMNG_MODE_PURGE);
    if (!db.ok()) return;
    unsigned int count = 0;
    pkey::MallocPtr<char> table(PKEY_CFGMNG_GetPeerPubKeyList(db.get(), &count));
    for (unsigned int i = 0; table && i < count; ++i) {
        const char *name = table.get() + static_cast<size_t>(i) * PKEY_CFGMNG_NAME_SLOT;
        unsigned int len = 0;
        pkey::MallocPtr<unsigned char> value(_cfgmng_GetPeerPubKeyValue(db.get(), name, &len));
        if (!value || len == 0) continue;
        const pkey::EvpPkeyPtr key = pkey::der::decode_public_key({value.get(), len}).key;
        // A value that does not decode is kept: only a key can be judged.
        if (key && PKEY_PUBKEY_IsKeyMatchFipsMode(key.get()) != 1)
            (void)DBM_DeleteKey(db.get(), name, name_len(name));
    }
}

}  // extern "C"
