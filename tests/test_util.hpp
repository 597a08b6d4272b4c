// test_util.hpp - small helpers the test programs share: whole files, shell
// commands and child processes (with a watchdog for calls that could hang).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

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

// The command line that starts a program of this build: the program itself,
// or, in a build for another machine, the emulator the tests run under
// followed by the program (the kernel here cannot start it on its own).
inline std::vector<std::string> target_command(std::vector<std::string> argv) {
#ifdef PKEY_TEST_EMULATOR
    const char *const emulator[] = {PKEY_TEST_EMULATOR};
    argv.insert(argv.begin(), std::begin(emulator), std::end(emulator));
#endif
    return argv;
}

// target_command for a shell: each word single-quoted.
inline std::string target_shell_command(const std::string &program) {
    std::string line;
    for (const std::string &word : target_command({program})) {
        if (!line.empty()) line += ' ';
        line += '\'';
        for (const char c : word) line += c == '\'' ? std::string("'\\''") : std::string(1, c);
        line += '\'';
    }
    return line;
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

// What a program run by run_program did: its exit code (-1 killed by a
// signal, -2 still running at the deadline and killed), and its output.
struct ProgramResult {
    int code = -1;
    std::string out;
    std::string err;
};

// Runs argv[0], a program of this build (see target_command), with the
// arguments, standard input from stdin_path, and collects both outputs; a
// program still running after timeout_s seconds is killed, so that a hang
// fails the test instead of stopping the suite.
inline ProgramResult run_program(const std::vector<std::string> &program_argv,
                                 const std::string &stdin_path = "/dev/null", int timeout_s = 60) {
    const std::vector<std::string> argv = target_command(program_argv);
    ProgramResult r;
    int out_pipe[2], err_pipe[2];
    if (::pipe(out_pipe) != 0 || ::pipe(err_pipe) != 0) return r;
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int in = ::open(stdin_path.c_str(), O_RDONLY);
        if (in < 0) _exit(127);
        ::dup2(in, 0);
        ::dup2(out_pipe[1], 1);
        ::dup2(err_pipe[1], 2);
        ::close(out_pipe[0]);
        ::close(err_pipe[0]);
        std::vector<char *> args;
        for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        _exit(127);
    }
    ::close(out_pipe[1]);
    ::close(err_pipe[1]);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string *sinks[2] = {&r.out, &r.err};
    int open_pipes = 2;
    bool timed_out = false;
    while (open_pipes > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timed_out = true;
            break;
        }
        if (::poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char buf[4096];
            const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open_pipes;
            }
        }
    }
    if (timed_out) ::kill(pid, SIGKILL);
    for (pollfd &f : fds)
        if (f.fd >= 0) ::close(f.fd);
    int status = 0;
    ::waitpid(pid, &status, 0);
    r.code = timed_out ? -2 : (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return r;
}

}  // namespace pkey::test
