// Fuzz target: pkey-agent's framing and request parser, over a stream of
// messages as a client would send them.
//
// Properties: the framing never claims more bytes than the stream holds or
// than the agent's limit; every message the parser accepts encodes back to
// exactly its own bytes (so no field is lost, added or read past its end),
// and every field it returns lies inside the message. A message the parser
// refuses comes with a reason.
#include <cstdint>
#include <cstring>
#include <string>

#include "agent_protocol.hpp"
#include "fuzz_common.hpp"

namespace {

constexpr const char *kTarget = "agent_message";

bool inside(pkey::agent::ByteSpan field, pkey::agent::ByteSpan message) {
    if (field.empty()) return true;
    return field.data() >= message.data() &&
           field.data() + field.size() <= message.data() + message.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const fuzz::Bytes input = fuzz::copy_bytes(data, size);
    pkey::agent::ByteSpan stream(input.data(), input.size);
    for (;;) {
        std::size_t len = 0;
        const pkey::agent::Frame frame = pkey::agent::next_frame(stream, len);
        if (frame != pkey::agent::Frame::kComplete) break;
        if (len == 0 || len > pkey::agent::kMaxMessage || len > stream.size() - 4)
            fuzz::fail(kTarget, "a frame beyond the stream or the limit");
        const pkey::agent::ByteSpan framed = stream.first(4 + len);
        const pkey::agent::ByteSpan message = framed.subspan(4);
        pkey::agent::Request request;
        std::string error;
        if (pkey::agent::parse_request(message, request, error)) {
            if (!inside(request.key_blob, message) || !inside(request.data, message) ||
                !inside(request.text, message) || !inside(request.payload, message))
                fuzz::fail(kTarget, "a field outside its message");
            const pkey::agent::Bytes again = pkey::agent::encode_request(request);
            if (again.size() != framed.size() ||
                std::memcmp(again.data(), framed.data(), framed.size()) != 0)
                fuzz::fail(kTarget, "an accepted message encodes to other bytes");
            (void)pkey::agent::key_blob_type(request.key_blob);
        } else if (error.empty()) {
            fuzz::fail(kTarget, "a refusal without a reason");
        }
        stream = stream.subspan(4 + len);
    }
    return 0;
}
