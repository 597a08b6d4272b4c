// test_util.hpp - small helpers the test programs share: whole files, shell
// commands and child processes (with a watchdog for calls that could hang).
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

// Exit code of body run in a child process, or kHung when the child has not
// finished within the time given (it is then killed): a guard for calls that
// must fail rather than wait for ever. The limit is generous on purpose; no
// test measures how long a call takes.
constexpr int kHung = -2;
template <typename Body>
int exit_code_within(Body body, std::chrono::seconds limit = std::chrono::seconds(30)) {
    const pid_t pid = spawn(body);
    if (pid < 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (r < 0) return -1;
        usleep(5 * 1000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return kHung;
}

}  // namespace pkey::test
