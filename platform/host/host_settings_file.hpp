// host_settings_file.hpp - the on-disk form of <root>/settings.
//
// Version 2, 944 bytes, every integer little-endian at a fixed offset, so a
// store moved between machines reads the same everywhere:
//
//   offset  size  field
//        0     4  magic 0x50484B53 (bytes 53 4B 48 50)
//        4     4  version, 2
//        8    16  checksum: the first 16 bytes of SHA-256 over all 944 bytes
//                 with these 16 set to zero
//       24     4  fips mode, int32: -1 follow the kernel, 0 off, 1 on
//       28     4  memory alarm, int32: 0 normal
//       32     4  self node, uint32: 0..65535
//       36     4  standby count, uint32: 0..64
//       40     4  status count, uint32: 0..64
//       44     4  reserved, written as 0
//       48   128  standby nodes: 64 x uint16
//      176   512  node status: 64 x {uint32 node 0..65535, int32 status}
//      688   256  algorithm switches: 256 x int8, -1 default, 0 off, 1 on
//
// Readers never check the checksum on their hot path: it is checked whenever
// a process maps the file and by every writer before it changes anything,
// each under the exclusive flock that writers hold while they change values
// and then the checksum. A file that does not verify is refused and left as
// it is. Version 1 (the same values in this machine's byte order, no
// checksum) is migrated to version 2 on first open.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

namespace pkey::host {

inline constexpr unsigned int kMaxStandby = 64;
inline constexpr unsigned int kMaxStatus = 64;
inline constexpr unsigned int kAlgoCodes = 256;
inline constexpr std::size_t kSettingsSize = 944;
inline constexpr std::size_t kChecksumLen = 16;

// The version-2 file as mapped; integer fields hold little-endian values.
struct MappedSettings {
    std::uint32_t magic;
    std::uint32_t version;
    unsigned char checksum[kChecksumLen];
    std::uint32_t fips;
    std::uint32_t mem_alarm;
    std::uint32_t self_node;
    std::uint32_t standby_count;
    std::uint32_t status_count;
    std::uint32_t reserved;
    std::uint16_t standby[kMaxStandby];
    struct Status {
        std::uint32_t node;
        std::uint32_t status;
    } status[kMaxStatus];
    std::int8_t algo[kAlgoCodes];
};
static_assert(sizeof(MappedSettings) == kSettingsSize);
static_assert(offsetof(MappedSettings, checksum) == 8 && offsetof(MappedSettings, fips) == 24 &&
              offsetof(MappedSettings, reserved) == 44 && offsetof(MappedSettings, standby) == 48 &&
              offsetof(MappedSettings, status) == 176 && offsetof(MappedSettings, algo) == 688);

// Little-endian to host order and back: the same swap, a no-op on little-endian machines.
template <typename T>
constexpr T le(T v) noexcept {
    if constexpr (std::endian::native == std::endian::little || sizeof(T) == 1) {
        return v;
    } else if constexpr (sizeof(T) == 2) {
        return static_cast<T>(__builtin_bswap16(static_cast<std::uint16_t>(v)));
    } else {
        return static_cast<T>(__builtin_bswap32(static_cast<std::uint32_t>(v)));
    }
}

// <root>/settings opened read-write, verified, and held under an exclusive
// flock until release() or destruction.
class SettingsFile {
public:
    SettingsFile() noexcept = default;
    ~SettingsFile();
    SettingsFile(const SettingsFile &) = delete;
    SettingsFile &operator=(const SettingsFile &) = delete;

    int fd() const noexcept { return fd_; }
    // Unlocks the file and hands its descriptor to the caller.
    [[nodiscard]] int release() noexcept;
    // Hands the descriptor over with its lock still held.
    [[nodiscard]] int detach() noexcept;
    // Takes over a descriptor (locked or not); it is unlocked and closed with this object.
    void adopt(int fd) noexcept;

private:
    int fd_ = -1;
};

// Opens and verifies <root>/settings under the exclusive lock, migrating a
// version-1 file first. With create, a missing file is made with the
// defaults; it appears complete or not at all. False with why set otherwise.
[[nodiscard]] bool open_settings(const std::string &root, bool create, SettingsFile &out,
                                 std::string &why);

// Verifies size bytes of a version-2 file; on failure why names the cause
// ("damaged (checksum mismatch)").
[[nodiscard]] bool verify_settings(const unsigned char *bytes, std::size_t size, std::string &why);

// Sets the checksum of a mapped file from its current values. Caller holds
// the exclusive lock.
[[nodiscard]] bool seal_settings(MappedSettings &m);

// The cause given for a file of that many bytes.
std::string wrong_size_cause(long long size);

// The line a refused settings file is reported with.
std::string settings_refusal(const std::string &path, const std::string &cause);

}  // namespace pkey::host
