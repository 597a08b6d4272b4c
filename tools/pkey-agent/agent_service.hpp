// agent_service.hpp - what pkey-agent answers to each request: identities and
// signatures from the store's keys that OpenSSH can use, a failure for
// everything else.
//
// The store is read afresh for every request, so a key replaced or destroyed
// by another process is served or withdrawn at the next request. A key pair
// is read only to make one signature and freed right after it.
#pragma once

#include <string>

#include "agent_protocol.hpp"

namespace pkey::agent {

struct Reply {
    Bytes message;  // the framed response
    bool refused = false;
    std::string note;  // for the log: why it was refused, or what was done
};

[[nodiscard]] Reply answer(const Request &request);

}  // namespace pkey::agent
