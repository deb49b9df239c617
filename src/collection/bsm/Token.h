// The tokens of audit records, as far as the agent uses them.
//
// Views point into the record that the token was read from. Texts are the record's bytes, whatever their encoding.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

namespace sentrova::bsm {

// The first byte of a token. Any other value is unknown to this decoder.
enum class TokenId : std::uint8_t {
    kOtherFile32 = 0x11,
    kTrailer = 0x13,
    kHeader32 = 0x14,
    kHeader32Ex = 0x15,
    kData = 0x21,
    kIpc = 0x22,
    kPath = 0x23,
    kSubject32 = 0x24,
    kProcess32 = 0x26,
    kReturn32 = 0x27,
    kText = 0x28,
    kOpaque = 0x29,
    kInAddr = 0x2A,
    kIp = 0x2B,
    kIport = 0x2C,
    kArg32 = 0x2D,
    kSocket = 0x2E,
    kSeq = 0x2F,
    kIpcPerm = 0x32,
    kNewGroups = 0x3B,
    kExecArgs = 0x3C,
    kExecEnv = 0x3D,
    kAttr32 = 0x3E,
    kExit = 0x52,
    kZoneName = 0x60,
    kArg64 = 0x71,
    kReturn64 = 0x72,
    kAttr64 = 0x73,
    kHeader64 = 0x74,
    kSubject64 = 0x75,
    kProcess64 = 0x77,
    kHeader64Ex = 0x79,
    kSubject32Ex = 0x7A,
    kProcess32Ex = 0x7B,
    kSubject64Ex = 0x7C,
    kProcess64Ex = 0x7D,
    kInAddrEx = 0x7E,
    kSocketEx = 0x7F,
    kSockInet32 = 0x80,
    kSockInet128 = 0x81,
    kSockUnix = 0x82,
    kIdentity = 0xED,
    kKerberosPrincipal = 0xEE,
    kCertificateHash = 0xEF,
};

// All four header kinds.
struct HeaderToken {
    std::uint8_t version = 0;
    std::uint16_t eventType = 0;
    std::uint16_t eventModifier = 0;
    // Since 1970, in the 64-bit layouts and the 32-bit ones.
    std::uint64_t seconds = 0;
    std::uint64_t milliseconds = 0;
};

// All four subject kinds.
struct SubjectToken {
    std::uint32_t auditId = 0;
    std::uint32_t effectiveUserId = 0;
    std::uint32_t effectiveGroupId = 0;
    std::uint32_t realUserId = 0;
    std::uint32_t realGroupId = 0;
    std::uint32_t processId = 0;
    std::uint32_t sessionId = 0;
    std::uint64_t port = 0;
    // The terminal's address, or the first four bytes of a longer one, in network byte order. It can be used as the
    // s_addr of an in_addr without conversion.
    std::uint32_t address = 0;
};

struct Return32Token {
    // An error number in the audit format, not of a host.
    std::uint8_t status = 0;
    std::uint32_t value = 0;
};

struct Return64Token {
    std::uint8_t status = 0;
    std::uint64_t value = 0;
};

struct TextToken {
    std::string_view text;
};

// The code signature of the program that the record is about.
struct IdentityToken {
    std::uint32_t signerType = 0;
    std::string_view signingId;
    std::uint8_t signingIdTruncated = 0;
    std::string_view teamId;
    std::uint8_t teamIdTruncated = 0;
    std::span<const std::uint8_t> cdhash;
};

struct TrailerToken {
    std::uint16_t magic = 0;
    std::uint32_t recordLength = 0;
};

struct Token {
    TokenId id{};
    // In bytes, including the id.
    std::size_t length = 0;
    // Empty for the kinds that are only skipped.
    std::variant<std::monostate, HeaderToken, SubjectToken, Return32Token, Return64Token, TextToken, IdentityToken,
                 TrailerToken>
        content;
};

}  // namespace sentrova::bsm
