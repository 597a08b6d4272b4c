// agent_server.hpp - pkey-agent's Unix socket: set up safely, then served by
// one thread with poll(), so no client can hold up another.
//
// Each connection has its own input and output buffer and its sockets never
// block: a client that sends half a message and stalls only waits for its own
// answer, and is closed when the message is not whole within the timeout. A
// malformed or over-long message closes that connection only.
#pragma once

#include <string>

namespace pkey::agent {

struct ServerOptions {
    bool verbose = false;      // log every answered request, not only refusals
    int timeout_seconds = 10;  // for a half-received message or an unread answer
};

// The socket of the agent, listening: in a directory of this user's that no
// one else may enter (made with mode 0700 when missing), with mode 0600.
// A socket left there by a dead agent of this user is replaced; anything else
// at the path is refused. -1 with one line in error on refusal.
struct Listener {
    int fd = -1;
    std::string path;  // absolute, for its removal at exit
    unsigned long long dev = 0, ino = 0;
};
[[nodiscard]] bool open_listener(const std::string &path, Listener &out, std::string &error);

// Serves requests until SIGTERM, SIGINT or SIGHUP, then removes the socket
// (when it is still this agent's) and returns 0.
int serve(const Listener &listener, const ServerOptions &options);

// Removes the socket if it is still the one this agent made.
void remove_socket(const Listener &listener);

}  // namespace pkey::agent
