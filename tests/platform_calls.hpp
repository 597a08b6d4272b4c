// platform_calls.hpp - the configuration database and the key-file cipher of
// pkey_platform.h called as the library calls them, for the tests of a
// platform itself: the conformance suite and the host platform's own tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "pkey_platform.h"

namespace pkey::test {

// The database, table, options and value type of the peer key store.
constexpr const char *kDb = "PKEY";
inline const DBM_OPEN_OPTIONS_S kDbOptions{1, 0, 1, 0, "1"};
constexpr unsigned int kPeerType = 1;

inline int db_open(int mode, const char *db = kDb) {
    int handle = -1;
    EXPECT_EQ(DBM_Open(db, db, mode, &kDbOptions, &handle), DBM_OK) << db << " mode " << mode;
    return handle;
}
inline int db_set(int h, const std::string &key, const std::string &value, int offset = -1,
                  unsigned int type = kPeerType) {
    return DBM_SetBinary(h, key.data(), static_cast<unsigned int>(key.size()), offset,
                         static_cast<unsigned int>(value.size()), value.data(), type);
}
// The whole value as the library reads it (DBM_Len, then DBM_GetBinary from 0); "<none>" when
// absent.
inline std::string db_get(int h, const std::string &key) {
    const auto klen = static_cast<unsigned int>(key.size());
    const int len = DBM_Len(h, key.data(), klen);
    if (len < 1) return "<none>";
    std::string out(static_cast<std::size_t>(len), '\0');
    const int got =
        DBM_GetBinary(h, key.data(), klen, 0, static_cast<unsigned int>(len), out.data());
    return got == len ? out : "<read " + std::to_string(got) + " of " + std::to_string(len) + ">";
}
inline int db_delete(int h, const std::string &key) {
    return DBM_DeleteKey(h, key.data(), static_cast<unsigned int>(key.size()));
}

using Plain = std::vector<unsigned char>;

inline Plain plain(std::size_t n, unsigned int seed = 7) {
    Plain p(n);
    for (std::size_t i = 0; i < n; ++i)
        p[i] = static_cast<unsigned char>((i * 31 + seed) ^ (i >> 8));
    return p;
}
// The region PKEY_Encrypt fills for p, as big as the library gives it (plus
// extra bytes) and preset to fill; empty when Encrypt refused.
inline Plain encrypt(const Plain &p, unsigned char fill = 0xEE, std::size_t extra = 0) {
    Plain region(p.size() + PKEY_CIPHER_OVERHEAD + extra, fill);
    const unsigned int r = PKEY_Encrypt(static_cast<unsigned int>(p.size()), p.data(),
                                        static_cast<unsigned int>(region.size()), region.data());
    EXPECT_EQ(r, 0u) << "PKEY_Encrypt of " << p.size() << " bytes";
    return r == 0 ? region : Plain();
}
// The plain bytes Decrypt gives for the whole region with room for cap
// bytes; empty when it refused, which must leave the room as it was.
inline Plain decrypt(const Plain &region, std::size_t cap) {
    Plain out(cap, 0xA5);
    const unsigned int n = PKEY_Decrypt(static_cast<unsigned int>(region.size()), region.data(),
                                        static_cast<unsigned int>(cap), out.data());
    EXPECT_TRUE(n != 0 || out == Plain(cap, 0xA5)) << "refused, yet wrote into out";
    out.resize(std::min<std::size_t>(n, cap));
    return out;
}

}  // namespace pkey::test
