#include "support/TrailRecord.h"

#include "support/BigEndian.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace sentrova::testing {

namespace {

constexpr std::uint32_t kTrailerLength = 7;

bool isWide(Layout layout) {
    return layout == Layout::k64 || layout == Layout::k64Ex;
}

bool isExtended(Layout layout) {
    return layout == Layout::k32Ex || layout == Layout::k64Ex;
}

// The token's id in the order of the layouts: 32, 64, 32 extended, 64 extended.
std::uint8_t idIn(Layout layout, const std::array<std::uint8_t, 4>& ids) {
    return ids.at(static_cast<std::size_t>(layout));
}

Data addressBytes(const std::string& text) {
    Data bytes(16);
    if (::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        bytes.resize(4);
    } else if (::inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1) {
        throw std::invalid_argument("no address: " + text);
    }
    return bytes;
}

void appendAddress(Data& to, const std::string& text, bool extended) {
    const auto address = addressBytes(text);
    if (extended) {
        append32(to, static_cast<std::uint32_t>(address.size()));
    } else if (address.size() != 4) {
        throw std::invalid_argument("too long for its layout: " + text);
    }
    appendBytes(to, address);
}

void appendWord(Data& to, std::uint64_t value, bool wide) {
    if (wide) {
        append64(to, value);
    } else {
        append32(to, static_cast<std::uint32_t>(value));
    }
}

}  // namespace

TrailRecord& TrailRecord::at(std::chrono::seconds sinceEpoch, std::chrono::milliseconds fraction) {
    time_ = sinceEpoch;
    fraction_ = fraction;
    return *this;
}

TrailRecord& TrailRecord::header(Layout layout, std::string address) {
    layout_ = layout;
    address_ = std::move(address);
    return *this;
}

TrailRecord& TrailRecord::version(std::uint8_t version) {
    version_ = version;
    return *this;
}

TrailRecord& TrailRecord::modifier(std::uint16_t modifier) {
    modifier_ = modifier;
    return *this;
}

TrailRecord& TrailRecord::subject(const Subject& subject, Layout layout) {
    return subjectToken(idIn(layout, {0x24, 0x75, 0x7A, 0x7C}), subject, layout);
}

TrailRecord& TrailRecord::process(const Subject& subject, Layout layout) {
    return subjectToken(idIn(layout, {0x26, 0x77, 0x7B, 0x7D}), subject, layout);
}

TrailRecord& TrailRecord::text(std::string_view text) {
    return token(0x28).countedText(text);
}

TrailRecord& TrailRecord::returns(std::uint32_t value, std::uint8_t status) {
    token(0x27);
    append8(tokens_, status);
    append32(tokens_, value);
    return *this;
}

TrailRecord& TrailRecord::returns64(std::uint64_t value, std::uint8_t status) {
    token(0x72);
    append8(tokens_, status);
    append64(tokens_, value);
    return *this;
}

TrailRecord& TrailRecord::identity(const Identity& identity) {
    token(0xED);
    append32(tokens_, identity.signerType);
    countedText(identity.signingId);
    append8(tokens_, 0);
    countedText(identity.teamId);
    append8(tokens_, 0);
    append16(tokens_, static_cast<std::uint16_t>(identity.cdhash.size()));
    return raw(identity.cdhash);
}

TrailRecord& TrailRecord::path(std::string_view path) {
    return token(0x23).countedText(path);
}

TrailRecord& TrailRecord::arg32(std::uint8_t number, std::string_view name, std::uint32_t value) {
    token(0x2D);
    append8(tokens_, number);
    append32(tokens_, value);
    return countedText(name);
}

TrailRecord& TrailRecord::arg64(std::uint8_t number, std::string_view name, std::uint64_t value) {
    token(0x71);
    append8(tokens_, number);
    append64(tokens_, value);
    return countedText(name);
}

TrailRecord& TrailRecord::attr32(std::uint32_t mode, std::uint32_t user, std::uint32_t group) {
    token(0x3E);
    append32(tokens_, mode);
    append32(tokens_, user);
    append32(tokens_, group);
    append32(tokens_, 0x01000004);  // file system
    append64(tokens_, 8675309);     // file
    append32(tokens_, 0);           // device
    return *this;
}

TrailRecord& TrailRecord::execArgs(const std::vector<std::string>& arguments) {
    token(0x3C);
    append32(tokens_, static_cast<std::uint32_t>(arguments.size()));
    for (const auto& argument : arguments) {
        appendText(tokens_, argument);
        append8(tokens_, 0);
    }
    return *this;
}

TrailRecord& TrailRecord::opaque(std::span<const std::uint8_t> bytes) {
    token(0x29);
    append16(tokens_, static_cast<std::uint16_t>(bytes.size()));
    return raw(bytes);
}

TrailRecord& TrailRecord::groups(const std::vector<std::uint32_t>& groups) {
    token(0x3B);
    append16(tokens_, static_cast<std::uint16_t>(groups.size()));
    for (const auto group : groups) {
        append32(tokens_, group);
    }
    return *this;
}

TrailRecord& TrailRecord::zoneName(std::string_view name) {
    return token(0x60).countedText(name);
}

TrailRecord& TrailRecord::sockInet32(std::uint16_t port, const std::string& address) {
    token(0x80);
    append16(tokens_, 2);  // the family
    append16(tokens_, port);
    appendAddress(tokens_, address, false);
    return *this;
}

TrailRecord& TrailRecord::sockUnix(std::string_view path) {
    token(0x82);
    append16(tokens_, 1);  // the family
    appendText(tokens_, path);
    append8(tokens_, 0);
    return *this;
}

TrailRecord& TrailRecord::raw(std::span<const std::uint8_t> bytes) {
    appendBytes(tokens_, bytes);
    return *this;
}

Data TrailRecord::bytes() const {
    Data rest;
    append8(rest, version_);
    append16(rest, event_);
    append16(rest, modifier_);
    if (isExtended(layout_)) {
        appendAddress(rest, address_, true);
    }
    appendWord(rest, static_cast<std::uint64_t>(time_.count()), isWide(layout_));
    appendWord(rest, static_cast<std::uint64_t>(fraction_.count()), isWide(layout_));
    appendBytes(rest, tokens_);

    const auto length = static_cast<std::uint32_t>(5 + rest.size()) + kTrailerLength;
    Data record;
    record.reserve(length);
    append8(record, idIn(layout_, {0x14, 0x74, 0x15, 0x79}));
    append32(record, length);
    appendBytes(record, rest);
    append8(record, 0x13);
    append16(record, 0xB105);
    append32(record, length);
    return record;
}

TrailRecord& TrailRecord::token(std::uint8_t id) {
    append8(tokens_, id);
    return *this;
}

TrailRecord& TrailRecord::subjectToken(std::uint8_t id, const Subject& subject, Layout layout) {
    token(id);
    for (const auto field : {subject.auditId, subject.effectiveUserId, subject.effectiveGroupId, subject.realUserId,
                             subject.realGroupId, subject.processId, subject.sessionId}) {
        append32(tokens_, field);
    }
    appendWord(tokens_, subject.port, isWide(layout));
    appendAddress(tokens_, subject.address, isExtended(layout));
    return *this;
}

// The text with its count, which includes the zero byte at its end.
TrailRecord& TrailRecord::countedText(std::string_view text) {
    const auto fitting = text.substr(0, 0xFFFE);
    append16(tokens_, static_cast<std::uint16_t>(fitting.size() + 1));
    appendText(tokens_, fitting);
    append8(tokens_, 0);
    return *this;
}

}  // namespace sentrova::testing
