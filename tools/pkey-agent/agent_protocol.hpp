// agent_protocol.hpp - the SSH agent protocol's messages as pkey-agent reads
// and writes them: bytes in, a parsed request or a refusal out; responses
// built as whole framed messages.
//
// Pure functions over byte spans, no I/O and no keys: the server, the tests
// and the fuzz target share them. A parsed request points into the bytes it
// was parsed from, so those bytes must outlive it. Every read goes through
// pkey::ByteReader; every message is built by MessageBuilder, which back-fills
// the length prefixes, so no size is counted by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pkey::agent {

using Bytes = std::vector<unsigned char>;
using ByteSpan = std::span<const unsigned char>;

// Message numbers of the protocol.
enum MessageType : std::uint8_t {
    kRequestRsaIdentities = 1,  // SSH protocol 1, long gone
    kRemoveAllRsaIdentities = 9,
    kFailure = 5,
    kSuccess = 6,
    kRequestIdentities = 11,
    kIdentitiesAnswer = 12,
    kSignRequest = 13,
    kSignResponse = 14,
    kAddIdentity = 17,
    kRemoveIdentity = 18,
    kRemoveAllIdentities = 19,
    kAddSmartcardKey = 20,
    kRemoveSmartcardKey = 21,
    kLock = 22,
    kUnlock = 23,
    kAddIdConstrained = 25,
    kAddSmartcardKeyConstrained = 26,
    kExtension = 27,
};

// Signature flags of a sign request: which RSA signature the client wants.
inline constexpr std::uint32_t kRsaSha2_256 = 2;
inline constexpr std::uint32_t kRsaSha2_512 = 4;

// The longest message accepted, length prefix excluded. Requests carry a key
// blob and data to sign (a session hash and a few names): far below this.
inline constexpr std::size_t kMaxMessage = std::size_t{256} * 1024;

// What the next bytes of a stream hold.
enum class Frame {
    kIncomplete,  // not yet a whole message
    kComplete,    // a whole message of message_len bytes after its 4-byte prefix
    kTooLong,     // its length is over kMaxMessage
    kEmpty,       // its length is 0: no message type, malformed
};
[[nodiscard]] Frame next_frame(ByteSpan stream, std::size_t &message_len) noexcept;

// A request, parsed according to its type. Fields another type does not
// carry stay empty. Types the agent does not know keep their payload whole.
struct Request {
    std::uint8_t type = 0;
    ByteSpan key_blob;        // sign request, remove identity
    ByteSpan data;            // sign request: the data to sign
    std::uint32_t flags = 0;  // sign request
    ByteSpan text;            // lock and unlock: the passphrase; extension: its name
    ByteSpan payload;         // extension: what follows the name; unknown types: all after the type
};

// Parses one message (without its length prefix). false with error set to a
// short reason when a field is cut short or bytes follow the last field.
[[nodiscard]] bool parse_request(ByteSpan message, Request &out, std::string &error);

// The message of a request again, length prefix included: exactly the bytes
// parse_request accepted, for clients and for the fuzz target's round trip.
[[nodiscard]] Bytes encode_request(const Request &request);

// A name for a message type in log lines ("sign request", "lock").
[[nodiscard]] std::string type_name(std::uint8_t type);

// Appends the fields of one message and frames it: the 4-byte length prefix
// and every string's length are written when the builder is finished.
class MessageBuilder {
public:
    explicit MessageBuilder(std::uint8_t type);
    MessageBuilder &u32(std::uint32_t v);
    MessageBuilder &raw(ByteSpan bytes);  // bytes as they are, no length
    MessageBuilder &string(ByteSpan bytes);
    MessageBuilder &string(std::string_view text);
    // A non-negative SSH mpint of an unsigned big-endian magnitude: leading
    // zero bytes dropped, one zero byte put back when the top bit is set.
    MessageBuilder &mpint(ByteSpan magnitude);
    // A nested string whose contents the caller appends between the two calls.
    MessageBuilder &begin_string();
    MessageBuilder &end_string();
    // The whole framed message.
    [[nodiscard]] Bytes finish();  // leaves the builder empty

private:
    Bytes out_;
    std::vector<std::size_t> open_;  // offsets of length prefixes to back-fill
};

// One identity of an identities answer.
struct Identity {
    Bytes key_blob;
    std::string comment;
};

[[nodiscard]] Bytes encode_failure();
[[nodiscard]] Bytes encode_identities(const std::vector<Identity> &identities);
[[nodiscard]] Bytes encode_sign_response(ByteSpan signature_blob);

// Signature blobs: string(algorithm) string(signature). ECDSA's signature is
// itself string(mpint r, mpint s); RSA's is the PKCS #1 signature bytes.
[[nodiscard]] Bytes rsa_signature_blob(std::string_view algorithm, ByteSpan signature);
[[nodiscard]] Bytes ecdsa_signature_blob(std::string_view algorithm, ByteSpan r, ByteSpan s);

// The leading type name of an SSH key blob, "" when there is none.
[[nodiscard]] std::string key_blob_type(ByteSpan key_blob);

}  // namespace pkey::agent
