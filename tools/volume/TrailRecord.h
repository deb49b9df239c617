// Builds one audit record, token by token, in any layout that a Mac may write:
//
//     TrailRecord(45023).at(1383590186s).subject({.processId = 143}).text("Verify password").returns(0).bytes()
//
// The header's length and the trailer are filled in. The only texts are short ones: lengths beyond 16 bits are cut.

#pragma once

#include "foundation/value/Value.h"

#include <arpa/inet.h>

#include <array>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::testing {

// The width of a token's numbers, and whether an address with its length follows.
enum class Layout { k32, k64, k32Ex, k64Ex };

// Addresses are texts: "10.0.0.7" or "2001:db8::7". The plain layouts hold only IPv4.
struct Subject {
    std::uint32_t auditId = 0xFFFFFFFF;
    std::uint32_t effectiveUserId = 0;
    std::uint32_t effectiveGroupId = 0;
    std::uint32_t realUserId = 0;
    std::uint32_t realGroupId = 0;
    std::uint32_t processId = 0;
    std::uint32_t sessionId = 100000;
    std::uint64_t port = 0;
    std::string address = "0.0.0.0";
};

// Appends the elements of audit records.
struct TrailBytes {
    // Big-endian.
    template <std::unsigned_integral Number>
    void put(Number number) {
        for (std::size_t left = sizeof number; left-- > 0;) {
            bytes.push_back(static_cast<std::uint8_t>(number >> (8 * left)));
        }
    }
    void put(std::span<const std::uint8_t> raw) { bytes.insert(bytes.end(), raw.begin(), raw.end()); }
    // Zero-terminated.
    void put(std::string_view text) {
        bytes.insert(bytes.end(), text.begin(), text.end());
        bytes.push_back(0);
    }
    // The same, preceded by its length, which includes the zero byte.
    void putCounted(std::string_view text) {
        const auto fitting = text.substr(0, 0xFFFE);
        put(static_cast<std::uint16_t>(fitting.size() + 1));
        put(fitting);
    }
    void putWord(std::uint64_t number, Layout layout) {
        if (layout == Layout::k64 || layout == Layout::k64Ex) {
            put(number);
        } else {
            put(static_cast<std::uint32_t>(number));
        }
    }
    // Throws std::invalid_argument if the text is not an address, or is too long for the layout.
    void putAddress(const std::string& text, Layout layout) {
        Data address(16);
        if (::inet_pton(AF_INET, text.c_str(), address.data()) == 1) {
            address.resize(4);
        } else if (::inet_pton(AF_INET6, text.c_str(), address.data()) != 1) {
            throw std::invalid_argument("no address: " + text);
        }
        if (layout == Layout::k32Ex || layout == Layout::k64Ex) {
            put(static_cast<std::uint32_t>(address.size()));
        } else if (address.size() != 4) {
            throw std::invalid_argument("too long for its layout: " + text);
        }
        put(std::span<const std::uint8_t>(address));
    }

    Data bytes;
};

class TrailRecord {
  public:
    explicit TrailRecord(std::uint16_t event) : event_(event) {}

    TrailRecord& at(std::chrono::seconds sinceEpoch, std::chrono::milliseconds fraction = {}) {
        time_ = sinceEpoch;
        fraction_ = fraction;
        return *this;
    }
    TrailRecord& header(Layout layout, std::string address = "127.0.0.1") {
        layout_ = layout;
        address_ = std::move(address);
        return *this;
    }
    TrailRecord& version(std::uint8_t version) {
        version_ = version;
        return *this;
    }
    TrailRecord& modifier(std::uint16_t modifier) {
        modifier_ = modifier;
        return *this;
    }

    TrailRecord& subject(const Subject& subject, Layout layout = Layout::k32) {
        return subjectToken({0x24, 0x75, 0x7A, 0x7C}, subject, layout);
    }
    // A process token: the process that the action was applied to.
    TrailRecord& process(const Subject& subject, Layout layout = Layout::k32) {
        return subjectToken({0x26, 0x77, 0x7B, 0x7D}, subject, layout);
    }
    TrailRecord& text(std::string_view text) { return token(0x28).counted(text); }
    TrailRecord& returns(std::uint32_t value, std::uint8_t status = 0) { return token(0x27, status, value); }
    TrailRecord& returns64(std::uint64_t value, std::uint8_t status = 0) { return token(0x72, status, value); }
    // The code signature of the process. The numbers between the texts say that neither text is truncated.
    TrailRecord& identity(std::string_view signingId, std::string_view teamId = "",
                          const Data& cdhash = Data(20, 0xCD)) {
        constexpr std::uint32_t kSignerType = 1;
        token(0xED, kSignerType).counted(signingId);
        tokens_.put(std::uint8_t{0});
        counted(teamId);
        tokens_.put(std::uint8_t{0});
        tokens_.put(static_cast<std::uint16_t>(cdhash.size()));
        return raw(cdhash);
    }
    TrailRecord& path(std::string_view path) { return token(0x23).counted(path); }
    TrailRecord& arg32(std::uint8_t number, std::string_view name, std::uint32_t value) {
        return token(0x2D, number, value).counted(name);
    }
    TrailRecord& arg64(std::uint8_t number, std::string_view name, std::uint64_t value) {
        return token(0x71, number, value).counted(name);
    }
    TrailRecord& attr32(std::uint32_t mode, std::uint32_t user, std::uint32_t group) {
        constexpr std::uint32_t kFileSystem = 0x01000004;
        constexpr std::uint32_t kDevice = 0;
        constexpr std::uint64_t kFile = 8675309;
        return token(0x3E, mode, user, group, kFileSystem, kFile, kDevice);
    }
    TrailRecord& execArgs(const std::vector<std::string>& arguments) {
        token(0x3C, static_cast<std::uint32_t>(arguments.size()));
        for (const auto& argument : arguments) {
            tokens_.put(std::string_view(argument));
        }
        return *this;
    }
    TrailRecord& opaque(std::span<const std::uint8_t> bytes) {
        return token(0x29, static_cast<std::uint16_t>(bytes.size()), bytes);
    }
    TrailRecord& groups(const std::vector<std::uint32_t>& groups) {
        token(0x3B, static_cast<std::uint16_t>(groups.size()));
        for (const auto group : groups) {
            tokens_.put(group);
        }
        return *this;
    }
    TrailRecord& zoneName(std::string_view name) { return token(0x60).counted(name); }
    TrailRecord& sockInet32(std::uint16_t port, const std::string& address) {
        token(0x80, std::uint16_t{2}, port);
        tokens_.putAddress(address, Layout::k32);
        return *this;
    }
    TrailRecord& sockUnix(std::string_view path) { return token(0x82, std::uint16_t{1}, path); }
    // Raw bytes: other tokens, or damaged ones.
    TrailRecord& raw(std::span<const std::uint8_t> bytes) {
        tokens_.put(bytes);
        return *this;
    }

    std::chrono::seconds time() const { return time_; }

    Data bytes() const {
        TrailBytes rest;
        rest.put(version_);
        rest.put(event_);
        rest.put(modifier_);
        if (layout_ == Layout::k32Ex || layout_ == Layout::k64Ex) {
            rest.putAddress(address_, layout_);
        }
        rest.putWord(static_cast<std::uint64_t>(time_.count()), layout_);
        rest.putWord(static_cast<std::uint64_t>(fraction_.count()), layout_);
        rest.put(std::span<const std::uint8_t>(tokens_.bytes));

        constexpr Ids kIds = {0x14, 0x74, 0x15, 0x79};
        constexpr std::size_t kStartAndTrailer = 5 + 7;
        const auto length = static_cast<std::uint32_t>(rest.bytes.size() + kStartAndTrailer);
        TrailBytes record;
        record.put(kIds.at(static_cast<std::size_t>(layout_)));
        record.put(length);
        record.put(std::span<const std::uint8_t>(rest.bytes));
        record.put(std::uint8_t{0x13});
        record.put(std::uint16_t{0xB105});
        record.put(length);
        return std::move(record.bytes);
    }

  private:
    template <class... Parts>
    TrailRecord& token(std::uint8_t id, Parts... parts) {
        tokens_.put(id);
        (tokens_.put(parts), ...);
        return *this;
    }
    TrailRecord& counted(std::string_view text) {
        tokens_.putCounted(text);
        return *this;
    }
    // The ids of one kind of token, in the order of the layouts.
    using Ids = std::array<std::uint8_t, 4>;
    TrailRecord& subjectToken(const Ids& ids, const Subject& subject, Layout layout) {
        token(ids.at(static_cast<std::size_t>(layout)), subject.auditId, subject.effectiveUserId,
              subject.effectiveGroupId, subject.realUserId, subject.realGroupId, subject.processId, subject.sessionId);
        tokens_.putWord(subject.port, layout);
        tokens_.putAddress(subject.address, layout);
        return *this;
    }

    std::uint16_t event_;
    std::uint16_t modifier_ = 0;
    std::uint8_t version_ = 11;
    Layout layout_ = Layout::k32;
    std::string address_ = "127.0.0.1";
    std::chrono::seconds time_{};
    std::chrono::milliseconds fraction_{};
    // The tokens between the header and the trailer.
    TrailBytes tokens_;
};

}  // namespace sentrova::testing
