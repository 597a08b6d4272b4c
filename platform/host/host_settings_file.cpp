// host_settings_file.cpp - reading, verifying, migrating and creating the
// settings file (layout in host_settings_file.hpp).
//
// A new file, or the version-2 form of an old one, is written whole to a
// temporary file and then linked or renamed into place, so no process ever
// opens a settings file that is empty or half written. Whoever opens the file
// takes the exclusive lock and then makes sure the name still leads to the
// file it locked: a migration may have put another file there meanwhile.

#include "host_settings_file.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "host_internal.hpp"

namespace pkey::host {
namespace {

constexpr std::uint32_t kMagic = 0x50484B53U;  // "PHKS"
constexpr std::uint32_t kVersion = 2;
constexpr std::size_t kChecksumOffset = offsetof(MappedSettings, checksum);
constexpr off_t kMaxPlausibleSize = 4096;
constexpr int kMaxOpenAttempts = 8;
constexpr const char *kAdvice = "restore it from a backup, or remove it to start from the defaults";

// Version 1: the same values in the writer's byte order, without a checksum.
constexpr std::uint32_t kV1Version = 1;
constexpr std::size_t kV1Size = 928;
constexpr std::size_t kV1Fips = 12, kV1MemAlarm = 16, kV1SelfNode = 20, kV1StandbyCount = 24,
                      kV1StatusCount = 28, kV1Standby = 32, kV1Status = 160, kV1Algo = 672;

using Bytes = std::array<unsigned char, kSettingsSize>;

// Every value of a settings file, in host order.
struct Values {
    std::int32_t fips = -1;
    std::int32_t mem_alarm = 0;
    std::uint32_t self_node = 1;
    std::uint32_t standby_count = 0;
    std::uint32_t status_count = 0;
    std::uint16_t standby[kMaxStandby] = {};
    std::uint32_t status_node[kMaxStatus] = {};
    std::int32_t status[kMaxStatus] = {};
    std::int8_t algo[kAlgoCodes];

    Values() noexcept { std::memset(algo, 0xFF, sizeof algo); }
};

std::uint32_t get_le32(const unsigned char *p) noexcept {
    return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
           (std::uint32_t{p[3]} << 24);
}
std::uint16_t get_le16(const unsigned char *p) noexcept {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
void put_le32(unsigned char *p, std::uint32_t v) noexcept {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
void put_le16(unsigned char *p, std::uint16_t v) noexcept {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
template <typename T>
T get_native(const unsigned char *p) noexcept {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

bool checksum(const unsigned char *bytes, unsigned char out[kChecksumLen]) {
    Bytes copy;
    std::memcpy(copy.data(), bytes, kSettingsSize);
    std::memset(copy.data() + kChecksumOffset, 0, kChecksumLen);
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int md_len = 0;
    if (EVP_Digest(copy.data(), copy.size(), md, &md_len, EVP_sha256(), nullptr) != 1 ||
        md_len < kChecksumLen)
        return false;
    std::memcpy(out, md, kChecksumLen);
    return true;
}

// "" when every value is one the services can act on, else the first that is not.
std::string out_of_range(const Values &v) {
    const auto tell = [](const char *what, long long value) {
        return std::string("damaged (value out of range: ") + what + " " + std::to_string(value) +
               ")";
    };
    if (v.fips < -1 || v.fips > 1) return tell("fips mode", v.fips);
    if (v.self_node > 0xFFFF) return tell("self node", v.self_node);
    if (v.standby_count > kMaxStandby) return tell("standby count", v.standby_count);
    if (v.status_count > kMaxStatus) return tell("status count", v.status_count);
    for (unsigned int i = 0; i < v.status_count; ++i)
        if (v.status_node[i] > 0xFFFF) return tell("status node", v.status_node[i]);
    for (std::int8_t a : v.algo)
        if (a < -1 || a > 1) return tell("algorithm switch", a);
    return {};
}

Values decode_v2(const unsigned char *b) {
    Values v;
    v.fips = static_cast<std::int32_t>(get_le32(b + offsetof(MappedSettings, fips)));
    v.mem_alarm = static_cast<std::int32_t>(get_le32(b + offsetof(MappedSettings, mem_alarm)));
    v.self_node = get_le32(b + offsetof(MappedSettings, self_node));
    v.standby_count = get_le32(b + offsetof(MappedSettings, standby_count));
    v.status_count = get_le32(b + offsetof(MappedSettings, status_count));
    for (std::size_t i = 0; i < kMaxStandby; ++i)
        v.standby[i] = get_le16(b + offsetof(MappedSettings, standby) + 2 * i);
    for (std::size_t i = 0; i < kMaxStatus; ++i) {
        const unsigned char *e = b + offsetof(MappedSettings, status) + 8 * i;
        v.status_node[i] = get_le32(e);
        v.status[i] = static_cast<std::int32_t>(get_le32(e + 4));
    }
    std::memcpy(v.algo, b + offsetof(MappedSettings, algo), kAlgoCodes);
    return v;
}

Values decode_v1(const unsigned char *b) {
    Values v;
    v.fips = get_native<std::int32_t>(b + kV1Fips);
    v.mem_alarm = get_native<std::int32_t>(b + kV1MemAlarm);
    v.self_node = get_native<std::uint32_t>(b + kV1SelfNode);
    v.standby_count = get_native<std::uint32_t>(b + kV1StandbyCount);
    v.status_count = get_native<std::uint32_t>(b + kV1StatusCount);
    for (std::size_t i = 0; i < kMaxStandby; ++i)
        v.standby[i] = get_native<std::uint16_t>(b + kV1Standby + 2 * i);
    for (std::size_t i = 0; i < kMaxStatus; ++i) {
        v.status_node[i] = get_native<std::uint32_t>(b + kV1Status + 8 * i);
        v.status[i] = get_native<std::int32_t>(b + kV1Status + 8 * i + 4);
    }
    std::memcpy(v.algo, b + kV1Algo, kAlgoCodes);
    return v;
}

bool encode_v2(const Values &v, Bytes &b) {
    b.fill(0);
    put_le32(b.data() + offsetof(MappedSettings, magic), kMagic);
    put_le32(b.data() + offsetof(MappedSettings, version), kVersion);
    put_le32(b.data() + offsetof(MappedSettings, fips), static_cast<std::uint32_t>(v.fips));
    put_le32(b.data() + offsetof(MappedSettings, mem_alarm),
             static_cast<std::uint32_t>(v.mem_alarm));
    put_le32(b.data() + offsetof(MappedSettings, self_node), v.self_node);
    put_le32(b.data() + offsetof(MappedSettings, standby_count), v.standby_count);
    put_le32(b.data() + offsetof(MappedSettings, status_count), v.status_count);
    for (std::size_t i = 0; i < kMaxStandby; ++i)
        put_le16(b.data() + offsetof(MappedSettings, standby) + 2 * i, v.standby[i]);
    for (std::size_t i = 0; i < kMaxStatus; ++i) {
        unsigned char *e = b.data() + offsetof(MappedSettings, status) + 8 * i;
        put_le32(e, v.status_node[i]);
        put_le32(e + 4, static_cast<std::uint32_t>(v.status[i]));
    }
    std::memcpy(b.data() + offsetof(MappedSettings, algo), v.algo, kAlgoCodes);
    return checksum(b.data(), b.data() + kChecksumOffset);
}

enum class Kind { kCurrent, kVersion1, kRefused };

// What a settings file holds; for version 1 its values, when refused the cause.
Kind classify(const unsigned char *b, std::size_t size, Values &v, std::string &cause) {
    const auto wrong_size = [&] {
        cause = wrong_size_cause(static_cast<long long>(size));
        return Kind::kRefused;
    };
    if (size == 0) {
        cause = "damaged (empty file)";
        return Kind::kRefused;
    }
    if (size < 8) return wrong_size();
    const std::uint32_t magic = get_native<std::uint32_t>(b);
    const std::uint32_t version = get_native<std::uint32_t>(b + 4);
    if (get_le32(b) == kMagic && get_le32(b + 4) == kVersion) {
        if (size != kSettingsSize) return wrong_size();
        return verify_settings(b, size, cause) ? Kind::kCurrent : Kind::kRefused;
    }
    if (magic == kMagic && version == kV1Version) {
        if (size != kV1Size || get_native<std::uint32_t>(b + 8) != kV1Size) return wrong_size();
        v = decode_v1(b);
        cause = out_of_range(v);
        return cause.empty() ? Kind::kVersion1 : Kind::kRefused;
    }
    if (__builtin_bswap32(magic) == kMagic && __builtin_bswap32(version) == kV1Version) {
        cause = std::endian::native == std::endian::little
                    ? "version-1 file written on a big-endian machine"
                    : "version-1 file written on a little-endian machine";
        return Kind::kRefused;
    }
    if (get_le32(b) == kMagic || magic == kMagic) {
        cause =
            "unknown version " + std::to_string(get_le32(b) == kMagic ? get_le32(b + 4) : version);
        return Kind::kRefused;
    }
    cause = "damaged (bad magic)";
    return Kind::kRefused;
}

bool read_all_at(int fd, unsigned char *p, std::size_t len) {
    off_t at = 0;
    while (len > 0) {
        const ssize_t n = ::pread(fd, p, len, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        at += n;
        len -= static_cast<std::size_t>(n);
    }
    return true;
}

// Publishes a settings file with the defaults unless another process got
// there first (which is as good).
bool create_settings(const std::string &root, const std::string &path, std::string &why) {
    Bytes bytes;
    if (!encode_v2(Values{}, bytes)) {
        why = "cannot write " + path + ": no SHA-256 available";
        return false;
    }
    return publish_new_file(root, "settings", bytes.data(), bytes.size(), 0660, why) !=
           Publish::kFailed;
}

// Replaces a version-1 file (locked by the caller) with its version-2 form.
bool migrate_settings(const std::string &root, const std::string &path, const Values &v,
                      mode_t mode, std::string &why) {
    Bytes bytes;
    if (!encode_v2(v, bytes)) {
        why = "cannot write " + path + ": no SHA-256 available";
        return false;
    }
    const std::string temp =
        write_temp_file(root, "settings", bytes.data(), bytes.size(), mode, why);
    if (temp.empty()) return false;
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        const int err = errno;
        why = "cannot write " + path + ": " + errno_text(err);
        ::unlink(temp.c_str());
        return false;
    }
    sync_dir(root);
    return true;
}

}  // namespace

SettingsFile::~SettingsFile() {
    if (fd_ >= 0) {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }
}

int SettingsFile::release() noexcept {
    if (fd_ >= 0) ::flock(fd_, LOCK_UN);
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

int SettingsFile::detach() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void SettingsFile::adopt(int fd) noexcept {
    if (fd_ >= 0) {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }
    fd_ = fd;
}

std::string wrong_size_cause(long long size) {
    return "damaged (wrong size: " + std::to_string(size) + " bytes)";
}

std::string settings_refusal(const std::string &path, const std::string &cause) {
    return path + ": " + cause + "; " + kAdvice;
}

bool verify_settings(const unsigned char *bytes, std::size_t size, std::string &why) {
    if (size != kSettingsSize) {
        why = wrong_size_cause(static_cast<long long>(size));
        return false;
    }
    if (get_le32(bytes) != kMagic) {
        why = "damaged (bad magic)";
        return false;
    }
    if (get_le32(bytes + 4) != kVersion) {
        why = "unknown version " + std::to_string(get_le32(bytes + 4));
        return false;
    }
    unsigned char sum[kChecksumLen];
    if (!checksum(bytes, sum)) {
        why = "cannot be checked (no SHA-256 available)";
        return false;
    }
    if (std::memcmp(sum, bytes + kChecksumOffset, kChecksumLen) != 0) {
        why = "damaged (checksum mismatch)";
        return false;
    }
    why = out_of_range(decode_v2(bytes));
    return why.empty();
}

bool seal_settings(MappedSettings &m) {
    unsigned char sum[kChecksumLen];
    if (!checksum(reinterpret_cast<const unsigned char *>(&m), sum)) return false;
    std::memcpy(m.checksum, sum, kChecksumLen);
    return true;
}

bool open_settings(const std::string &root, bool create, SettingsFile &out, std::string &why) {
    const std::string path = root + "/settings";
    for (int attempt = 0; attempt < kMaxOpenAttempts; ++attempt) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            const int err = errno;
            if (err == ENOENT && create) {
                if (!create_settings(root, path, why)) return false;
                continue;
            }
            why = err == ENOENT ? "no pkey store at " + root + " (no settings file)"
                                : "cannot open " + path + ": " + errno_text(err);
            return false;
        }
        SettingsFile file;
        file.adopt(fd);
        if (::flock(fd, LOCK_EX) != 0) {
            const int err = errno;
            why = "cannot lock " + path + ": " + errno_text(err);
            return false;
        }
        struct stat st {};
        struct stat named {};
        if (::fstat(fd, &st) != 0) {
            const int err = errno;
            why = "cannot read " + path + ": " + errno_text(err);
            return false;
        }
        // Replaced while we waited for the lock: start again on the new file.
        if (::stat(path.c_str(), &named) != 0 || named.st_dev != st.st_dev ||
            named.st_ino != st.st_ino)
            continue;
        if (!S_ISREG(st.st_mode)) {
            why = settings_refusal(path, "damaged (not a regular file)");
            return false;
        }
        std::string cause;
        if (st.st_size > kMaxPlausibleSize) {
            why = settings_refusal(path, wrong_size_cause(st.st_size));
            return false;
        }
        std::array<unsigned char, kMaxPlausibleSize> bytes{};
        const auto size = static_cast<std::size_t>(st.st_size);
        if (!read_all_at(fd, bytes.data(), size)) {
            const int err = errno;
            why = "cannot read " + path + ": " + errno_text(err);
            return false;
        }
        Values values;
        switch (classify(bytes.data(), size, values, cause)) {
            case Kind::kCurrent:
                out.adopt(file.detach());  // still locked: the caller maps what was verified
                break;
            case Kind::kVersion1:
                if (!migrate_settings(root, path, values, st.st_mode & 0777, why)) return false;
                continue;
            case Kind::kRefused: why = settings_refusal(path, cause); return false;
        }
        return true;
    }
    why = "cannot open " + path + ": it keeps being replaced";
    return false;
}

}  // namespace pkey::host
