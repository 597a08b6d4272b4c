// SSH public key blobs and their Base64: byte-exact agreement with ssh-keygen both ways,
// the strict Base64 reader, the RSA aliases, lying lengths, the ECDSA reader's size,
// curve and point checks, and key comparison. Untrusted buffers are handed over in
// allocations of their exact size, so that AddressSanitizer catches any read past the end.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "pkey_ec.h"
#include "pkey_local.h"
#include "pkey_pubkey.h"
#include "test_keys.hpp"
#include "test_store.hpp"

namespace {

using pkey::EvpPkeyPtr;
using Bytes = std::vector<unsigned char>;
constexpr int64_t kHuge = 0xFFFFFFFF;  // a length field that claims everything

using pkey::test::ec_tail;
using pkey::test::put_field;
Bytes str(const std::string &s) { return Bytes(s.begin(), s.end()); }
const auto b64 = pkey::test::base64;
const auto unb64 = pkey::test::unbase64;
std::string take(char *text) {  // a text the library allocated
    std::unique_ptr<char, pkey::FnDeleter<pkey::free_bytes>> owned(text);
    return text != nullptr ? text : "<null>";
}
EvpPkeyPtr from_b64(const std::string &text) {
    return EvpPkeyPtr(PKEY_PUBKEY_Base64toEvppkey(text.c_str()));
}
EvpPkeyPtr read_ec(const Bytes &tail) {
    // Exactly the bytes given, so an over-read is caught by AddressSanitizer.
    pkey::MallocPtr<> exact(
        static_cast<unsigned char *>(std::calloc(std::max<size_t>(tail.size(), 1), 1)));
    if (!tail.empty()) std::memcpy(exact.get(), tail.data(), tail.size());
    return EvpPkeyPtr(PKEY_ReadECDSAPubKey(exact.get(), static_cast<unsigned int>(tail.size())));
}
// The uncompressed form of the first P-256 point with x >= start that suits.
Bytes p256_point_from(const BIGNUM *start, const std::function<bool(const Bytes &)> &suits) {
    pkey::EcGroupPtr group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    pkey::EcPointPtr pt(EC_POINT_new(group.get()));
    pkey::BignumPtr x(BN_dup(start));
    Bytes out(65);
    for (int i = 0; i < 20000; ++i, BN_add_word(x.get(), 1)) {
        if (EC_POINT_set_compressed_coordinates(group.get(), pt.get(), x.get(), 0, nullptr) != 1)
            continue;
        EC_POINT_point2oct(group.get(), pt.get(), POINT_CONVERSION_UNCOMPRESSED, out.data(), 65,
                           nullptr);
        if (suits(out)) return out;
    }
    return {};
}

class BlobTest : public pkey::test::StoreTest {
protected:
    static EVP_PKEY *key(const char *name) { return pkey::test::test_key(name); }
    static std::string base64_of(const char *name) {
        unsigned int n = 0;
        return take(PKEY_PUBKEY_EvppkeyToBase64(key(name), 1, &n));
    }
};

TEST_F(BlobTest, AgreesWithSshKeygenBothWays) {
    const std::pair<const char *, const char *> samples[] = {
        {"rsa1024", "ssh-rsa"},          {"rsa2048", "ssh-rsa"},
        {"dsa1024", "ssh-dss"},          {"p192", "ecdsa-sha2-nistp192"},
        {"p256", "ecdsa-sha2-nistp256"}, {"p384", "ecdsa-sha2-nistp384"},
        {"p521", "ecdsa-sha2-nistp521"}};
    for (const auto &[name, ssh_type] : samples) {
        SCOPED_TRACE(name);
        ASSERT_NE(key(name), nullptr);
        unsigned int n = 0;
        const std::string ours = take(PKEY_PUBKEY_EvppkeyToBase64(key(name), 1, &n));
        EXPECT_EQ(n, ours.size() + 1);
        // OpenSSH has no P-192: that curve is checked by a round trip of our own text.
        const std::string expected = std::string(ssh_type) + " " + ours;
        const std::string line = std::string(name) == "p192"
                                     ? expected
                                     : pkey::test::ssh_keygen_public(key(name), store.root());
        EXPECT_EQ(line, expected);
        EvpPkeyPtr back = from_b64(line.substr(line.find(' ') + 1));
        EXPECT_EQ(PKEY_CmpPubKey(back.get(), key(name)), 1);
        EXPECT_EQ(EVP_PKEY_eq(back.get(), key(name)), 1);
    }
    // A 279-byte RSA blob (the modulus gets a 0x00) and a 104-byte P-256 blob.
    EXPECT_EQ(base64_of("rsa2048").size(), 372u);
    EXPECT_EQ(base64_of("p256").size(), 140u);
}

TEST_F(BlobTest, Ssh1FormIsRsaOnly) {
    unsigned int n = 0;
    const std::string text = take(PKEY_PUBKEY_EvppkeyToBase64(key("rsa2048"), 0, &n));
    BIGNUM *mod = nullptr;
    EVP_PKEY_get_bn_param(key("rsa2048"), OSSL_PKEY_PARAM_RSA_N, &mod);
    EXPECT_EQ(text, "65537 " + take(BN_bn2dec(mod)));
    BN_free(mod);
    EXPECT_EQ(n, text.size());
    for (auto [k, ssh2, out] :
         {std::tuple{key("dsa1024"), 0, &n}, {nullptr, 1, &n}, {key("rsa1024"), 1, nullptr}})
        EXPECT_EQ(PKEY_PUBKEY_EvppkeyToBase64(k, ssh2, out), nullptr);
}

TEST_F(BlobTest, Base64ReaderIsStrict) {
    const std::string good = base64_of("rsa1024");
    for (const std::string &bad :
         {good + "\n", good.substr(0, 8) + " " + good.substr(8), good.substr(1),
          "=" + good.substr(1), "A=" + good.substr(2), "AA=" + good.substr(3), std::string(""),
          std::string("AAAAB3NzaC1yc2E="),  // 00 00 00 07 "ssh-rsa" and nothing behind it
          b64(ec_tail("ssh-xyz", str("data")))})
        EXPECT_EQ(from_b64(bad), nullptr) << bad.substr(0, 20);
    EXPECT_EQ(PKEY_PUBKEY_Base64toEvppkey(nullptr), nullptr);
    // A padded group in the middle is accepted: the blob split after its first byte.
    const Bytes blob = unb64(good);
    EvpPkeyPtr back = from_b64(b64({blob[0]}) + b64(Bytes(blob.begin() + 1, blob.end())));
    EXPECT_EQ(EVP_PKEY_eq(back.get(), key("rsa1024")), 1);
}

TEST_F(BlobTest, RsaAliasesReadAsRsaAndLengthsAreBounded) {
    // "ssh-rsa" (11 bytes), e 65537 (4 + 3), n of 1024 bits behind a 0x00 (4 + 129).
    const Bytes blob = unb64(base64_of("rsa1024"));
    ASSERT_EQ(blob.size(), 151u);
    const Bytes keyData(blob.begin() + 11, blob.end());
    for (const char *alias : {"x509v3-sign-rsa", "spki-sign-rsa", "pgp-sign-rsa"}) {
        Bytes aliased;
        put_field(aliased, str(alias));
        aliased.insert(aliased.end(), keyData.begin(), keyData.end());
        put_field(aliased, str("bytes after the last mpint are ignored"));
        EXPECT_EQ(EVP_PKEY_eq(from_b64(b64(aliased)).get(), key("rsa1024")), 1) << alias;
    }
    // A lying length in the name, e or n field, by 0xFFFFFFFF or by a single byte.
    for (const auto &[at, value] : {std::pair{0, kHuge}, {11, kHuge}, {18, kHuge}, {18, 0x82}}) {
        Bytes lying = blob;
        for (int i = 0; i < 4; ++i) lying[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
        EXPECT_EQ(from_b64(b64(lying)), nullptr) << at << " " << value;
    }
}

TEST_F(BlobTest, EcReaderChecksSizesAndCurveIdentifiers) {
    const Bytes blob256 = unb64(base64_of("p256"));
    const Bytes point(blob256.end() - 65, blob256.end());
    EvpPkeyPtr good(read_ec(ec_tail("nistp256", point)));
    ASSERT_EQ(PKEY_CmpPubKey(good.get(), key("p256")), 1);
    char encoding[32] = {};
    EVP_PKEY_get_utf8_string_param(good.get(), OSSL_PKEY_PARAM_EC_ENCODING, encoding,
                                   sizeof encoding, nullptr);
    EXPECT_STREQ(encoding, "named_curve");
    Bytes padded = ec_tail("nistp256", point);
    padded.resize(512, 0xAB);  // bytes behind the point are not looked at
    EXPECT_NE(read_ec(padded), nullptr);
    padded.push_back(0);
    EXPECT_EQ(read_ec(padded), nullptr);
    EXPECT_EQ(read_ec(Bytes(padded.begin(), padded.begin() + 19)), nullptr);
    for (const char *id : {"nistp256x", "nistp224", "xnistp", "nistp384", "p256"})
        EXPECT_EQ(read_ec(ec_tail(id, point)), nullptr) << id;
    EXPECT_EQ(read_ec(ec_tail("nistp256", point, kHuge)), nullptr);
    Bytes lyingId;
    put_field(lyingId, str("nistp256"), kHuge);
    put_field(lyingId, point);
    EXPECT_EQ(read_ec(lyingId), nullptr);
    // The curve follows the identifier, not the key type name in front of it.
    Bytes blob;
    put_field(blob, str("ecdsa-sha2-nistp384"));
    const Bytes tail = ec_tail("nistp256", point);
    blob.insert(blob.end(), tail.begin(), tail.end());
    EXPECT_EQ(EVP_PKEY_eq(from_b64(b64(blob)).get(), key("p256")), 1);
}

// Compressed, off-curve, out-of-range and missing points are crafted for every
// curve in ec_read_test, through this reader too.
TEST_F(BlobTest, EcReaderReadsThePartOfAPointCutShortAsZeros) {
    pkey::BignumPtr start(BN_new());
    BN_set_bit(start.get(), 255);
    const Bytes point = p256_point_from(start.get(), [](const Bytes &p) { return p[64] != 0; });
    const Bytes zeroEnd = p256_point_from(start.get(), [](const Bytes &p) { return p[64] == 0; });
    ASSERT_TRUE(point.size() == 65 && zeroEnd.size() == 65);
    ASSERT_NE(read_ec(ec_tail("nistp256", point)), nullptr);
    // A point length up to 4 bytes beyond the end passes the length test and reaches the
    // decoder, which sees zeros there: only a point that really ends in zeros survives.
    for (int missing = 1; missing <= 5; ++missing)
        EXPECT_EQ(read_ec(ec_tail("nistp256", Bytes(point.begin(), point.end() - missing), 65)),
                  nullptr);
    EXPECT_NE(read_ec(ec_tail("nistp256", Bytes(zeroEnd.begin(), zeroEnd.end() - 1), 65)), nullptr);
}

TEST_F(BlobTest, EcWriterNeedsOneOfTheFourCurves) {
    unsigned int n = 77;
    EXPECT_EQ(PKEY_EC_EcToBase64(pkey::test::ec_key_on("secp224r1").get(), &n), nullptr);
    EXPECT_EQ(PKEY_EC_EcToBase64(key("rsa1024"), &n), nullptr);
    EXPECT_EQ(PKEY_EC_EcToBase64(nullptr, &n), nullptr);
    EXPECT_EQ(n, 77u);
}

// Key buffers OpenSSH itself writes pass; anything OpenSSH would not read, or
// would read as another key, fails, though the lenient reader may take it.
TEST_F(BlobTest, StrictBlobCheckReadsKeyBuffersAsOpenSshDoes) {
    auto strict = [](const std::string &text, const char *type = nullptr) {
        return PKEY_PUBKEY_IsBase64BlobStrict(text.c_str(), type);
    };
    const std::pair<const char *, const char *> made[] = {
        {"rsa1024", "ssh-rsa"},          {"rsa2048", "ssh-rsa"},
        {"dsa1024", "ssh-dss"},          {"p256", "ecdsa-sha2-nistp256"},
        {"p384", "ecdsa-sha2-nistp384"}, {"p521", "ecdsa-sha2-nistp521"}};
    for (const auto &[name, type] : made) {
        const std::string line = pkey::test::ssh_keygen_public(key(name), store.root());
        ASSERT_EQ(line.substr(0, line.find(' ')), type) << name;
        const std::string text = line.substr(line.find(' ') + 1);
        EXPECT_EQ(strict(text), 1) << name;
        EXPECT_EQ(strict(text, type), 1) << name;
        EXPECT_EQ(strict(text, type[4] == 'r' ? "ssh-dss" : "ssh-rsa"), 0) << name;
        EXPECT_EQ(strict(text + "AAAA"), 0) << name;  // three zero bytes after the last field
    }
    // OpenSSH has no P-192, but the check knows its name.
    EXPECT_EQ(strict(base64_of("p192"), "ecdsa-sha2-nistp192"), 1);

    // The 1024-bit RSA buffer: name at 0, e (4 + 3 bytes) at 11, n (4 + 0x00 + 128) at 18.
    const Bytes rsa = unb64(base64_of("rsa1024"));
    ASSERT_EQ(rsa.size(), 151u);
    const Bytes name(rsa.begin(), rsa.begin() + 11), e(rsa.begin() + 11, rsa.begin() + 18);
    const Bytes n_magnitude(rsa.begin() + 23, rsa.end());
    auto rsa_blob = [&](const Bytes &e_field, const Bytes &n_value, const char *type = "ssh-rsa") {
        Bytes b;
        put_field(b, str(type));
        b.insert(b.end(), e_field.begin(), e_field.end());
        put_field(b, n_value);
        return b64(b);
    };
    auto with_zeros = [&](size_t zeros) {
        Bytes v(zeros, 0);
        v.insert(v.end(), n_magnitude.begin(), n_magnitude.end());
        return v;
    };
    Bytes padded_e;
    put_field(padded_e, {0, 0, 1, 0, 1});
    const Bytes p256 = unb64(base64_of("p256"));
    const Bytes point(p256.end() - 65, p256.end());
    Bytes compressed(point.begin(), point.begin() + 33);
    compressed[0] = static_cast<unsigned char>(0x02 | (point[64] & 1));
    auto ec_blob = [&](const char *type, const char *curve, const Bytes &pt) {
        Bytes b;
        put_field(b, str(type));
        const Bytes tail = ec_tail(curve, pt);
        b.insert(b.end(), tail.begin(), tail.end());
        return b64(b);
    };
    Bytes cut = rsa;
    cut.pop_back();  // n's length now claims a byte that is not there
    // An SSH mpint of count bytes: a zero byte, then 0xAB bytes.
    auto big_modulus = [](std::size_t count) {
        Bytes v(count, 0xAB);
        v[0] = 0;
        return v;
    };
    struct Row {
        const char *what;
        std::string text;
        int strict;
    };
    const Row rows[] = {
        {"as written", rsa_blob(e, with_zeros(1)), 1},
        {"leading zero bytes", rsa_blob(padded_e, with_zeros(3)), 1},
        {"negative n", rsa_blob(e, with_zeros(0)), 0},
        {"truncated n", b64(cut), 0},
        {"truncated name", b64(Bytes(rsa.begin(), rsa.begin() + 9)), 0},
        {"no n", b64(Bytes(rsa.begin(), rsa.begin() + 18)), 0},
        {"an alias the lenient reader takes", rsa_blob(e, with_zeros(1), "x509v3-sign-rsa"), 0},
        {"unknown type", rsa_blob(e, with_zeros(1), "ssh-ed25519"), 0},
        {"ecdsa as written", ec_blob("ecdsa-sha2-nistp256", "nistp256", point), 1},
        {"curve unlike its type", ec_blob("ecdsa-sha2-nistp384", "nistp256", point), 0},
        {"curve unknown", ec_blob("ecdsa-sha2-nistp224", "nistp224", point), 0},
        {"compressed point", ec_blob("ecdsa-sha2-nistp256", "nistp256", compressed), 0},
        {"point off the curve",
         ec_blob("ecdsa-sha2-nistp256", "nistp256",
                 [&] {
                     Bytes b = point;
                     b[64] ^= 1;
                     return b;
                 }()),
         0},
        {"not Base64", rsa_blob(e, with_zeros(1)) + "\n", 0},
        {"padding in mid-text", b64({rsa[0]}) + b64(Bytes(rsa.begin() + 1, rsa.end())), 0},
        {"n of 16384 bits", rsa_blob(e, big_modulus(2049)), 1},
        {"n of 16392 bits", rsa_blob(e, big_modulus(2050)), 0},
        {"zeros beyond OpenSSH's length",
         rsa_blob(e,
                  [&] {
                      Bytes v(2050 - n_magnitude.size(), 0);
                      v.insert(v.end(), n_magnitude.begin(), n_magnitude.end());
                      return v;
                  }()),
         0},
        {"empty", "", 0},
    };
    for (const Row &r : rows) EXPECT_EQ(strict(r.text), r.strict) << r.what;
    EXPECT_EQ(PKEY_PUBKEY_IsBase64BlobStrict(nullptr, nullptr), 0);
    // The lenient reader takes both: leading zeros as the same key, and a curve
    // unlike its type as the curve says, whatever the type name.
    EXPECT_EQ(EVP_PKEY_eq(from_b64(rsa_blob(padded_e, with_zeros(3))).get(), key("rsa1024")), 1);
    EXPECT_EQ(
        EVP_PKEY_eq(from_b64(ec_blob("ecdsa-sha2-nistp384", "nistp256", point)).get(), key("p256")),
        1);
}

TEST_F(BlobTest, CmpPubKeyComparesPublicValues) {
    // The RSA 1024 key buffer again, with e = 65539 instead of 65537.
    const std::string good = base64_of("rsa1024");
    Bytes otherE = unb64(good);
    otherE[17] = 3;
    EXPECT_EQ(PKEY_CmpPubKey(from_b64(good).get(), key("rsa1024")), 1);
    EXPECT_EQ(PKEY_CmpPubKey(from_b64(b64(otherE)).get(), key("rsa1024")), 0);
    EXPECT_EQ(PKEY_CmpPubKey(key("rsa1024"), key("dsa1024")), 0);
    EXPECT_EQ(PKEY_CmpPubKey(nullptr, key("rsa1024")) + PKEY_CmpPubKey(key("p256"), nullptr), 0);
    EvpPkeyPtr other(PKEY_GenerateECKey(PKEY_NID_P256));
    EXPECT_EQ(PKEY_CmpPubKey(other.get(), key("p256")), 0);
    EXPECT_EQ(PKEY_CmpPubKey(key("p384"), key("p256")), 0);
}

}  // namespace
