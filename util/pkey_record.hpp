// pkey_record.hpp - the key pair store record's header and digest (internal).
//
// The record (laid out in pkey_types.h) is built by the pubkey module and
// written, read and checked by the local key files. Both sides take its
// header, its digest and its integrity check from here, so the layout and the
// choice of digest live in one place.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <span>

#include "pkey_util.hpp"

namespace pkey::record {

// The fixed header at the start of every record.
struct Header {
    std::uint32_t length = 0;  // whole record, digest included
    std::uint32_t marker = 0;
    std::uint8_t kind = 0;
    std::uint16_t year = 0;
    std::uint8_t month = 0;
    std::uint8_t day = 0;
    std::uint16_t hour = 0;
    std::uint8_t minute = 0;
    std::uint8_t second = 0;
    std::uint8_t protection = 0;
    std::uint8_t version = 0;
};

// The header of the bytes; false when they are shorter than a header.
[[nodiscard]] bool parse_header(std::span<const unsigned char> bytes, Header &out) noexcept;

// The header of a record being built now: its length, the marker, the local
// time, the protection the current mode asks for (SHA-256 in FIPS mode, else
// MD5) and the format version. Kind and name stay zero. False when the time
// cannot be read.
[[nodiscard]] bool new_header(std::uint32_t length, Header &out) noexcept;

// Writes the header, kind and name zero, into out's first header bytes.
[[nodiscard]] bool write_header(const Header &header, ByteWriter &out) noexcept;

// Writes the key kind and the name (cut to fit its field, always terminated)
// into a record. Both lie outside the digest.
void stamp_kind_and_name(std::span<unsigned char> record, std::uint8_t kind,
                         const char *name) noexcept;

struct Digest {
    const EVP_MD *md = nullptr;  // NULL when the provider lacks it
    unsigned int size = 0;       // 0 when the crypto service allows no digest
};

// The digest a new record gets: MD5 whenever the crypto service allows it,
// else SHA-256, else none.
[[nodiscard]] Digest build_digest() noexcept;

// The digest a record of this protection carries, when the crypto service
// allows it; none for any other protection.
[[nodiscard]] Digest digest_for(std::uint8_t protection) noexcept;

// Writes the digest of everything before the record's last digest.size bytes
// into them.
[[nodiscard]] bool seal(const Digest &digest, std::span<unsigned char> record) noexcept;

// The integrity check of a plain record: the length field equals its size,
// the protection names an allowed digest, the digest (computed with kind and
// name zero, which are put back) matches, and the marker is right. The
// protection byte goes to *protection when asked for, also when the check
// then fails.
[[nodiscard]] bool check(std::span<unsigned char> record, unsigned char *protection) noexcept;

}  // namespace pkey::record
