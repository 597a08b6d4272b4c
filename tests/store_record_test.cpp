// The key pair store record: exact layout, round trips under both digests, refusal of
// short, truncated and lying records, and the DER display text. Records are read from
// buffers of their exact size, so that AddressSanitizer catches any read past the end.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"
#include "platform_control.h"
#include "test_store.hpp"

namespace {

using pkey::EvpPkeyPtr;
using Bytes = std::vector<unsigned char>;

constexpr unsigned int kMd5 = 59, kSha256 = 62;  // crypto service switches

const std::vector<const char *> kRsaNames = {
    OSSL_PKEY_PARAM_RSA_N,         OSSL_PKEY_PARAM_RSA_E,           OSSL_PKEY_PARAM_RSA_D,
    OSSL_PKEY_PARAM_RSA_FACTOR1,   OSSL_PKEY_PARAM_RSA_FACTOR2,     OSSL_PKEY_PARAM_RSA_EXPONENT1,
    OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1};

Bytes component(const EVP_PKEY *key, const char *name) {
    BIGNUM *bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1) return {};
    Bytes out(static_cast<size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_clear_free(bn);
    return out;
}
Bytes private_der(const EVP_PKEY *key) {
    unsigned char *der = nullptr;
    const int n = key != nullptr ? i2d_PrivateKey(key, &der) : 0;
    Bytes out(der, der + (n > 0 ? n : 0));
    OPENSSL_free(der);
    return out;
}

struct Sample {
    std::string label;
    unsigned int alg;
    EvpPkeyPtr key;

    unsigned int bound() const {
        return alg == PKEY_ALG_RSA   ? PKEY_PUBKEY_GetRSAStoreLenFromEvp(key.get())
               : alg == PKEY_ALG_DSA ? PKEY_PUBKEY_GetDSAStoreLenFromEvp(key.get())
                                     : PKEY_PUBKEY_GetECDSAStoreLenFromEvp(key.get());
    }
    // The same key pair, private parts included.
    bool same(const EVP_PKEY *other) const {
        return other != nullptr && private_der(key.get()) == private_der(other);
    }
};

// Keys are generated once: generation is the slow part of this suite. The first is an
// RSA 1024 key whose components all have their full size (no leading zero bytes).
const std::vector<Sample> &samples() {
    static const std::vector<Sample> all = [] {
        std::vector<Sample> s;
        const size_t full[] = {128, 3, 128, 64, 64, 64, 64, 64};
        for (int attempt = 0; s.empty() && attempt < 100; ++attempt) {
            EvpPkeyPtr k(PKEY_GenerateRSAKey(1024));
            bool ok = k != nullptr;
            for (size_t i = 0; ok && i < kRsaNames.size(); ++i)
                ok = component(k.get(), kRsaNames[i]).size() == full[i];
            if (ok) s.push_back({"RSA 1024", PKEY_ALG_RSA, std::move(k)});
        }
        s.push_back({"RSA 2048", PKEY_ALG_RSA, EvpPkeyPtr(PKEY_GenerateRSAKey(2048))});
        s.push_back({"DSA 1024", PKEY_ALG_DSA, EvpPkeyPtr(PKEY_GenerateDSAKey(1024))});
        s.push_back({"DSA 2048", PKEY_ALG_DSA, EvpPkeyPtr(PKEY_GenerateDSAKey(2048))});
        for (int nid : {PKEY_NID_P192, PKEY_NID_P256, PKEY_NID_P384, PKEY_NID_P521})
            s.push_back({OBJ_nid2sn(nid), PKEY_ALG_ECDSA, EvpPkeyPtr(PKEY_GenerateECKey(nid))});
        return s;
    }();
    return all;
}
const Sample &rsa1024() { return samples()[0]; }
const Sample &dsa1024() { return samples()[2]; }

Bytes build(EVP_PKEY *key) {
    unsigned int len = 0;
    pkey::MallocPtr<> rec(PKEY_PUBKEY_ConvertKeyToStoreBuf(key, &len));
    return rec ? Bytes(rec.get(), rec.get() + len) : Bytes();
}
// Reads the first n bytes of rec from a malloc'd buffer of exactly n bytes.
EvpPkeyPtr read_exact(unsigned int alg, const Bytes &rec, size_t n) {
    pkey::MallocPtr<> copy(static_cast<unsigned char *>(std::malloc(n > 0 ? n : 1)));
    std::memcpy(copy.get(), rec.data(), n);
    return EvpPkeyPtr(PKEY_PUBKEY_ConvertStoreBufToKey(alg, copy.get(), static_cast<unsigned>(n)));
}
// The digest expected in the last bytes: over the rest, kind and name zeroed.
bool digest_matches(const Bytes &rec, const EVP_MD *md) {
    const auto d = static_cast<long>(EVP_MD_get_size(md));
    Bytes body(rec.begin(), rec.end() - d), expected(static_cast<size_t>(d));
    std::fill(body.begin() + 8, body.begin() + 74, 0);
    EVP_Digest(body.data(), body.size(), expected.data(), nullptr, md, nullptr);
    return Bytes(rec.end() - d, rec.end()) == expected;
}

class StoreRecordTest : public pkey::test::StoreTest {
protected:
    void SetUp() override { ASSERT_EQ(rsa1024().label, "RSA 1024") << "no full-size RSA key"; }
};

TEST_F(StoreRecordTest, Rsa1024WithFullSizeComponentsHasTheExactLayout) {
    EVP_PKEY *key = rsa1024().key.get();
    EXPECT_EQ(PKEY_PUBKEY_GetRSAStoreLenFromEvp(key), 611u);
    const std::time_t before = std::time(nullptr);
    const Bytes rec = build(key);
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(rec.size(), 716u);

    Bytes header = {0x00, 0x00, 0x02, 0xCC, 0xAA, 0xAA, 0xAA, 0xAA};
    header.resize(74, 0);  // kind and name are the key file writer's
    EXPECT_EQ(Bytes(rec.begin(), rec.begin() + 74), header);
    std::tm made{};  // local creation time: year(2) month day hour(2) minute second
    made.tm_year = pkey::load_be16(&rec[74]) - 1900;
    made.tm_mon = rec[76] - 1;
    made.tm_mday = rec[77];
    made.tm_hour = pkey::load_be16(&rec[78]);
    made.tm_min = rec[80];
    made.tm_sec = rec[81];
    made.tm_isdst = -1;
    EXPECT_GE(std::mktime(&made), before - 1);
    EXPECT_LE(std::mktime(&made), after + 1);
    EXPECT_EQ(Bytes(rec.begin() + 82, rec.begin() + 84), (Bytes{3, 1}));  // protection, version

    Bytes payload;
    for (const char *name : kRsaNames) {
        const Bytes value = component(key, name);
        payload.insert(payload.end(), {0, 0, static_cast<unsigned char>(value.size() >> 8),
                                       static_cast<unsigned char>(value.size())});
        payload.insert(payload.end(), value.begin(), value.end());
    }
    EXPECT_EQ(Bytes(rec.begin() + 84, rec.begin() + 695), payload);
    EXPECT_EQ(Bytes(rec.begin() + 695, rec.begin() + 700), Bytes(5, 0));
    EXPECT_TRUE(digest_matches(rec, EVP_md5()));

    // Protection follows FIPS mode; the digest follows the algorithm switches.
    const struct {
        int fips, md5, protection;
        size_t len;
        const EVP_MD *md;
    } cases[] = {
        {0, 0, 3, 732, EVP_sha256()}, {1, -1, 4, 732, EVP_sha256()}, {1, 1, 4, 716, EVP_md5()}};
    for (const auto &c : cases) {
        PCTL_SetFipsMode(c.fips);
        PCTL_SetAlgoEnabled(kMd5, c.md5);
        const Bytes again = build(key);
        ASSERT_EQ(again.size(), c.len) << c.fips << c.md5;
        EXPECT_EQ(again[82], c.protection);
        EXPECT_TRUE(digest_matches(again, c.md));
    }
}

TEST_F(StoreRecordTest, EveryKeyRoundTripsUnderEitherDigest) {
    for (int md5 : {1, 0}) {
        PCTL_SetAlgoEnabled(kMd5, md5);
        for (const Sample &s : samples()) {
            SCOPED_TRACE(s.label + (md5 ? " MD5" : " SHA-256"));
            ASSERT_NE(s.key, nullptr);
            const Bytes rec = build(s.key.get());
            ASSERT_EQ(rec.size(), 84 + (s.bound() + (md5 ? 16 : 32) + 7) / 8 * 8);
            EXPECT_TRUE(digest_matches(rec, md5 ? EVP_md5() : EVP_sha256()));
            EXPECT_TRUE(s.same(read_exact(s.alg, rec, rec.size()).get()));
        }
    }
}

TEST_F(StoreRecordTest, ReadingNeedsAnEnabledDigestAndARecordLongEnoughForIt) {
    const Bytes rec = build(rsa1024().key.get());
    PCTL_SetAlgoEnabled(kMd5, 0);
    PCTL_SetAlgoEnabled(kSha256, 0);
    EXPECT_TRUE(build(rsa1024().key.get()).empty());
    EXPECT_EQ(read_exact(PKEY_ALG_RSA, rec, rec.size()), nullptr);

    // Tiny DSA components fit a 115-byte record: only the minimum length refuses it.
    Bytes tiny(116, 0);
    unsigned char *cursor = &tiny[84];
    unsigned int total = 0;
    for (unsigned long v : {0x17ul, 0x0Bul, 0x04ul, 0x02ul, 0x03ul}) {
        pkey::BignumPtr bn(BN_new());
        BN_set_word(bn.get(), v);
        PKEY_PUBKEY_FillBN2StoreBuf(bn.get(), &cursor, &total);
    }
    PCTL_SetAlgoEnabled(kSha256, 1);
    EXPECT_EQ(read_exact(PKEY_ALG_DSA, tiny, 115), nullptr);
    EXPECT_NE(read_exact(PKEY_ALG_DSA, tiny, 116), nullptr);
    PCTL_SetAlgoEnabled(kMd5, 1);
    EXPECT_NE(read_exact(PKEY_ALG_DSA, tiny, 115), nullptr);
    EXPECT_EQ(read_exact(PKEY_ALG_DSA, tiny, 99), nullptr);
}

TEST_F(StoreRecordTest, TruncatedLyingOrMislabelledRecordsFailWithoutReadingPastTheirEnd) {
    for (const Sample *s : {&rsa1024(), &dsa1024()}) {
        SCOPED_TRACE(s->label);
        const Bytes rec = build(s->key.get());
        for (size_t n = 0; n < rec.size(); ++n) {
            // Whatever lies behind the payload is not needed to read it.
            if (n < 84 + s->bound())
                ASSERT_EQ(read_exact(s->alg, rec, n), nullptr) << n;
            else
                ASSERT_TRUE(s->same(read_exact(s->alg, rec, n).get())) << n;
        }
    }
    const Bytes rec = build(rsa1024().key.get());
    // n's length field, then iqmp's (the last): one byte more than remains, and huge.
    for (auto [at, len] : {std::pair<size_t, uint32_t>{84, 0xFFFFFFFF},
                           {84, 0xFFFFFFFC},
                           {84, 716 - 88 + 1},
                           {627, 716 - 631 + 1}}) {
        Bytes bad = rec;
        pkey::store_be32(&bad[at], len);
        EXPECT_EQ(read_exact(PKEY_ALG_RSA, bad, bad.size()), nullptr) << at << " " << len;
    }
    for (unsigned int alg : {PKEY_ALG_RESERVE, PKEY_ALG_ECDSA, PKEY_ALG_UNSUPPORTED})
        EXPECT_EQ(read_exact(alg, rec, rec.size()), nullptr) << alg;
}

TEST_F(StoreRecordTest, DerDisplayBreaksLinesEvery37Bytes) {
    Bytes der(300);
    std::string hex;
    for (unsigned int i = 0; i < der.size(); ++i) {
        der[i] = static_cast<unsigned char>(i * 7 + 0xA0);
        hex += "0123456789ABCDEF"[der[i] >> 4];
        hex += "0123456789ABCDEF"[der[i] & 15];
    }
    auto display = [&](unsigned int n) {
        pkey::MallocPtr<char> text(PKEY_PUBKEY_DER2BdrnBuf(der.data(), n));
        return std::string(text ? text.get() : "(null)");
    };
    EXPECT_EQ(display(0), "\r\n");
    EXPECT_EQ(display(37), "\r\n   " + hex.substr(0, 74) + "\r\n");
    EXPECT_EQ(display(38), "\r\n   " + hex.substr(0, 74) + "\r\n   " + hex.substr(74, 2) + "\r\n");
    EXPECT_EQ(display(300).size(), 300u * 2 + 9 * 5 + 2);
}

}  // namespace
