// host_files.cpp - whole-file helpers of the host platform: the store's own
// small files (device key, settings) are written beside their place and then
// published in one step, so another process sees no file or a complete one.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "host_internal.hpp"

namespace pkey::host {

bool read_all(int fd, unsigned char *buf, std::size_t len) {
    std::size_t done = 0;
    while (done < len) {
        const ssize_t n = ::read(fd, buf + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool write_all(int fd, const unsigned char *buf, std::size_t len) {
    std::size_t done = 0;
    while (done < len) {
        const ssize_t n = ::write(fd, buf + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool list_directory(const std::string &dir, std::vector<std::string> &names) {
    names.clear();
    DIR *stream = ::opendir(dir.c_str());
    if (stream == nullptr) return errno == ENOENT || errno == ENOTDIR;
    bool complete = true;
    for (;;) {
        errno = 0;
        const struct dirent *e = ::readdir(stream);
        if (e == nullptr) {
            complete = errno == 0;
            break;
        }
        const std::string_view name(e->d_name);
        if (name != "." && name != "..") names.emplace_back(name);
    }
    ::closedir(stream);
    if (!complete) names.clear();
    return complete;
}

void sync_dir(const std::string &dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)::fsync(fd);
    ::close(fd);
}

std::string write_temp_file(const std::string &dir, const std::string &name,
                            const unsigned char *bytes, std::size_t len, mode_t mode,
                            std::string &why) {
    std::string temp = dir + "/." + name + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        why = "cannot write " + dir + "/" + name + ": " + errno_text(err);
        return {};
    }
    const bool ok = ::fchmod(fd, mode) == 0 && write_all(fd, bytes, len) && ::fsync(fd) == 0;
    const int err = errno;
    ::close(fd);
    if (!ok) {
        ::unlink(temp.c_str());
        why = "cannot write " + dir + "/" + name + ": " + errno_text(err);
        return {};
    }
    return temp;
}

Publish publish_new_file(const std::string &dir, const std::string &name,
                         const unsigned char *bytes, std::size_t len, mode_t mode,
                         std::string &why) {
    const std::string temp = write_temp_file(dir, name, bytes, len, mode, why);
    if (temp.empty()) return Publish::kFailed;
    const std::string path = dir + "/" + name;
    const int linked = ::link(temp.c_str(), path.c_str());
    const int err = errno;
    ::unlink(temp.c_str());
    if (linked != 0) {
        if (err == EEXIST) return Publish::kExists;
        why = "cannot write " + path + ": " + errno_text(err);
        return Publish::kFailed;
    }
    sync_dir(dir);
    return Publish::kDone;
}

}  // namespace pkey::host
