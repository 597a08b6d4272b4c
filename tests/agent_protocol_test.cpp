// The agent protocol's framing, request parser and response encoders, against
// messages written out byte by byte as the protocol lays them down.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "agent_protocol.hpp"

namespace {

using pkey::agent::Bytes;
using pkey::agent::ByteSpan;
using pkey::agent::Frame;
using pkey::agent::Request;

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

// A sign request for key blob "KEY", data "data to sign", flags 4.
const Bytes kSignRequest = {
    0x00, 0x00, 0x00, 0x1c,                                     // length 28
    0x0d,                                                       // SSH2_AGENTC_SIGN_REQUEST
    0x00, 0x00, 0x00, 0x03, 'K', 'E', 'Y',                      // key blob
    0x00, 0x00, 0x00, 0x0c, 'd', 'a', 't', 'a', ' ', 't', 'o',  // data
    ' ',  's',  'i',  'g',  'n',                                //
    0x00, 0x00, 0x00, 0x04,                                     // flags: rsa-sha2-512
};
const Bytes kIdentitiesRequest = {0x00, 0x00, 0x00, 0x01, 0x0b};
const Bytes kLock = {0x00, 0x00, 0x00, 0x08, 0x16, 0x00, 0x00, 0x00, 0x03, 'p', 'w', 'd'};
const Bytes kExtension = {0x00, 0x00, 0x00, 0x0b, 0x1b, 0x00, 0x00, 0x00,
                          0x04, 'q',  'u',  'e',  'r',  0xAA, 0xBB};
const Bytes kAddIdentity = {0x00, 0x00, 0x00, 0x05, 0x11, 0x01, 0x02, 0x03, 0x04};
const Bytes kRemoveAll = {0x00, 0x00, 0x00, 0x01, 0x13};
const Bytes kRemoveIdentity = {0x00, 0x00, 0x00, 0x07, 0x12, 0x00, 0x00, 0x00, 0x02, 'k', 'b'};

ByteSpan body(const Bytes &framed) { return ByteSpan(framed).subspan(4); }

bool parses(const Bytes &framed, Request &r) {
    std::string error;
    return pkey::agent::parse_request(body(framed), r, error);
}

std::string str(ByteSpan s) { return std::string(s.begin(), s.end()); }

TEST(AgentFrame, NeedsFourLengthBytesAndTheWholeBody) {
    std::size_t len = 0;
    for (std::size_t n = 0; n < kSignRequest.size(); ++n)
        EXPECT_EQ(pkey::agent::next_frame(ByteSpan(kSignRequest.data(), n), len),
                  Frame::kIncomplete)
            << n;
    ASSERT_EQ(pkey::agent::next_frame(kSignRequest, len), Frame::kComplete);
    EXPECT_EQ(len, 28u);
    // Bytes of the next message behind it do not change this one's frame.
    const Bytes two = cat({kIdentitiesRequest, kSignRequest});
    ASSERT_EQ(pkey::agent::next_frame(two, len), Frame::kComplete);
    EXPECT_EQ(len, 1u);
}

TEST(AgentFrame, RefusesEmptyAndOverLongMessagesFromTheirLengthAlone) {
    std::size_t len = 0;
    EXPECT_EQ(pkey::agent::next_frame(Bytes{0, 0, 0, 0}, len), Frame::kEmpty);
    // 256 KiB is the largest accepted; one more is refused before any body arrives.
    EXPECT_EQ(pkey::agent::next_frame(Bytes{0x00, 0x04, 0x00, 0x00}, len), Frame::kIncomplete);
    EXPECT_EQ(pkey::agent::next_frame(Bytes{0x00, 0x04, 0x00, 0x01}, len), Frame::kTooLong);
    EXPECT_EQ(pkey::agent::next_frame(Bytes{0xFF, 0xFF, 0xFF, 0xFF}, len), Frame::kTooLong);
}

TEST(AgentParse, ReadsEveryFieldOfASignRequest) {
    Request r;
    ASSERT_TRUE(parses(kSignRequest, r));
    EXPECT_EQ(r.type, pkey::agent::kSignRequest);
    EXPECT_EQ(str(r.key_blob), "KEY");
    EXPECT_EQ(str(r.data), "data to sign");
    EXPECT_EQ(r.flags, pkey::agent::kRsaSha2_512);
}

TEST(AgentParse, ReadsTheFieldsOfEachKnownType) {
    Request r;
    ASSERT_TRUE(parses(kIdentitiesRequest, r));
    EXPECT_EQ(r.type, pkey::agent::kRequestIdentities);
    ASSERT_TRUE(parses(kLock, r));
    EXPECT_EQ(r.type, pkey::agent::kLock);
    EXPECT_EQ(str(r.text), "pwd");
    ASSERT_TRUE(parses(kExtension, r));
    EXPECT_EQ(str(r.text), "quer");
    EXPECT_EQ(r.payload.size(), 2u);
    ASSERT_TRUE(parses(kRemoveIdentity, r));
    EXPECT_EQ(str(r.key_blob), "kb");
    ASSERT_TRUE(parses(kRemoveAll, r));
    EXPECT_EQ(r.type, pkey::agent::kRemoveAllIdentities);
    // A type the agent does not read keeps its payload whole.
    ASSERT_TRUE(parses(kAddIdentity, r));
    EXPECT_EQ(r.type, pkey::agent::kAddIdentity);
    EXPECT_EQ(r.payload.size(), 4u);
}

TEST(AgentParse, RefusesEveryTruncationOfASignRequest) {
    const ByteSpan whole = body(kSignRequest);
    for (std::size_t n = 0; n < whole.size(); ++n) {
        Request r;
        std::string error;
        EXPECT_FALSE(pkey::agent::parse_request(whole.first(n), r, error)) << n;
        EXPECT_FALSE(error.empty());
    }
}

TEST(AgentParse, RefusesBytesAfterTheLastField) {
    for (const Bytes &msg :
         {kSignRequest, kIdentitiesRequest, kLock, kRemoveAll, kRemoveIdentity}) {
        Bytes longer(msg.begin() + 4, msg.end());
        longer.push_back(0);
        Request r;
        std::string error;
        EXPECT_FALSE(pkey::agent::parse_request(longer, r, error)) << int{msg[4]};
        EXPECT_NE(error.find("after its last field"), std::string::npos) << error;
    }
}

TEST(AgentParse, RefusesALengthBeyondTheMessage) {
    // The key blob claims 0xFFFFFFFF bytes, which must not wrap any sum.
    const Bytes msg = {0x0d, 0xFF, 0xFF, 0xFF, 0xFF, 'K', 'E', 'Y', 0, 0, 0, 0, 0, 0, 0, 0};
    Request r;
    std::string error;
    EXPECT_FALSE(pkey::agent::parse_request(msg, r, error));
    const Bytes data_long = {0x0d, 0, 0, 0, 1, 'K', 0, 0, 0, 9, 'x', 0, 0, 0, 0};
    EXPECT_FALSE(pkey::agent::parse_request(data_long, r, error));
    EXPECT_FALSE(pkey::agent::parse_request(Bytes{}, r, error));
}

TEST(AgentParse, EveryAcceptedMessageEncodesBackToItsOwnBytes) {
    for (const Bytes &msg : {kSignRequest, kIdentitiesRequest, kLock, kExtension, kAddIdentity,
                             kRemoveAll, kRemoveIdentity}) {
        Request r;
        ASSERT_TRUE(parses(msg, r));
        EXPECT_EQ(pkey::agent::encode_request(r), msg) << int{msg[4]};
    }
}

TEST(AgentEncode, FailureIsTheTypeByteAlone) {
    EXPECT_EQ(pkey::agent::encode_failure(), (Bytes{0, 0, 0, 1, 5}));
}

TEST(AgentEncode, IdentitiesAnswerListsBlobAndCommentOfEach) {
    const Bytes expected = {0x00, 0x00, 0x00, 0x19,              // length 25
                            0x0c,                                // IDENTITIES_ANSWER
                            0x00, 0x00, 0x00, 0x02,              // two keys
                            0x00, 0x00, 0x00, 0x02, 0xB1, 0xB2,  // blob 1
                            0x00, 0x00, 0x00, 0x01, 'a',         // comment 1
                            0x00, 0x00, 0x00, 0x01, 0xB3,        // blob 2
                            0x00, 0x00, 0x00, 0x00};             // empty comment
    EXPECT_EQ(pkey::agent::encode_identities({{{0xB1, 0xB2}, "a"}, {{0xB3}, ""}}), expected);
    EXPECT_EQ(pkey::agent::encode_identities({}), (Bytes{0, 0, 0, 5, 12, 0, 0, 0, 0}));
}

TEST(AgentEncode, SignResponseWrapsTheSignatureBlobInAString) {
    EXPECT_EQ(pkey::agent::encode_sign_response(Bytes{0xAB, 0xCD}),
              (Bytes{0, 0, 0, 7, 14, 0, 0, 0, 2, 0xAB, 0xCD}));
}

TEST(AgentEncode, RsaSignatureBlobIsAlgorithmAndSignatureStrings) {
    const Bytes expected =
        cat({{0, 0, 0, 12}, text("rsa-sha2-256"), {0, 0, 0, 3, 0x00, 0x80, 0x01}});
    // The signature is kept as it is, leading zero and all: it has the modulus's length.
    EXPECT_EQ(pkey::agent::rsa_signature_blob("rsa-sha2-256", Bytes{0x00, 0x80, 0x01}), expected);
}

TEST(AgentEncode, EcdsaSignatureHoldsRAndSAsMinimalPositiveMpints) {
    // r has its top bit set (a zero byte goes in front) and leading zeros
    // (dropped); s is small; a zero value is the empty mpint.
    const Bytes r = {0x00, 0x00, 0x80, 0x01};
    const Bytes s = {0x7F};
    const Bytes expected = cat({{0, 0, 0, 19},
                                text("ecdsa-sha2-nistp256"),
                                {0, 0, 0, 12},  // the inner string
                                {0, 0, 0, 3, 0x00, 0x80, 0x01},
                                {0, 0, 0, 1, 0x7F}});
    EXPECT_EQ(pkey::agent::ecdsa_signature_blob("ecdsa-sha2-nistp256", r, s), expected);
    const Bytes zero = cat({{0, 0, 0, 5}, text("ecdsa"), {0, 0, 0, 8}, {0, 0, 0, 0}, {0, 0, 0, 0}});
    EXPECT_EQ(pkey::agent::ecdsa_signature_blob("ecdsa", Bytes{0x00}, Bytes{}), zero);
}

TEST(AgentEncode, NestedStringsAreBackFilled) {
    pkey::agent::MessageBuilder m(pkey::agent::kExtension);
    m.string("x").begin_string().u32(7).begin_string().end_string().end_string();
    const Bytes expected = {0,  0, 0, 18,                // type, "x", the nested string
                            27, 0, 0, 0,  1, 'x',        //
                            0,  0, 0, 8,  0, 0,   0, 7,  // nested: u32 7, then
                            0,  0, 0, 0};                // an empty nested string
    EXPECT_EQ(m.finish(), expected);
}

TEST(AgentKeyBlob, TypeIsTheLeadingString) {
    EXPECT_EQ(pkey::agent::key_blob_type(cat({{0, 0, 0, 7}, text("ssh-rsa"), {0, 0, 0, 1, 3}})),
              "ssh-rsa");
    EXPECT_EQ(pkey::agent::key_blob_type(Bytes{0, 0, 0, 9, 's'}), "");
    EXPECT_EQ(pkey::agent::key_blob_type(Bytes{}), "");
}

TEST(AgentTypeName, NamesRefusedRequestsForTheLog) {
    EXPECT_EQ(pkey::agent::type_name(pkey::agent::kLock), "lock");
    EXPECT_EQ(pkey::agent::type_name(pkey::agent::kRemoveAllIdentities), "remove all identities");
    EXPECT_EQ(pkey::agent::type_name(200), "message type 200");
}

}  // namespace
