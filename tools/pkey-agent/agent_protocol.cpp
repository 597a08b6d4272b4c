// The SSH agent protocol's messages: framing, request parsing and the
// responses pkey-agent sends.
#include "agent_protocol.hpp"

#include <cstdio>

#include "pkey_util.hpp"

namespace pkey::agent {
namespace {

// The fields of each request type the agent reads. Types without fields
// must be the type byte alone.
enum class Layout { kNone, kSign, kKeyBlob, kText, kExtension, kOpaque };

Layout layout_of(std::uint8_t type) {
    switch (type) {
        case kRequestIdentities:
        case kRemoveAllIdentities:
        case kRequestRsaIdentities:
        case kRemoveAllRsaIdentities: return Layout::kNone;
        case kSignRequest: return Layout::kSign;
        case kRemoveIdentity: return Layout::kKeyBlob;
        case kLock:
        case kUnlock: return Layout::kText;
        case kExtension: return Layout::kExtension;
        default: return Layout::kOpaque;
    }
}

ByteSpan as_bytes(std::string_view text) {
    return {reinterpret_cast<const unsigned char *>(text.data()), text.size()};
}

}  // namespace

Frame next_frame(ByteSpan stream, std::size_t &message_len) noexcept {
    ByteReader in(stream);
    std::uint32_t len = 0;
    if (!in.read_u32(len)) return Frame::kIncomplete;
    if (len == 0) return Frame::kEmpty;
    if (len > kMaxMessage) return Frame::kTooLong;
    message_len = len;
    return in.remaining() >= len ? Frame::kComplete : Frame::kIncomplete;
}

bool parse_request(ByteSpan message, Request &out, std::string &error) {
    ByteReader in(message);
    out = Request{};
    if (!in.read_u8(out.type)) {
        error = "empty message";
        return false;
    }
    bool ok = true;
    switch (layout_of(out.type)) {
        case Layout::kNone: break;
        case Layout::kSign:
            ok = in.read_length_prefixed(out.key_blob) && in.read_length_prefixed(out.data) &&
                 in.read_u32(out.flags);
            break;
        case Layout::kKeyBlob: ok = in.read_length_prefixed(out.key_blob); break;
        case Layout::kText: ok = in.read_length_prefixed(out.text); break;
        case Layout::kExtension:
            ok = in.read_length_prefixed(out.text) && in.read_bytes(in.remaining(), out.payload);
            break;
        case Layout::kOpaque: ok = in.read_bytes(in.remaining(), out.payload); break;
    }
    if (!ok) {
        error = type_name(out.type) + " cut short";
        return false;
    }
    if (!in.empty()) {
        error = type_name(out.type) + " has " + std::to_string(in.remaining()) +
                " bytes after its last field";
        return false;
    }
    return true;
}

Bytes encode_request(const Request &request) {
    MessageBuilder m(request.type);
    switch (layout_of(request.type)) {
        case Layout::kNone: break;
        case Layout::kSign:
            m.string(request.key_blob).string(request.data).u32(request.flags);
            break;
        case Layout::kKeyBlob: m.string(request.key_blob); break;
        case Layout::kText: m.string(request.text); break;
        case Layout::kExtension: m.string(request.text).raw(request.payload); break;
        case Layout::kOpaque: m.raw(request.payload); break;
    }
    return m.finish();
}

std::string type_name(std::uint8_t type) {
    switch (type) {
        case kRequestRsaIdentities: return "protocol 1 identities request";
        case kRemoveAllRsaIdentities: return "protocol 1 remove all identities";
        case kRequestIdentities: return "identities request";
        case kSignRequest: return "sign request";
        case kAddIdentity: return "add identity";
        case kAddIdConstrained: return "add constrained identity";
        case kRemoveIdentity: return "remove identity";
        case kRemoveAllIdentities: return "remove all identities";
        case kAddSmartcardKey: return "add smartcard key";
        case kAddSmartcardKeyConstrained: return "add constrained smartcard key";
        case kRemoveSmartcardKey: return "remove smartcard key";
        case kLock: return "lock";
        case kUnlock: return "unlock";
        case kExtension: return "extension";
        default: return "message type " + std::to_string(type);
    }
}

MessageBuilder::MessageBuilder(std::uint8_t type) {
    out_.reserve(64);
    begin_string();  // the frame's own length
    out_.push_back(type);
}

MessageBuilder &MessageBuilder::u32(std::uint32_t v) {
    unsigned char b[4];
    store_be32(b, v);
    out_.insert(out_.end(), b, b + 4);
    return *this;
}

MessageBuilder &MessageBuilder::raw(ByteSpan bytes) {
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    return *this;
}

MessageBuilder &MessageBuilder::string(ByteSpan bytes) {
    u32(static_cast<std::uint32_t>(bytes.size()));
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    return *this;
}

MessageBuilder &MessageBuilder::string(std::string_view text) { return string(as_bytes(text)); }

MessageBuilder &MessageBuilder::mpint(ByteSpan magnitude) {
    std::size_t skip = 0;
    while (skip < magnitude.size() && magnitude[skip] == 0) ++skip;
    const ByteSpan digits = magnitude.subspan(skip);
    const bool pad = !digits.empty() && (digits[0] & 0x80) != 0;
    u32(static_cast<std::uint32_t>(digits.size() + (pad ? 1 : 0)));
    if (pad) out_.push_back(0);
    out_.insert(out_.end(), digits.begin(), digits.end());
    return *this;
}

MessageBuilder &MessageBuilder::begin_string() {
    open_.push_back(out_.size());
    return u32(0);
}

MessageBuilder &MessageBuilder::end_string() {
    const std::size_t at = open_.back();
    open_.pop_back();
    store_be32(out_.data() + at, static_cast<std::uint32_t>(out_.size() - at - 4));
    return *this;
}

Bytes MessageBuilder::finish() {
    while (!open_.empty()) end_string();
    return std::move(out_);
}

Bytes encode_failure() { return MessageBuilder(kFailure).finish(); }

Bytes encode_identities(const std::vector<Identity> &identities) {
    MessageBuilder m(kIdentitiesAnswer);
    m.u32(static_cast<std::uint32_t>(identities.size()));
    for (const Identity &id : identities) m.string(id.key_blob).string(id.comment);
    return m.finish();
}

Bytes encode_sign_response(ByteSpan signature_blob) {
    return MessageBuilder(kSignResponse).string(signature_blob).finish();
}

namespace {

// A bare blob: the message framing minus its prefix and type byte.
Bytes strip_frame(Bytes framed) { return Bytes(framed.begin() + 5, framed.end()); }

}  // namespace

Bytes rsa_signature_blob(std::string_view algorithm, ByteSpan signature) {
    return strip_frame(MessageBuilder(0).string(algorithm).string(signature).finish());
}

Bytes ecdsa_signature_blob(std::string_view algorithm, ByteSpan r, ByteSpan s) {
    MessageBuilder m(0);
    m.string(algorithm).begin_string().mpint(r).mpint(s).end_string();
    return strip_frame(m.finish());
}

std::string key_blob_type(ByteSpan key_blob) {
    ByteReader in(key_blob);
    ByteSpan name;
    if (!in.read_length_prefixed(name)) return "";
    return {name.begin(), name.end()};
}

}  // namespace pkey::agent
