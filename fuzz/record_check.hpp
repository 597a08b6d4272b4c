// record_check.hpp - the round trip of a key pair read from a store record,
// shared by the targets that reach store records.
#pragma once

#include <cstring>

#include "fuzz_common.hpp"
#include "pkey_local.h"
#include "pkey_pubkey.h"

namespace fuzz {

// The status check of a record on a writable copy of exactly its size. The
// check zeroes kind and name while it digests and must put them back.
inline int record_status(const char *target, const unsigned char *record, unsigned int len) {
    const Bytes copy = copy_bytes(record, len);
    const int status = PKEY_LOCAL_GetKeyStatusFromDataBuf(copy.data(), len, nullptr);
    if (len != 0 && std::memcmp(copy.data(), record, len) != 0)
        fail(target, "the status check changed the record");
    return status;
}

// A key read from a sound record builds a record again that is itself sound
// and reads back as an equal key.
inline void check_record_round_trip(const char *target, unsigned int alg, EVP_PKEY *key) {
    unsigned int len = 0;
    const pkey::MallocPtr<unsigned char> rebuilt(PKEY_PUBKEY_ConvertKeyToStoreBuf(key, &len));
    if (!rebuilt) fail(target, "a key read from a sound record does not build a record");
    if (record_status(target, rebuilt.get(), len) != 1)
        fail(target, "a record the library built fails its own check");
    const Bytes copy = copy_bytes(rebuilt.get(), len);
    const pkey::EvpPkeyPtr again(PKEY_PUBKEY_ConvertStoreBufToKey(alg, copy.data(), len));
    if (!again) fail(target, "a record the library built does not read back");
    if (EVP_PKEY_eq(key, again.get()) != 1) fail(target, "the key read back differs");
}

}  // namespace fuzz
