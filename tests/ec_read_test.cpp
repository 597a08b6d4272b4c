// The ECDSA key buffer reader's fast validation against its full one: on the
// key buffers the fuzz seeds are made of, on real keys of every curve, on
// damaged copies of them and on crafted points at every edge of the checks,
// both must accept or refuse alike and, when they accept, give the same key.
// The two forms are internal to libpkey; this program is linked from its objects.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "ec/pkey_ec_read.hpp"
#include "pkey_ec.h"
#include "test_keys.hpp"

namespace {

using pkey::BignumPtr;
using pkey::EvpPkeyPtr;
using pkey::ec::PointValidation;
using Bytes = std::vector<unsigned char>;

using pkey::test::ec_tail;

// The same bytes from the key buffer the library writes for a key.
Bytes tail_of(EVP_PKEY *key) {
    unsigned int n = 0;
    pkey::MallocPtr<char> text(PKEY_EC_EcToBase64(key, &n));
    if (!text) return {};
    const Bytes blob = pkey::test::unbase64(text.get());
    return Bytes(blob.begin() + 4 + pkey::load_be32(blob.data()), blob.end());
}

BignumPtr bn(const BIGNUM *from, long add = 0) {
    BignumPtr r(BN_dup(from));
    if (add >= 0)
        BN_add_word(r.get(), static_cast<BN_ULONG>(add));
    else
        BN_sub_word(r.get(), static_cast<BN_ULONG>(-add));
    return r;
}
BignumPtr power_of_two(int bits) {
    BignumPtr r(BN_new());
    BN_set_bit(r.get(), bits);
    return r;
}

// A curve and the numbers the crafted points need.
struct Curve {
    const char *id;
    pkey::EcGroupPtr group;
    BignumPtr p{BN_new()}, a{BN_new()}, b{BN_new()};
    const BIGNUM *n;
    int width;
    pkey::BnCtxPtr ctx{BN_CTX_new()};

    Curve(const char *curve_id, int nid) : id(curve_id), group(EC_GROUP_new_by_curve_name(nid)) {
        EC_GROUP_get_curve(group.get(), p.get(), a.get(), b.get(), ctx.get());
        n = EC_GROUP_get0_order(group.get());
        width = (EC_GROUP_get_degree(group.get()) + 7) / 8;
    }
    int half() const { return BN_num_bits(n) / 2; }

    // 0x04, x and y at the field's width, whatever the numbers.
    Bytes encode(const BIGNUM *x, const BIGNUM *y, unsigned char form = 4) const {
        Bytes out(1 + 2 * static_cast<std::size_t>(width), form);
        BN_bn2binpad(x, out.data() + 1, width);
        BN_bn2binpad(y, out.data() + 1 + width, width);
        return out;
    }
    Bytes encode(const EC_POINT *pt) const {
        BignumPtr x(BN_new()), y(BN_new());
        EC_POINT_get_affine_coordinates(group.get(), pt, x.get(), y.get(), ctx.get());
        return encode(x.get(), y.get());
    }

    // The point with the first x from `from` on that lies on the curve.
    Bytes point_at_x(const BIGNUM *from, int y_bit) const {
        pkey::EcPointPtr pt(EC_POINT_new(group.get()));
        BignumPtr x(BN_dup(from));
        for (int i = 0; i < 1000; ++i, BN_add_word(x.get(), 1)) {
            if (EC_POINT_set_compressed_coordinates(group.get(), pt.get(), x.get(), y_bit,
                                                    ctx.get()) == 1)
                return encode(pt.get());
        }
        return {};
    }

    // The point with the first y from `from` on that lies on the curve. Every
    // supported curve has a = -3, and x^3 - 3x = u^3 + u^-3 for x = u + 1/u,
    // so x^3 - 3x + c = 0 comes down to a square root and a cube root.
    Bytes point_at_y(const BIGNUM *from) const {
        BN_CTX *c = ctx.get();
        const pkey::BnCtxFrame frame(c);
        BIGNUM *y = BN_CTX_get(c), *k = BN_CTX_get(c), *s = BN_CTX_get(c), *v = BN_CTX_get(c),
               *u = BN_CTX_get(c), *e = BN_CTX_get(c), *t = BN_CTX_get(c), *x = BN_CTX_get(c);
        BN_copy(y, from);
        // A cube root is a power of v: (2p - 1) / 3 for p = 2 mod 3, (2p + 1) / 9 for p = 4 mod 9.
        const BN_ULONG p9 = BN_mod_word(p.get(), 9);
        if (p9 % 3 != 2 && p9 != 4) return {};
        BN_lshift1(e, p.get());
        if (p9 % 3 == 2) BN_sub_word(e, 1);
        if (p9 == 4) BN_add_word(e, 1);
        BN_div_word(e, p9 == 4 ? 9 : 3);
        pkey::EcPointPtr pt(EC_POINT_new(group.get()));
        for (int i = 0; i < 1000; ++i, BN_add_word(y, 1)) {
            BN_mod_sqr(t, y, p.get(), c);
            BN_mod_sub(k, b.get(), t, p.get(), c);  // k = b - y^2
            BN_mod_sqr(t, k, p.get(), c);
            BN_set_word(s, 4);
            BN_mod_sub(t, t, s, p.get(), c);  // k^2 - 4
            ERR_set_mark();
            const bool root = BN_mod_sqrt(s, t, p.get(), c) != nullptr;
            ERR_pop_to_mark();
            if (!root) continue;
            BN_mod_sub(v, s, k, p.get(), c);  // u^3 = (-k + s) / 2
            BN_set_word(t, 2);
            BN_mod_inverse(t, t, p.get(), c);
            BN_mod_mul(v, v, t, p.get(), c);
            if (BN_is_zero(v)) continue;
            BN_mod_exp(u, v, e, p.get(), c);
            BN_set_word(t, 3);
            BN_mod_exp(t, u, t, p.get(), c);
            if (BN_cmp(t, v) != 0) continue;  // v has no cube root
            BN_mod_inverse(t, u, p.get(), c);
            BN_mod_add(x, u, t, p.get(), c);
            if (EC_POINT_set_affine_coordinates(group.get(), pt.get(), x, y, c) == 1)
                return encode(x, y);
        }
        return {};
    }
};

Bytes with(Bytes b, const std::function<void(Bytes &)> &change) {
    change(b);
    return b;
}

class EcRead : public ::testing::Test {
protected:
    // Reads the bytes with both validations and through the exported reader;
    // true when the full validation accepts them.
    bool expect_same(const Bytes &tail, const std::string &what) {
        SCOPED_TRACE(what);
        // Exactly the bytes given, so an over-read is caught by AddressSanitizer.
        pkey::MallocPtr<> exact(
            static_cast<unsigned char *>(std::malloc(std::max<std::size_t>(tail.size(), 1))));
        if (!tail.empty()) std::memcpy(exact.get(), tail.data(), tail.size());
        const auto len = static_cast<unsigned int>(tail.size());
        const EvpPkeyPtr full = pkey::ec::read_public_key(exact.get(), len, PointValidation::kFull);
        const EvpPkeyPtr fast = pkey::ec::read_public_key(exact.get(), len, PointValidation::kFast);
        const EvpPkeyPtr api(PKEY_ReadECDSAPubKey(exact.get(), len));
        ERR_clear_error();
        ++(full ? accepted_ : refused_);
        EXPECT_EQ(fast != nullptr, full != nullptr);
        EXPECT_EQ(api != nullptr, full != nullptr);
        if (full && fast && api) {
            EXPECT_EQ(pkey::test::public_der(fast.get()), pkey::test::public_der(full.get()));
            EXPECT_EQ(pkey::test::public_der(api.get()), pkey::test::public_der(full.get()));
        }
        return full != nullptr;
    }
    int accepted_ = 0, refused_ = 0;
};

TEST_F(EcRead, FastValidationAcceptsExactlyWhatTheFullOneAccepts) {
    const struct {
        const char *id;
        int nid;
        const char *key;
    } kCurves[] = {{"nistp192", NID_X9_62_prime192v1, "p192"},
                   {"nistp256", NID_X9_62_prime256v1, "p256"},
                   {"nistp384", NID_secp384r1, "p384"},
                   {"nistp521", NID_secp521r1, "p521"}};
    std::vector<Bytes> goodPoints;
    std::mt19937 rng(18);
    for (const auto &k : kCurves) {
        const Curve c(k.id, k.nid);
        // The fuzz seeds' ECDSA inputs are the key buffers of fresh keys, as
        // here; real keys of the suite's own and more from OpenSSL.
        std::vector<Bytes> seeds;
        for (int i = 0; i < 8; ++i) {
            const std::string name = std::string(k.key) + (i == 0 ? "" : "#" + std::to_string(i));
            seeds.push_back(tail_of(pkey::test::test_key(name)));
            ASSERT_EQ(seeds.back().size(), 4 + 8 + 4 + 1 + 2 * static_cast<std::size_t>(c.width))
                << name;
        }
        const Bytes &seed = seeds[0];
        const Bytes good(seed.end() - (1 + 2 * c.width), seed.end());
        goodPoints.push_back(good);
        for (const Bytes &s : seeds) expect_same(s, "key");
        // Cut short at every length, padded to the limit and beyond, and damaged.
        for (std::size_t n = 0; n < seed.size(); ++n)
            expect_same(Bytes(seed.begin(), seed.begin() + static_cast<long>(n)), "cut");
        for (std::size_t n : {512, 513})
            expect_same(with(seed, [&](Bytes &b) { b.resize(n, 0x04); }), "padded");
        for (int round = 0; round < 200; ++round) {
            Bytes damaged = seeds[static_cast<std::size_t>(round) % seeds.size()];
            for (int flips = 1 + static_cast<int>(rng() % 3); flips > 0; --flips)
                damaged[rng() % damaged.size()] ^= static_cast<unsigned char>(1u << (rng() % 8));
            expect_same(damaged, "damaged");
        }

        // Points at the edges of the checks: coordinates of order - 1 and more,
        // of half the order's bit length and of one bit more, and tiny ones.
        const int half = c.half();
        const BignumPtr nm1 = bn(c.n, -1), one = bn(BN_value_one()), h0 = power_of_two(half - 1),
                        h1 = power_of_two(half);
        const Bytes xHigh = c.point_at_x(nm1.get(), 0), xShort = c.point_at_x(one.get(), 1),
                    xHalf = c.point_at_x(h0.get(), 0), xAbove = c.point_at_x(h1.get(), 1);
        const Bytes yHigh = c.point_at_y(nm1.get()), yShort = c.point_at_y(one.get()),
                    yHalf = c.point_at_y(h0.get()), yAbove = c.point_at_y(h1.get());
        for (const Bytes *pt : {&xHigh, &xShort, &xHalf, &xAbove, &yHigh, &yShort, &yHalf, &yAbove})
            ASSERT_FALSE(pt->empty()) << k.id;
        // A coordinate of p and above: the short points again with p added.
        const auto coordinate = [&](const Bytes &pt, int which) {
            return BignumPtr(BN_bin2bn(pt.data() + 1 + which * c.width, c.width, nullptr));
        };
        const BignumPtr xs = coordinate(xShort, 0), ys = coordinate(xShort, 1),
                        xt = coordinate(yShort, 0), yt = coordinate(yShort, 1),
                        xg = coordinate(good, 0), yg = coordinate(good, 1);
        BN_add(xs.get(), xs.get(), c.p.get());
        BN_add(yt.get(), yt.get(), c.p.get());
        const BignumPtr ones(BN_new());
        BN_set_bit(ones.get(), 8 * c.width);
        BN_sub_word(ones.get(), 1);
        const Bytes zeros(2 * static_cast<std::size_t>(c.width), 0);
        // The good point with another form byte, cut to len.
        const unsigned char odd = good.back() & 1;
        const auto reformed = [&](int form, std::size_t len) {
            Bytes b(good.begin(), good.begin() + static_cast<long>(len));
            b[0] = static_cast<unsigned char>(form);
            return b;
        };
        // Only two of them are keys: the others fail one check or another.
        const struct {
            const char *what;
            Bytes point;
            bool key = false;
        } crafted[] = {
            {"x from order - 1", xHigh},
            {"x from order - 1, other y", c.point_at_x(nm1.get(), 1)},
            {"x of a few bits", xShort},
            {"x of half the bits", xHalf},
            {"x of one bit more", xAbove, true},
            {"y from order - 1", yHigh},
            {"y of a few bits", yShort},
            {"y of half the bits", yHalf},
            {"y of one bit more", yAbove, true},
            {"x plus p", c.encode(xs.get(), ys.get())},
            {"y plus p", c.encode(xt.get(), yt.get())},
            {"x of p", c.encode(c.p.get(), yg.get())},
            {"y of p", c.encode(xg.get(), c.p.get())},
            {"all ones", c.encode(ones.get(), ones.get())},
            {"no point", {}},
            {"infinity", {0x00}},
            {"infinity, uncompressed zeros",
             with(zeros, [](Bytes &b) { b.insert(b.begin(), 0x04); })},
            {"form byte alone", {0x04}},
            {"off the curve", with(good, [](Bytes &b) { b.back() ^= 1; })},
            {"x off by one",
             with(good, [&](Bytes &b) { b[static_cast<std::size_t>(c.width)] ^= 1; })},
            {"compressed", reformed(2 | odd, 1 + c.width)},
            {"compressed, other y", reformed(3 - odd, 1 + c.width)},
            {"hybrid", reformed(6 | odd, good.size())},
            {"hybrid, wrong parity", reformed(7 - odd, good.size())},
            {"one byte short", Bytes(good.begin(), good.end() - 1)},
            {"one byte long", with(good, [](Bytes &b) { b.push_back(0); })},
            {"longest allowed", Bytes(133, 0x04)},
            {"too long", Bytes(134, 0x04)},
        };
        for (const auto &row : crafted) {
            const std::string what = std::string(k.id) + " " + row.what;
            EXPECT_EQ(expect_same(ec_tail(k.id, row.point), what), row.key) << what;
            // So that the sizes alone do not refuse it.
            EXPECT_EQ(expect_same(with(ec_tail(k.id, row.point),
                                       [](Bytes &b) { b.resize(b.size() + 8, 0x04); }),
                                  what + ", padded"),
                      row.key)
                << what;
        }
        // A point field claiming up to five bytes more than are left: the
        // missing bytes read as zero.
        for (long missing = 1; missing <= 5; ++missing)
            expect_same(ec_tail(k.id, Bytes(good.begin(), good.end() - missing),
                                static_cast<long>(good.size())),
                        std::string(k.id) + " point cut short");
        expect_same(ec_tail(k.id, good, 0), "point length 0");
    }
    // Every point under every curve identifier, and identifiers of no curve.
    for (const auto &k : kCurves)
        for (const Bytes &pt : goodPoints)
            expect_same(ec_tail(k.id, pt), std::string(k.id) + " other curve's point");
    for (const char *id : {"nistp224", "nistp25", "nistp2566", "xnistp", "nistp256\n"})
        expect_same(ec_tail(id, goodPoints[1]), id);

    std::printf("inputs: %d accepted, %d refused\n", accepted_, refused_);
    EXPECT_GT(accepted_, 4 * 8);
    EXPECT_GT(refused_, accepted_);
}

// Off the four curves the reader knows, a group whose cofactor is not 1 keeps
// the multiplication: a point of the curve outside the subgroup of the order
// is refused by the fast validation too.
TEST_F(EcRead, OtherCofactorsKeepTheOrderMultiplication) {
    const Curve c("secp128r2", NID_secp128r2);  // cofactor 4
    ASSERT_FALSE(BN_is_one(EC_GROUP_get0_cofactor(c.group.get())));
    const BignumPtr nm1 = bn(c.n, -1);
    pkey::EcPointPtr pt(EC_POINT_new(c.group.get())), nq(EC_POINT_new(c.group.get()));
    BignumPtr x(BN_new()), y(BN_new());
    int inSubgroup = 0, outside = 0;
    for (BN_ULONG start = 1000; inSubgroup < 4 || outside < 4; start += 1000) {
        ASSERT_LT(start, 1000000u);
        BN_set_word(x.get(), start);
        BN_lshift(x.get(), x.get(), 100);
        if (EC_POINT_set_compressed_coordinates(c.group.get(), pt.get(), x.get(), 0, c.ctx.get()) !=
            1)
            continue;
        // Sometimes the point itself, sometimes its multiple by the cofactor,
        // which lies in the subgroup; only points whose coordinates pass the
        // other checks count.
        if (start % 2000 == 0)
            EC_POINT_mul(c.group.get(), pt.get(), nullptr, pt.get(),
                         EC_GROUP_get0_cofactor(c.group.get()), c.ctx.get());
        EC_POINT_get_affine_coordinates(c.group.get(), pt.get(), x.get(), y.get(), c.ctx.get());
        if (BN_cmp(x.get(), nm1.get()) >= 0 || BN_cmp(y.get(), nm1.get()) >= 0 ||
            BN_num_bits(x.get()) <= c.half() || BN_num_bits(y.get()) <= c.half())
            continue;
        EC_POINT_mul(c.group.get(), nq.get(), nullptr, pt.get(), c.n, c.ctx.get());
        const bool of_order = EC_POINT_is_at_infinity(c.group.get(), nq.get()) == 1;
        ++(of_order ? inSubgroup : outside);
        const Bytes encoding = c.encode(pt.get());
        for (const PointValidation v : {PointValidation::kFull, PointValidation::kFast})
            EXPECT_EQ(
                pkey::ec::public_point_valid(c.group.get(), pt.get(), encoding, v, c.ctx.get()),
                of_order);
    }
}

}  // namespace
