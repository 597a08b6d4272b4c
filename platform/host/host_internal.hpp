// host_internal.hpp - what the modules of libpkey_host.so share among themselves.
//
// The library keeps one process-wide store root. Every module that caches
// something tied to a root (the settings mapping, the device key, database
// connections) remembers the generation of the root it was built for and
// rebuilds its cache when current_store() reports another generation. Every
// change of store, a failed one included, makes a new generation, so no cache
// outlives the store it was built for.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace pkey::host {

// Error codes of PKEY_Encrypt.
inline constexpr unsigned int kCipherErrParam = 0x50020001U;    // NULL pointer or empty input
inline constexpr unsigned int kCipherErrTooLong = 0x50020002U;  // input over 65535 bytes
inline constexpr unsigned int kCipherErrSpace = 0x50020003U;    // output region too small
inline constexpr unsigned int kCipherErrKey = 0x50020004U;      // device key unavailable
inline constexpr unsigned int kCipherErrCrypto = 0x50020005U;   // OpenSSL refused the work

// Error codes of the FS_ services.
inline constexpr int kFsErrParam = 0x50030001;    // NULL pointer, zero size
inline constexpr int kFsErrSpace = 0x50030002;    // result does not fit the buffer
inline constexpr int kFsErrNoStore = 0x50030003;  // no store root could be opened
inline constexpr int kFsErrName = 0x50030004;     // malformed or relative file name
inline constexpr int kFsErrStore = 0x50030005;    // the name lands on the store's own files

// Format version byte and layout of a key-file cipher region.
inline constexpr unsigned char kCipherVersion = 1;
inline constexpr unsigned int kCipherHeaderLen = 3;  // version, 16-bit length
inline constexpr unsigned int kCipherTagLen = 16;
inline constexpr unsigned int kCipherMaxPlain = 0xFFFFU;
inline constexpr unsigned int kDeviceKeyLen = 64;  // AES-256-SIV takes two 256-bit keys

struct StoreRef {
    std::string root;  // absolute, no trailing "/"; empty when there is no usable store
    std::uint64_t generation = 0;
};

// The store in use. Opens $PKEY_ROOT (or ./pkey-store) when HOST_Open was never
// called. With no usable store the root is empty and the reason is recorded
// as this thread's error.
[[nodiscard]] StoreRef current_store();
// Just its generation, for caches that only need to know the store has not
// changed; it copies nothing. A cache never holds the generation of a failed
// open, so a mismatch sends it to current_store().
std::uint64_t current_generation();
// Takes the usable store of that generation away (its settings no longer
// verify); every service fails until the next successful open.
void store_failed(std::uint64_t generation, const std::string &reason);

// This thread's error: the first failure since HOST_ClearError is kept.
void record_error(std::string_view message);
// strerror(err) without the thread-safety trouble of strerror.
std::string errno_text(int err);

// Whole reads and writes of a descriptor, retried past signals and short counts.
[[nodiscard]] bool read_all(int fd, unsigned char *buf, std::size_t len);
[[nodiscard]] bool write_all(int fd, const unsigned char *buf, std::size_t len);
// The entry names of dir but "." and "..". True with none when dir does not
// exist; false when it exists but cannot be opened or read to its end (a
// failing read is never taken for the end of the directory).
[[nodiscard]] bool list_directory(const std::string &dir, std::vector<std::string> &names);
// Makes a directory's new entries durable.
void sync_dir(const std::string &dir);
// Writes bytes, synced, to a new "<dir>/.<name>.XXXXXX" of the given mode; its
// path, or "" with why set.
[[nodiscard]] std::string write_temp_file(const std::string &dir, const std::string &name,
                                          const unsigned char *bytes, std::size_t len, mode_t mode,
                                          std::string &why);
// Publishes <dir>/<name> whole: written beside its place, then link()ed to
// its name, so that a racing process sees no file or a complete one.
// kExists when another process published first (its file stands).
enum class Publish { kDone, kExists, kFailed };
[[nodiscard]] Publish publish_new_file(const std::string &dir, const std::string &name,
                                       const unsigned char *bytes, std::size_t len, mode_t mode,
                                       std::string &why);

// Checks <root>/settings as an open does: verifies it, migrates an older
// layout, and (with create) makes a missing file with the defaults. On
// failure why holds the one-line reason.
[[nodiscard]] bool settings_verify(const std::string &root, bool create, std::string &why);

// This process's id, kept up to date across fork() without a system call on
// every use: caches compare it to notice they were inherited from a parent.
int process_id() noexcept;

// Cache drops run by HOST_Open after switching roots, so secrets and open
// files of the old store go at once rather than at the next call.
void settings_drop() noexcept;
void cipher_drop() noexcept;
void dbm_drop() noexcept;

// Self node number from the shared settings (1 when they cannot be read).
unsigned short settings_self_node();

// "<root>/node<N>/<leaf>"
std::string node_path(std::string_view root, unsigned int node, std::string_view leaf);

}  // namespace pkey::host
