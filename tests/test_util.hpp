// test_util.hpp - small helpers the test programs share: whole files, shell
// commands and child processes.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace pkey::test {

// Writes a whole file, making its directories.
inline void put(const std::string &file, const std::string &content) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

// A whole file; "" when it cannot be read.
inline std::string get(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Permission bits of a file or directory; 0 when it does not exist.
inline mode_t mode_of(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Standard output of a shell command; "" when it fails.
inline std::string run(const std::string &command) {
    std::string out;
    FILE *pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
    return pclose(pipe) == 0 ? out : "";
}

// Runs body in a child process; exit_code waits for it.
template <typename Body>
pid_t spawn(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}
inline int exit_code(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace pkey::test
