#include "collection/bsm/TokenReader.h"
#include "volume/TrailWriter.h"

#include <arpa/inet.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
using bsm::TokenReader;

// Reads the tokens up to the end or to damage. Their contents point into the record.
std::vector<bsm::Token> tokensOf(std::span<const std::uint8_t> record) {
    TokenReader reader(record);
    std::vector<bsm::Token> tokens;
    for (std::size_t read = 0; reader.au_fetch_tok() == 0;) {
        tokens.push_back(reader.token());
        read += reader.token().length;
        EXPECT_EQ(read + reader.left(), record.size());
    }
    return tokens;
}

// Throws if there is no such token.
template <class T>
T contentAt(const Data& record, std::size_t index) {
    return std::get<T>(tokensOf(record).at(index).content);
}

Data zeros(std::size_t count) {
    return Data(count, 0);
}

Data operator+(Data left, const Data& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

}  // namespace

TEST(TokenReaderTest, EveryLayoutGivesTheSameFields) {
    const std::tuple<Layout, const char*, const char*> cases[] = {
        {Layout::k32, "10.1.2.3", "10.1.2.3"},   {Layout::k64, "10.1.2.3", "10.1.2.3"},
        {Layout::k32Ex, "10.1.2.3", "10.1.2.3"}, {Layout::k32Ex, "2001:db8::1", "32.1.13.184"},
        {Layout::k64Ex, "10.1.2.3", "10.1.2.3"}, {Layout::k64Ex, "2001:db8::1", "32.1.13.184"},
    };
    for (const auto& [layout, address, firstWord] : cases) {
        SCOPED_TRACE(fmt::format("{} {}", static_cast<int>(layout), address));
        const bool wide = layout == Layout::k64 || layout == Layout::k64Ex;
        const auto time = wide ? 0x1'0000'0005s : 1383590186s;
        const std::uint64_t port = wide ? 0x0102030405060708 : 0x03000002;
        const auto record = TrailRecord(45023)
                                .at(time, 381ms)
                                .header(layout, address)
                                .version(0x8B)
                                .modifier(0x4001)
                                .subject({0xFFFFFFFE, 11, 12, 13, 14, 0xDEADBEEF, 100004, port, address}, layout)
                                .bytes();
        const auto header = contentAt<bsm::HeaderToken>(record, 0);
        EXPECT_EQ(std::tuple(header.version, header.eventType, header.eventModifier, header.seconds),
                  std::tuple(0x8B, 45023, 0x4001, static_cast<std::uint64_t>(time.count())));
        EXPECT_EQ(header.milliseconds, 381U);
        const auto subject = contentAt<bsm::SubjectToken>(record, 1);
        EXPECT_EQ(std::tuple(subject.auditId, subject.effectiveUserId, subject.effectiveGroupId, subject.realUserId),
                  std::tuple(0xFFFFFFFE, 11U, 12U, 13U));
        EXPECT_EQ(std::tuple(subject.realGroupId, subject.processId, subject.sessionId, subject.port),
                  std::tuple(14U, 0xDEADBEEF, 100004U, port));
        EXPECT_STREQ(::inet_ntoa(in_addr{subject.address}), firstWord);
        EXPECT_EQ(contentAt<bsm::TrailerToken>(record, 2).recordLength, record.size());
    }
    const auto oddAddress = Data{0x15, 0, 0, 0, 26} + zeros(5) + Data{0xFF, 0, 0, 0x10, 0, 0, 0, 9} + zeros(4);
    EXPECT_EQ(contentAt<bsm::HeaderToken>(oddAddress, 0).seconds, 9U) << "an address of another kind has no bytes";
}

TEST(TokenReaderTest, ReturnsTextAndIdentityAreRead) {
    const auto record = TrailRecord(45026)
                            .returns(0xFFFFFFFF, 255)
                            .returns64(0x8000000000000001, 13)
                            .identity("com.apple.sshd", "TEAM", {1, 2})
                            .bytes();
    const auto narrow = contentAt<bsm::Return32Token>(record, 1);
    EXPECT_EQ(std::tuple(narrow.status, narrow.value), std::tuple(255, 0xFFFFFFFF));
    const auto wide = contentAt<bsm::Return64Token>(record, 2);
    EXPECT_EQ(std::tuple(wide.status, wide.value), std::tuple(13, 0x8000000000000001));
    const auto identity = contentAt<bsm::IdentityToken>(record, 3);
    EXPECT_EQ(std::tuple(identity.signerType, identity.signingId, identity.teamId),
              std::tuple(1U, "com.apple.sshd", "TEAM"));
    EXPECT_EQ(Data(identity.cdhash.begin(), identity.cdhash.end()), Data({1, 2}));
    const std::pair<Data, const char*> texts[] = {{{0x28, 0, 4, 0xC3, 0xA9, 'b', 0}, "\u00E9b"},
                                                  {{0x28, 0, 3, 'a', 'b', 'c'}, "abc"},
                                                  {{0x28, 0, 4, 'a', 0, 'b', 0}, "a"},
                                                  {{0x28, 0, 1, 0}, ""},
                                                  {{0x28, 0, 0}, ""}};
    for (const auto& [bytes, expected] : texts) {
        EXPECT_EQ(contentAt<bsm::TextToken>(bytes, 0).text, expected) << "to its first zero, or to its length";
    }
}

TEST(TokenReaderTest, TokensThatTheAgentDoesNotUseAreSkippedExactly) {
    std::vector<Data> tokens = {
        Data{0x11} + zeros(8) + Data{0, 2, 'f', 0},              // file
        Data{0x21, 0, 0, 3} + zeros(3),                          // data, of bytes
        Data{0x21, 0, 3, 2} + zeros(16),                         // data, of 64 bits
        Data{0x23, 0, 2, '/', 0},                                // path
        Data{0x29, 0, 3, 1, 2, 3},                               // opaque
        Data{0x2D, 1} + zeros(4) + Data{0, 2, 'n', 0},           // arg32
        Data{0x3B, 0, 2} + zeros(8),                             // groups
        Data{0x3C, 0, 0, 0, 2, 'l', 's', 0, 0},                  // exec_args
        Data{0x3D, 0, 0, 0, 1, 'A', '=', 0},                     // exec_env
        Data{0x60, 0, 2, 'z', 0},                                // zonename
        Data{0x71, 1} + zeros(8) + Data{0, 2, 'n', 0},           // arg64
        Data{0x7B} + zeros(32) + Data{0, 0, 0, 4} + zeros(4),    // process32_ex
        Data{0x7D} + zeros(36) + Data{0, 0, 0, 16} + zeros(16),  // process64_ex
        Data{0x7E, 0, 0, 0, 16} + zeros(16),                     // in_addr_ex
        Data{0x7F, 0, 2, 0, 1, 0, 4} + zeros(12),                // socket_ex
        Data{0x7F, 0, 26, 0, 1, 0, 16} + zeros(36),              // socket_ex, IPv6
        Data{0x82, 0, 1, '/', 's', 0},                           // sockunix
        Data{0x82, 0, 1} + Data(104, 'p') + Data{0},             // sockunix, the longest
        Data{0xEE, 0, 0, 0, 1, 'p', 0},                          // krb5_principal
        Data{0xEF, 0, 0, 0, 0},                                  // cert_hash
    };
    // The kinds of a fixed length: ipc, process32, in_addr, ip, iport, socket, seq, ipc_perm, attr32, exit, attr64,
    // process64, sockinet32, sockinet128.
    const std::pair<std::uint8_t, std::size_t> fixed[] = {{0x22, 5},  {0x26, 36}, {0x2A, 4},  {0x2B, 20}, {0x2C, 2},
                                                          {0x2E, 14}, {0x2F, 4},  {0x32, 28}, {0x3E, 28}, {0x52, 8},
                                                          {0x73, 32}, {0x77, 40}, {0x80, 8},  {0x81, 20}};
    for (const auto& [id, length] : fixed) {
        tokens.push_back(Data{id} + zeros(length));
    }
    for (const auto& token : tokens) {
        SCOPED_TRACE(fmt::format("token {:#x}", token.front()));
        EXPECT_EQ(contentAt<bsm::TextToken>(TrailRecord(1).raw(token).text("after").bytes(), 2).text.size(), 5U);
        // A separate buffer, so that a sanitizer detects a read beyond the token.
        EXPECT_TRUE(tokensOf(Data(token.begin(), token.end() - 1)).empty());
    }
}

TEST(TokenReaderTest, UnknownKindIsSkippedToTheTrailer) {
    auto record = TrailRecord(6152).returns(7).raw(Data{0xB0, 1, 2, 3}).text("lost").bytes();
    EXPECT_EQ(contentAt<bsm::Return32Token>(record, 1).value, 7U);
    EXPECT_EQ(contentAt<bsm::TrailerToken>(record, 3).recordLength, record.size());
    record.back() ^= 1;
    EXPECT_EQ(tokensOf(record).size(), 4U) << "the trailer's content is not judged";
    record[record.size() - 7] = 0x2D;
    EXPECT_EQ(tokensOf(record).size(), 3U) << "nor is its kind: an argument that is cut off";
    EXPECT_TRUE(tokensOf(Data{0xB0}).empty());
}

TEST(TokenReaderTest, ContentThatDoesNotFitTheRecordIsDamage) {
    const Data damaged[] = {
        Data{0x24} + zeros(35),                                    // a truncated subject
        Data{0x7A} + zeros(32) + Data{0, 0, 0, 5} + zeros(16),     // an address of 5 bytes
        Data{0x7E, 0, 0, 0, 5} + zeros(16),                        // the same in in_addr_ex
        Data{0x21, 0, 4, 1} + zeros(16),                           // data, of an unknown unit
        Data{0x28, 0xFF, 0xFF, 'a', 0},                            // a text longer than the record
        Data{0x3C, 0xFF, 0xFF, 0xFF, 0xFF, 'a', 0},                // more arguments than bytes
        Data{0x3C, 0, 0, 0, 1, 'a'},                               // an argument without an end
        Data{0x82, 0, 1} + Data(104, 'p'),                         // a socket path without an end
        Data{0xED, 0, 0, 0, 1, 0, 2, 's', 0, 0, 0, 1, 0, 0, 0, 9}  // a missing hash
    };
    for (const auto& record : damaged) {
        EXPECT_TRUE(tokensOf(record).empty()) << "token " << int{record.front()};
    }
}

}  // namespace sentrova::testing
