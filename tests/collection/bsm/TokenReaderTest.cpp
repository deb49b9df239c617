#include "BuildPaths.h"
#include "collection/bsm/RecordReader.h"
#include "collection/bsm/TokenReader.h"
#include "support/MemorySource.h"
#include "support/TrailWriter.h"

#include <arpa/inet.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <random>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
using bsm::Token;
using bsm::TokenReader;

// The token at the index; nothing when the record is damaged before its end or has fewer.
template <class T>
std::optional<T> contentAt(const Data& record, std::size_t index) {
    TokenReader reader(record);
    std::optional<T> content;
    for (std::size_t i = 0; reader.left() > 0; ++i) {
        if (reader.au_fetch_tok() != 0) {
            return std::nullopt;
        }
        if (const auto* found = std::get_if<T>(&reader.token().content); found && i == index) {
            content = *found;
        }
    }
    return content;
}

// The content points into the record.
template <class T>
std::optional<T> contentAt(Data&& record, std::size_t index) = delete;

// How many tokens could be read, and whether the record ended after them.
std::pair<std::size_t, bool> walk(const Data& record) {
    TokenReader reader(record);
    std::size_t tokens = 0;
    std::size_t length = 0;
    while (reader.au_fetch_tok() == 0) {
        ++tokens;
        length += reader.token().length;
        EXPECT_EQ(length + reader.left(), record.size());
    }
    return {tokens, reader.left() == 0};
}

Data zeros(std::size_t count) {
    return Data(count, 0);
}

Data operator+(Data left, const Data& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

}  // namespace

TEST(TokenReaderTest, EveryHeaderLayoutGivesTheSameFields) {
    const std::pair<Layout, const char*> layouts[] = {
        {Layout::k32, "10.1.2.3"}, {Layout::k32Ex, "10.1.2.3"}, {Layout::k32Ex, "2001:db8::1"},
        {Layout::k64, "10.1.2.3"}, {Layout::k64Ex, "10.1.2.3"}, {Layout::k64Ex, "2001:db8::1"},
    };
    for (const auto& [layout, address] : layouts) {
        const bool wide = layout == Layout::k64 || layout == Layout::k64Ex;
        const auto time = wide ? 0x1'0000'0005s : 1383590186s;
        const auto record =
            TrailRecord(45023).at(time, 381ms).header(layout, address).version(0x8B).modifier(0x4001).bytes();
        const auto header = contentAt<bsm::HeaderToken>(record, 0);
        ASSERT_TRUE(header) << address;
        EXPECT_EQ(header->version, 0x8B);
        EXPECT_EQ(header->eventType, 45023);
        EXPECT_EQ(header->eventModifier, 0x4001);
        EXPECT_EQ(header->seconds, static_cast<std::uint64_t>(time.count()));
        EXPECT_EQ(header->milliseconds, 381U);
        const auto trailer = contentAt<bsm::TrailerToken>(record, 1);
        ASSERT_TRUE(trailer) << address;
        EXPECT_EQ(trailer->recordLength, record.size());
    }
}

TEST(TokenReaderTest, EverySubjectLayoutGivesTheSameFields) {
    struct Case {
        Layout layout;
        const char* address;
        const char* firstWord;
    };
    const Case cases[] = {
        {Layout::k32, "10.1.2.3", "10.1.2.3"},   {Layout::k64, "10.1.2.3", "10.1.2.3"},
        {Layout::k32Ex, "10.1.2.3", "10.1.2.3"}, {Layout::k32Ex, "2001:db8::1", "32.1.13.184"},
        {Layout::k64Ex, "10.1.2.3", "10.1.2.3"}, {Layout::k64Ex, "2001:db8::1", "32.1.13.184"},
    };
    for (const auto& [layout, address, firstWord] : cases) {
        const bool wide = layout == Layout::k64 || layout == Layout::k64Ex;
        const std::uint64_t port = wide ? 0x0102030405060708 : 0x03000002;
        const Subject written = {0xFFFFFFFE, 11, 12, 13, 14, 0xDEADBEEF, 100004, port, address};
        const auto record = TrailRecord(6153).subject(written, layout).bytes();
        const auto subject = contentAt<bsm::SubjectToken>(record, 1);
        ASSERT_TRUE(subject) << address;
        EXPECT_EQ(subject->auditId, 0xFFFFFFFE);
        EXPECT_EQ(subject->effectiveUserId, 11U);
        EXPECT_EQ(subject->effectiveGroupId, 12U);
        EXPECT_EQ(subject->realUserId, 13U);
        EXPECT_EQ(subject->realGroupId, 14U);
        EXPECT_EQ(subject->processId, 0xDEADBEEF);
        EXPECT_EQ(subject->sessionId, 100004U);
        EXPECT_EQ(subject->port, port);
        EXPECT_STREQ(::inet_ntoa(in_addr{subject->address}), firstWord);
    }
}

TEST(TokenReaderTest, ReturnsTextAndIdentityAreRead) {
    const auto record = TrailRecord(45026)
                            .returns(0xFFFFFFFF, 255)
                            .returns64(0x8000000000000001, 13)
                            .text("caf\xC3\xA9")
                            .identity({.signingId = "com.apple.sshd", .teamId = "TEAM", .cdhash = {1, 2}})
                            .bytes();
    const auto narrow = contentAt<bsm::Return32Token>(record, 1);
    const auto wide = contentAt<bsm::Return64Token>(record, 2);
    const auto text = contentAt<bsm::TextToken>(record, 3);
    const auto identity = contentAt<bsm::IdentityToken>(record, 4);
    ASSERT_TRUE(narrow && wide && text && identity);
    EXPECT_EQ(narrow->status, 255);
    EXPECT_EQ(narrow->value, 0xFFFFFFFF);
    EXPECT_EQ(wide->status, 13);
    EXPECT_EQ(wide->value, 0x8000000000000001);
    EXPECT_EQ(text->text, "caf\xC3\xA9");
    EXPECT_EQ(identity->signerType, 1U);
    EXPECT_EQ(identity->signingId, "com.apple.sshd");
    EXPECT_EQ(identity->teamId, "TEAM");
    EXPECT_EQ(Data(identity->cdhash.begin(), identity->cdhash.end()), Data({1, 2}));
}

TEST(TokenReaderTest, TextEndsAtItsFirstZeroOrAtItsLength) {
    const std::pair<Data, const char*> cases[] = {
        {{0x28, 0, 3, 'a', 'b', 0}, "ab"},
        {{0x28, 0, 3, 'a', 'b', 'c'}, "abc"},
        {{0x28, 0, 4, 'a', 0, 'b', 0}, "a"},
        {{0x28, 0, 1, 0}, ""},
        {{0x28, 0, 0}, ""},
    };
    for (const auto& [bytes, expected] : cases) {
        const auto text = contentAt<bsm::TextToken>(bytes, 0);
        ASSERT_TRUE(text) << expected;
        EXPECT_EQ(text->text, expected);
    }
}

TEST(TokenReaderTest, KindsThatTheAgentDoesNotLookIntoAreSkippedExactly) {
    const std::map<const char*, Data> tokens = {
        {"file", Data{0x11} + zeros(8) + Data{0, 2, 'f', 0}},
        {"data, bytes", Data{0x21, 0, 0, 3} + zeros(3)},
        {"data, 64 bits", Data{0x21, 0, 3, 2} + zeros(16)},
        {"ipc", Data{0x22} + zeros(5)},
        {"path", Data{0x23, 0, 2, '/', 0}},
        {"process32", Data{0x26} + zeros(36)},
        {"opaque", Data{0x29, 0, 3, 1, 2, 3}},
        {"in_addr", Data{0x2A} + zeros(4)},
        {"ip", Data{0x2B} + zeros(20)},
        {"iport", Data{0x2C} + zeros(2)},
        {"arg32", Data{0x2D, 1} + zeros(4) + Data{0, 2, 'n', 0}},
        {"socket", Data{0x2E} + zeros(14)},
        {"seq", Data{0x2F} + zeros(4)},
        {"ipc_perm", Data{0x32} + zeros(28)},
        {"groups", Data{0x3B, 0, 2} + zeros(8)},
        {"exec_args", Data{0x3C, 0, 0, 0, 2, 'l', 's', 0, 0}},
        {"exec_env", Data{0x3D, 0, 0, 0, 1, 'A', '=', 0}},
        {"attr32", Data{0x3E} + zeros(28)},
        {"exit", Data{0x52} + zeros(8)},
        {"zonename", Data{0x60, 0, 2, 'z', 0}},
        {"arg64", Data{0x71, 1} + zeros(8) + Data{0, 2, 'n', 0}},
        {"attr64", Data{0x73} + zeros(32)},
        {"process64", Data{0x77} + zeros(40)},
        {"process32_ex", Data{0x7B} + zeros(32) + Data{0, 0, 0, 4} + zeros(4)},
        {"process64_ex", Data{0x7D} + zeros(36) + Data{0, 0, 0, 16} + zeros(16)},
        {"in_addr_ex", Data{0x7E, 0, 0, 0, 16} + zeros(16)},
        {"socket_ex", Data{0x7F, 0, 2, 0, 1, 0, 4} + zeros(12)},
        {"socket_ex, long", Data{0x7F, 0, 26, 0, 1, 0, 16} + zeros(36)},
        {"sockinet32", Data{0x80} + zeros(8)},
        {"sockinet128", Data{0x81} + zeros(20)},
        {"sockunix", Data{0x82, 0, 1, '/', 's', 0}},
        {"sockunix, longest", Data{0x82, 0, 1} + Data(104, 'p') + Data{0}},
        {"krb5_principal", Data{0xEE, 0, 0, 0, 1, 'p', 0}},
        {"cert_hash", Data{0xEF, 0, 0, 0, 0}},
    };
    for (const auto& [name, token] : tokens) {
        const auto record = TrailRecord(1).raw(token).text("after").bytes();
        const auto after = contentAt<bsm::TextToken>(record, 2);
        ASSERT_TRUE(after) << name;
        EXPECT_EQ(after->text, "after") << name;
        // A buffer of its own, so that a read beyond the token is noticed.
        EXPECT_EQ(walk(Data(token.begin(), token.end() - 1)), std::pair(std::size_t{0}, false)) << name;
    }
}

TEST(TokenReaderTest, UnknownKindIsSkippedToTheTrailer) {
    const auto record = TrailRecord(6152).returns(7).raw(Data{0xB0, 1, 2, 3}).text("lost").bytes();
    EXPECT_TRUE(contentAt<bsm::Return32Token>(record, 1));
    EXPECT_TRUE(contentAt<bsm::TrailerToken>(record, 3));

    auto withoutTrailer = record;
    withoutTrailer[record.size() - 1] ^= 1;
    EXPECT_EQ(walk(withoutTrailer), std::pair(std::size_t{2}, false));
    EXPECT_EQ(walk({0xB0}), std::pair(std::size_t{0}, false));
}

TEST(TokenReaderTest, ContentThatDoesNotFitIsDamage) {
    const Data damaged[] = {
        Data{0x24} + zeros(35),                                 // a subject that is cut off
        Data{0x7A} + zeros(32) + Data{0, 0, 0, 5} + zeros(16),  // an address of 5 bytes
        Data{0x15, 0, 0, 0, 9} + zeros(5) + Data{0xFF, 0, 0, 0x10} + zeros(24),
        Data{0x28, 0xFF, 0xFF, 'a', 0},                            // a text longer than the record
        Data{0x3C, 0xFF, 0xFF, 0xFF, 0xFF, 'a', 0},                // more arguments than bytes
        Data{0x3C, 0, 0, 0, 1, 'a'},                               // an argument without an end
        Data{0x82, 0, 1} + Data(104, 'p'),                         // a socket path without an end
        Data{0xED, 0, 0, 0, 1, 0, 2, 's', 0, 0, 0, 1, 0, 0, 0, 9}  // a hash that is not there
    };
    for (const auto& record : damaged) {
        EXPECT_EQ(walk(record), std::pair(std::size_t{0}, false)) << "token " << int{record.front()};
    }
}

TEST(TokenReaderTest, TrailWithARandomByteChangedIsReadToAnEnd) {
    const auto bytes =
        TrailWriter()
            .addFile(1s, "/var/audit/x")
            .add(TrailRecord(45023).at(2s).subject({}).text("'anna'").returns(0))
            .add(TrailRecord(6152).header(Layout::k64Ex, "::1").subject({}, Layout::k64Ex).arg32(1, "a", 2))
            .add(TrailRecord(6153).header(Layout::k32Ex).execArgs({"ls", "-l"}).groups({1, 2, 3}))
            .add(TrailRecord(1).sockUnix("/tmp/s").identity({.signingId = "s"}).returns64(1))
            .bytes();
    std::size_t records = 0;
    std::size_t damaged = 0;
    for (unsigned seed = 0; seed < 5000; ++seed) {
        std::mt19937 random(seed);
        auto changed = bytes;
        changed[random() % changed.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
        MemorySource source(changed);
        bsm::RecordReader reader(source);
        while (reader.au_read_rec() > 0) {
            ++records;
            damaged += walk(Data(reader.record().begin(), reader.record().end())).second ? 0U : 1U;
        }
        EXPECT_EQ(reader.position() + reader.leftUnread(), changed.size());
    }
    EXPECT_GT(records, 4 * 5000U);
    EXPECT_GT(damaged, 0U);
}

TEST(TokenReaderTest, TrailOfAMacIsReadWhole) {
    const std::filesystem::path file = build::kRealTrail;
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        GTEST_SKIP() << file << " is not there";
    }
    MemorySource source(Data(std::istreambuf_iterator<char>(in), {}));
    bsm::RecordReader reader(source);
    std::map<std::uint16_t, int> events;
    std::vector<std::string> authentications;
    int records = 0;
    for (; reader.au_read_rec() > 0; ++records) {
        TokenReader tokens(reader.record());
        std::uint16_t event = 0;
        while (tokens.left() > 0) {
            ASSERT_EQ(tokens.au_fetch_tok(), 0) << "record " << records;
            const auto& content = tokens.token().content;
            if (const auto* header = std::get_if<bsm::HeaderToken>(&content)) {
                event = header->eventType;
                ++events[event];
            } else if (const auto* text = std::get_if<bsm::TextToken>(&content); text && event == 45023) {
                authentications.emplace_back(text->text);
            }
        }
        EXPECT_TRUE(tokens.token().id == bsm::TokenId::kTrailer || event == 0);
    }
    EXPECT_EQ(records, 54);
    EXPECT_EQ(reader.end(), bsm::RecordReader::End::kEndOfData);
    EXPECT_EQ(events[45023], 3);
    EXPECT_EQ(events[45021], 1);
    EXPECT_EQ(events[6153], 1);
    const std::string text = "Verify password for record type Users 'moxilo' node '/Local/Default'";
    EXPECT_EQ(authentications, std::vector<std::string>(3, text));
}

}  // namespace sentrova::testing
