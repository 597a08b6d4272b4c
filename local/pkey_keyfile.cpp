// Local key files: a store record with its body enciphered, written to the
// memory directory and the flash work directory, read back from memory,
// deciphered and checked.
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>

#include "pkey_backup.h"
#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_local_internal.hpp"
#include "pkey_platform.h"
#include "pkey_pubkey.h"
#include "pkey_util.hpp"

namespace {

using pkey::SecureBuffer;

constexpr unsigned int kHeaderLen = PKEY_STORE_HEADER_LEN;
constexpr unsigned char kProtectRefused = 2;
constexpr unsigned int kMd5Len = 16;
constexpr unsigned int kSha256Len = 32;
constexpr int kFailed = static_cast<int>(PKEY_ERR_FAILED);

bool is_plain(unsigned char protection) noexcept { return protection < kProtectRefused; }

const EVP_MD *digest_for(unsigned char protection, unsigned int &len) noexcept {
    // Fetched once per process; a provider without the digest leaves NULL.
    static EVP_MD *const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static EVP_MD *const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    if (protection == PKEY_STORE_PROTECT_MD5 && CRYPTO_AlgoIsEnabled(CRYPTO_ALG_MD5) == 1) {
        len = kMd5Len;
        return md5;
    }
    if (protection == PKEY_STORE_PROTECT_SHA256 && CRYPTO_AlgoIsEnabled(CRYPTO_ALG_SHA256) == 1) {
        len = kSha256Len;
        return sha256;
    }
    return nullptr;
}

// Names of the memory and device copies of a key on this node.
struct KeyFileNames {
    char mem[PKEY_PATH_LEN] = "";
    char dev[PKEY_PATH_LEN] = "";
    KeyFileNames(unsigned int alg, unsigned int kind, const char *name) noexcept {
        const unsigned int node = DEV_GetSelf();
        PKEY_FS_MakeFullFileName(alg, kind, node, name, PKEY_FS_MakeMemFilePrefix, mem);
        PKEY_FS_MakeFullFileName(alg, kind, node, name, PKEY_FS_MakeDevFilePrefix, dev);
    }
};

int write_file_image(unsigned int alg, unsigned int kind, const unsigned char *image,
                     unsigned int image_len, const char *name) {
    const KeyFileNames files(alg, kind, name);
    // One file under both names: writing the memory copy would empty the
    // only flash copy, and the failing device open would then remove it.
    if (pkey::local::same_existing_file(files.mem, files.dev)) return kFailed;
    int result = 0;
    int mem_fd = -1;
    int dev_fd = -1;
    mem_fd = PKEY_FS_OpenCreateLock(files.mem);
    if (mem_fd == -1) {
        result = kFailed;
    } else if ((result = PKEY_FS_WriteDataToVFSWithFd(image, image_len, mem_fd)) != 0) {
        PKEY_FS_RemoveFileFromVFS(0, 0, files.mem);
    } else if ((dev_fd = PKEY_FS_OpenCreateLock(files.dev)) == -1) {
        // Never leave a key in memory alone.
        PKEY_FS_RemoveFileFromVFS(0, 0, files.mem);
        result = kFailed;
    } else if ((result = PKEY_FS_WriteDataToVFSWithFd(image, image_len, dev_fd)) != 0) {
        PKEY_FS_RemoveFileFromVFS(0, 0, files.dev);
        PKEY_FS_RemoveFileFromVFS(0, 0, files.mem);
    } else {
        PKEY_BACKUP_SndRtLocalKey(alg, image_len, image, name, PKEY_FS_WriteDataToVFS, kind);
    }
    PKEY_FS_CloseUnLock(dev_fd);
    PKEY_FS_CloseUnLock(mem_fd);
    return result;
}

}  // namespace

extern "C" {

int PKEY_LOCAL_WriteKeyBufToDev(unsigned int algId, unsigned int keyKind,
                                const unsigned char *record, unsigned int len, const char *name) {
    if (pkey::is_escaping_key_name(name)) return kFailed;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    return pkey::c_boundary(kFailed, [&]() -> int {
        if (record == nullptr || name == nullptr || len < kHeaderLen ||
            len > UINT32_MAX - PKEY_CIPHER_OVERHEAD)
            return kFailed;
        if (pkey::load_be32(record + PKEY_STORE_OFF_LENGTH) != len) return kFailed;
        SecureBuffer image(len + PKEY_CIPHER_OVERHEAD);
        if (!image) return kFailed;

        std::memcpy(image.data(), record, kHeaderLen);
        const unsigned char protection = record[PKEY_STORE_OFF_PROTECTION];
        unsigned int image_len = len;
        if (is_plain(protection)) {
            std::memcpy(image.data() + kHeaderLen, record + kHeaderLen, len - kHeaderLen);
        } else if (protection == kProtectRefused) {
            return kFailed;
        } else {
            const unsigned int r = PKEY_Encrypt(len - kHeaderLen, record + kHeaderLen,
                                                len - kHeaderLen + PKEY_CIPHER_OVERHEAD,
                                                image.data() + kHeaderLen);
            if (r != 0) return static_cast<int>(r);
            // The whole region goes to disk, whatever the cipher used of it.
            image_len = len + PKEY_CIPHER_OVERHEAD;
        }
        return write_file_image(algId, keyKind, image.data(), image_len, name);
    });
}

int PKEY_LOCAL_SaveLocalKey(unsigned int algId, unsigned int keyKind, EVP_PKEY *key,
                            const char *name) {
    if (key == nullptr || name == nullptr || pkey::is_escaping_key_name(name)) return kFailed;
    unsigned int len = 0;
    unsigned char *built = PKEY_PUBKEY_ConvertKeyToStoreBuf(key, &len);
    if (built == nullptr) return kFailed;
    SecureBuffer record = SecureBuffer::adopt(built, len);
    // Kind and name lie outside the digest, so they are stamped afterwards.
    scnprintf(reinterpret_cast<char *>(record.data() + PKEY_STORE_OFF_NAME), PKEY_STORE_NAME_LEN,
              "%s", name);
    record.data()[PKEY_STORE_OFF_KIND] = static_cast<unsigned char>(keyKind);
    return PKEY_LOCAL_WriteKeyBufToDev(algId, keyKind, record.data(), len, name);
}

int PKEY_SaveLocalKey(const char *name, EVP_PKEY *key) {
    if (key == nullptr || name == nullptr || name[0] == '\0' || pkey::is_escaping_key_name(name))
        return kFailed;
    const unsigned int alg =
        PKEY_PUBKEY_GetPkeyAlgIdByEvpId(static_cast<unsigned int>(EVP_PKEY_get_id(key)));
    if (alg >= PKEY_ALG_UNSUPPORTED) return kFailed;
    return PKEY_LOCAL_SaveLocalKey(alg, PKEY_KEY_HOST, key, name);
}

int PKEY_LOCAL_DecryptPKey(unsigned int inLen, const unsigned char *in, unsigned int cap,
                           unsigned char *out, unsigned int *outLen) {
    if (in == nullptr || out == nullptr || outLen == nullptr) return kFailed;
    if (inLen < kHeaderLen || cap < kHeaderLen) return kFailed;
    const unsigned char protection = in[PKEY_STORE_OFF_PROTECTION];
    if (CRYPTO_FIPSIsEnabled() == 1) {
        if (protection != PKEY_STORE_PROTECT_SHA256) return kFailed;
    } else if (is_plain(protection)) {
        if (cap < inLen) return kFailed;
        std::memmove(out, in, inLen);
        *outLen = inLen;
        return 0;
    } else if (protection != PKEY_STORE_PROTECT_MD5 && protection != PKEY_STORE_PROTECT_SHA256) {
        return kFailed;
    }
    const unsigned int plain =
        PKEY_Decrypt(inLen - kHeaderLen, in + kHeaderLen, cap - kHeaderLen, out + kHeaderLen);
    if (plain == 0) return kFailed;
    std::memmove(out, in, kHeaderLen);
    *outLen = plain + kHeaderLen;
    return 0;
}

unsigned char *PKEY_LOCAL_ReadKeyToBuf(unsigned int algId, unsigned int keyKind, const char *name,
                                       unsigned int *len) {
    if (name == nullptr || len == nullptr || pkey::is_escaping_key_name(name)) return nullptr;
    PKEY_CFGMNG_UpdateLocKeyMemFiles();
    return pkey::c_boundary<unsigned char *>(nullptr, [&]() -> unsigned char * {
        char mem[PKEY_PATH_LEN] = "";
        PKEY_FS_MakeFullFileName(algId, keyKind, DEV_GetSelf(), name, PKEY_FS_MakeMemFilePrefix,
                                 mem);
        unsigned int file_len = 0;
        void *data = PKEY_FS_ReadDataFromVFS(mem, &file_len);
        if (data == nullptr) return nullptr;
        SecureBuffer buf = SecureBuffer::adopt(data, file_len);
        unsigned int plain_len = 0;
        if (PKEY_LOCAL_DecryptPKey(file_len, buf.data(), file_len, buf.data(), &plain_len) != 0)
            return nullptr;
        *len = plain_len;
        return buf.release();
    });
}

int PKEY_LOCAL_GetKeyStatusFromDataBuf(unsigned char *record, unsigned int len,
                                       unsigned char *protection) {
    if (record == nullptr || len < kHeaderLen) return 0;
    if (pkey::load_be32(record + PKEY_STORE_OFF_LENGTH) != len) return 0;
    const unsigned char prot = record[PKEY_STORE_OFF_PROTECTION];
    if (protection != nullptr) *protection = prot;
    unsigned int digest_len = 0;
    const EVP_MD *md = digest_for(prot, digest_len);
    if (md == nullptr || len <= digest_len) return 0;

    // The digest was made with kind and name zero; they are put back after.
    unsigned char kind_and_name[1 + PKEY_STORE_NAME_LEN];
    std::memcpy(kind_and_name, record + PKEY_STORE_OFF_KIND, sizeof kind_and_name);
    std::memset(record + PKEY_STORE_OFF_KIND, 0, sizeof kind_and_name);
    // Without a context nothing is digested and the record is compared with
    // an all-zero digest.
    unsigned char computed[EVP_MAX_MD_SIZE] = {};
    bool digested = true;
    pkey::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    if (ctx) {
        // A failed start leaves kind and name zeroed in the caller's buffer.
        if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) return 0;
        digested = EVP_DigestUpdate(ctx.get(), record, len - digest_len) == 1 &&
                   EVP_DigestFinal_ex(ctx.get(), computed, nullptr) == 1;
    }
    std::memcpy(record + PKEY_STORE_OFF_KIND, kind_and_name, sizeof kind_and_name);
    if (!digested) return 0;
    if (CRYPTO_memcmp(computed, record + len - digest_len, digest_len) != 0) return 0;
    return pkey::load_be32(record + PKEY_STORE_OFF_MARKER) == PKEY_STORE_MARKER ? 1 : 0;
}

PKEY_KEY_WITH_TIME_S *PKEY_LOCAL_ReadKeyToEvpPkey(unsigned int algId, unsigned int keyKind,
                                                  const char *name) {
    unsigned int len = 0;
    unsigned char *plain = PKEY_LOCAL_ReadKeyToBuf(algId, keyKind, name, &len);
    if (plain == nullptr) return nullptr;
    SecureBuffer record = SecureBuffer::adopt(plain, len);
    if (PKEY_LOCAL_GetKeyStatusFromDataBuf(record.data(), len, nullptr) != 1) return nullptr;
    auto *out = static_cast<PKEY_KEY_WITH_TIME_S *>(std::calloc(1, sizeof(PKEY_KEY_WITH_TIME_S)));
    if (out == nullptr) return nullptr;
    const unsigned char *r = record.data();
    scnprintf(out->szDate, sizeof out->szDate, "%04d/%02d/%02d",
              pkey::load_be16(r + PKEY_STORE_OFF_YEAR), r[PKEY_STORE_OFF_MONTH],
              r[PKEY_STORE_OFF_DAY]);
    scnprintf(out->szTime, sizeof out->szTime, "%02d:%02d:%02d",
              pkey::load_be16(r + PKEY_STORE_OFF_HOUR), r[PKEY_STORE_OFF_MINUTE],
              r[PKEY_STORE_OFF_SECOND]);
    out->pstKey = PKEY_PUBKEY_ConvertStoreBufToKey(algId, record.data(), len);
    if (out->pstKey == nullptr) {
        std::free(out);
        return nullptr;
    }
    return out;
}

void PKEY_LOCAL_DestoryEvpkeyWithTime(PKEY_KEY_WITH_TIME_S *keyWithTime) {
    if (keyWithTime == nullptr) return;
    EVP_PKEY_free(keyWithTime->pstKey);
    std::free(keyWithTime);
}

void PKEY_LOCAL_DestroyLocalKeyInfo(PKEY_LOCAL_KEY_INFO_S *info) {
    if (info == nullptr) return;
    std::free(info->pcPubKeyText);
    std::free(info);
}

}  // extern "C"
