#include "collection/bsm/TokenReader.h"

#include "collection/bsm/ByteCursor.h"

#include <algorithm>
#include <cstring>

namespace sentrova::bsm {

namespace {

constexpr std::size_t kTrailerLength = 7;

// The longest path in the address of a local socket.
constexpr std::size_t kSocketPathLength = 104;

constexpr bool isAddressLength(std::uint32_t length) {
    return length == 4 || length == 16;
}

// Reads an address of the given length, which must be 4 or 16.
std::span<const std::uint8_t> takeAddress(ByteCursor& in, std::uint32_t length) {
    if (!isAddressLength(length)) {
        in.reject();
    }
    return in.take(length);
}

HeaderToken takeHeader(ByteCursor& in, bool wide, bool extended) {
    HeaderToken header;
    in.u32();  // the record's length, which is known from the record itself
    header.version = in.u8();
    header.eventType = in.u16();
    header.eventModifier = in.u16();
    if (extended) {
        // Unlike in other tokens, an address of another length takes no bytes here.
        const auto length = in.u32();
        in.take(isAddressLength(length) ? length : 0);
    }
    header.seconds = in.word(wide);
    header.milliseconds = in.word(wide);
    return header;
}

SubjectToken takeSubject(ByteCursor& in, bool wide, bool extended) {
    SubjectToken subject;
    subject.auditId = in.u32();
    subject.effectiveUserId = in.u32();
    subject.effectiveGroupId = in.u32();
    subject.realUserId = in.u32();
    subject.realGroupId = in.u32();
    subject.processId = in.u32();
    subject.sessionId = in.u32();
    subject.port = in.word(wide);
    const auto address = takeAddress(in, extended ? in.u32() : 4);
    if (address.size() >= sizeof subject.address) {
        std::memcpy(&subject.address, address.data(), sizeof subject.address);
    }
    return subject;
}

IdentityToken takeIdentity(ByteCursor& in) {
    IdentityToken identity;
    identity.signerType = in.u32();
    identity.signingId = in.text();
    identity.signingIdTruncated = in.u8();
    identity.teamId = in.text();
    identity.teamIdTruncated = in.u8();
    identity.cdhash = in.counted();
    return identity;
}

// The content length of the kinds with a fixed length; 0 for all others.
constexpr std::size_t fixedLength(TokenId id) {
    switch (id) {
        case TokenId::kIport:
            return 2;
        case TokenId::kInAddr:
        case TokenId::kSeq:
            return 4;
        case TokenId::kIpc:
            return 5;
        case TokenId::kExit:
        case TokenId::kSockInet32:
            return 8;
        case TokenId::kSocket:
            return 14;
        case TokenId::kIp:
        case TokenId::kSockInet128:
            return 20;
        case TokenId::kAttr32:
        case TokenId::kIpcPerm:
            return 28;
        case TokenId::kAttr64:
            return 32;
        case TokenId::kProcess32:
            return 36;
        case TokenId::kProcess64:
            return 40;
        default:
            return 0;
    }
}

void skipData(ByteCursor& in) {
    in.u8();  // how to print it
    const auto unit = in.u8();
    const auto count = in.u8();
    constexpr std::uint8_t kLargestUnit = 3;
    if (unit > kLargestUnit) {
        in.reject();
        return;
    }
    in.take(std::size_t{count} << unit);
}

// A count, and as many zero-terminated strings.
void skipStrings(ByteCursor& in) {
    for (auto count = in.u32(); count > 0 && !in.damaged(); --count) {
        const auto rest = in.rest();
        const auto zero = std::ranges::find(rest, 0);
        in.take(static_cast<std::size_t>(zero - rest.begin()) + 1);
    }
}

void skipSocketEx(ByteCursor& in) {
    in.take(4);
    const auto addressLength = in.u16();
    for (int end = 0; end < 2; ++end) {
        in.u16();  // the port
        takeAddress(in, addressLength);
    }
}

// A zero-terminated path; a path of the full length has the zero byte too.
void skipSockUnix(ByteCursor& in) {
    in.u16();
    const auto rest = in.rest();
    const auto path = rest.first(std::min(rest.size(), kSocketPathLength));
    in.take(static_cast<std::size_t>(std::ranges::find(path, 0) - path.begin()) + 1);
}

// Skips the content of a token that the agent does not use. Returns false for an unknown kind.
bool skipContent(TokenId id, ByteCursor& in) {
    if (const auto length = fixedLength(id)) {
        in.take(length);
        return true;
    }
    switch (id) {
        case TokenId::kPath:
        case TokenId::kOpaque:
        case TokenId::kZoneName:
            in.counted();
            return true;
        case TokenId::kOtherFile32:
            in.take(8);
            in.counted();
            return true;
        case TokenId::kArg32:
            in.take(5);
            in.counted();
            return true;
        case TokenId::kArg64:
            in.take(9);
            in.counted();
            return true;
        case TokenId::kNewGroups:
            in.take(std::size_t{4} * in.u16());
            return true;
        case TokenId::kData:
            skipData(in);
            return true;
        case TokenId::kExecArgs:
        case TokenId::kExecEnv:
        case TokenId::kKerberosPrincipal:
        case TokenId::kCertificateHash:
            skipStrings(in);
            return true;
        case TokenId::kInAddrEx:
            takeAddress(in, in.u32());
            return true;
        case TokenId::kSocketEx:
            skipSocketEx(in);
            return true;
        case TokenId::kSockUnix:
            skipSockUnix(in);
            return true;
        case TokenId::kProcess32Ex:
            takeSubject(in, false, true);
            return true;
        case TokenId::kProcess64Ex:
            takeSubject(in, true, true);
            return true;
        default:
            return false;
    }
}

// Moves the cursor to the last bytes of the record, where its trailer should be. The next token shows whether it is
// there.
void skipToTrailer(ByteCursor& in) {
    if (in.left() < kTrailerLength) {
        in.reject();
        return;
    }
    in.take(in.left() - kTrailerLength);
}

}  // namespace

int TokenReader::au_fetch_tok() {
    ByteCursor in(record_.subspan(position_));
    const auto id = static_cast<TokenId>(in.u8());
    token_.id = id;
    switch (id) {
        case TokenId::kHeader32:
        case TokenId::kHeader32Ex:
            token_.content = takeHeader(in, false, id == TokenId::kHeader32Ex);
            break;
        case TokenId::kHeader64:
        case TokenId::kHeader64Ex:
            token_.content = takeHeader(in, true, id == TokenId::kHeader64Ex);
            break;
        case TokenId::kSubject32:
        case TokenId::kSubject32Ex:
            token_.content = takeSubject(in, false, id == TokenId::kSubject32Ex);
            break;
        case TokenId::kSubject64:
        case TokenId::kSubject64Ex:
            token_.content = takeSubject(in, true, id == TokenId::kSubject64Ex);
            break;
        case TokenId::kReturn32:
            // Braces keep the order in which the fields are taken.
            token_.content = Return32Token{in.u8(), in.u32()};
            break;
        case TokenId::kReturn64:
            token_.content = Return64Token{in.u8(), in.u64()};
            break;
        case TokenId::kText:
            token_.content = TextToken{in.text()};
            break;
        case TokenId::kIdentity:
            token_.content = takeIdentity(in);
            break;
        case TokenId::kTrailer:
            token_.content = TrailerToken{in.u16(), in.u32()};
            break;
        default:
            token_.content = std::monostate();
            if (!skipContent(id, in)) {
                skipToTrailer(in);
            }
    }
    if (in.damaged()) {
        return -1;
    }
    token_.length = in.position();
    position_ += token_.length;
    return 0;
}

}  // namespace sentrova::bsm
