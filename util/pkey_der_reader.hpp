// pkey_der_reader.hpp - the one reader of DER tags and lengths (internal).
//
// Every DER structure the library takes apart itself is read through
// DerReader, on top of the bounds-checked ByteReader: a failed read consumes
// nothing and never reads past the end.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "pkey_util.hpp"

namespace pkey::der {

using Bytes = std::span<const unsigned char>;

constexpr std::uint8_t kInteger = 0x02;
constexpr std::uint8_t kBitString = 0x03;
constexpr std::uint8_t kOctetString = 0x04;
constexpr std::uint8_t kNull = 0x05;
constexpr std::uint8_t kOid = 0x06;
constexpr std::uint8_t kSequence = 0x30;
constexpr std::uint8_t kExplicit0 = 0xA0;
constexpr std::uint8_t kExplicit1 = 0xA1;

// How a length may be written. kShortest is DER: a definite length in its
// shortest form. kAnyDefinite also takes long forms with leading zero octets
// or below 0x80, for bytes whose validity OpenSSL's own decoder is left to
// judge. Either way at most four length octets, never the indefinite form.
enum class LengthForm { kShortest, kAnyDefinite };

// The expected tag, a length in the allowed form, contents that fit.
class DerReader {
public:
    explicit DerReader(Bytes bytes, LengthForm form = LengthForm::kShortest) noexcept
        : in_(bytes), form_(form) {}

    [[nodiscard]] bool read(std::uint8_t tag, Bytes &contents) noexcept {
        ByteReader r = in_;
        std::uint8_t got = 0, first = 0;
        if (!r.read_u8(got) || got != tag || !r.read_u8(first)) return false;
        const bool shortest = form_ == LengthForm::kShortest;
        std::size_t len = first;
        if (first & 0x80) {
            const unsigned int octets = first & 0x7F;
            if (octets == 0 || octets > 4) return false;
            len = 0;
            for (unsigned int i = 0; i < octets; ++i) {
                std::uint8_t b = 0;
                if (!r.read_u8(b) || (shortest && i == 0 && b == 0)) return false;
                len = (len << 8) | b;
            }
            if (shortest && len < 0x80) return false;
        }
        if (!r.read_bytes(len, contents)) return false;
        in_ = r;
        return true;
    }

    // A positive INTEGER in its shortest form, as a magnitude without sign byte.
    [[nodiscard]] bool read_positive_integer(Bytes &magnitude) noexcept {
        Bytes c;
        if (!read(kInteger, c) || c.empty() || (c[0] & 0x80) != 0) return false;
        if (c[0] == 0) {
            if (c.size() < 2 || (c[1] & 0x80) == 0) return false;
            c = c.subspan(1);
        }
        magnitude = c;
        return true;
    }

    // A BIT STRING without unused bits: its bytes.
    [[nodiscard]] bool read_octet_aligned_bits(Bytes &bits) noexcept {
        Bytes c;
        if (!read(kBitString, c) || c.empty() || c[0] != 0) return false;
        bits = c.subspan(1);
        return true;
    }

    [[nodiscard]] bool read_expected(std::uint8_t tag, Bytes expected) noexcept {
        ByteReader saved = in_;
        Bytes c;
        if (read(tag, c) && c.size() == expected.size() &&
            std::equal(c.begin(), c.end(), expected.begin()))
            return true;
        in_ = saved;
        return false;
    }

    bool empty() const noexcept { return in_.empty(); }
    std::size_t consumed_from(Bytes whole) const noexcept { return whole.size() - in_.remaining(); }

private:
    ByteReader in_;
    LengthForm form_;
};

}  // namespace pkey::der
