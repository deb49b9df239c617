// Builds one audit record, token by token, in any layout that a Mac may write:
//
//     TrailRecord(45023).at(1383590186s).subject({.processId = 143}).text("Verify password").returns(0).bytes()
//
// The header's length and the trailer are filled in. The only texts are short ones: lengths beyond 16 bits are cut.

#pragma once

#include "foundation/Value.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::testing {

// The width of a token's numbers, and whether an address with its length follows them.
enum class Layout { k32, k64, k32Ex, k64Ex };

// Addresses are written as people write them, "10.0.0.7" or "2001:db8::7"; the plain layouts hold only the former.
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

struct Identity {
    std::string signingId = {};
    std::string teamId = {};
    Data cdhash = Data(20, 0xCD);
    std::uint32_t signerType = 1;
};

class TrailRecord {
  public:
    explicit TrailRecord(std::uint16_t event) : event_(event) {}

    TrailRecord& at(std::chrono::seconds sinceEpoch, std::chrono::milliseconds fraction = {});
    TrailRecord& header(Layout layout, std::string address = "127.0.0.1");
    TrailRecord& version(std::uint8_t version);
    TrailRecord& modifier(std::uint16_t modifier);

    TrailRecord& subject(const Subject& subject, Layout layout = Layout::k32);
    // A process token: who the record's action was done to.
    TrailRecord& process(const Subject& subject, Layout layout = Layout::k32);
    TrailRecord& text(std::string_view text);
    TrailRecord& returns(std::uint32_t value, std::uint8_t status = 0);
    TrailRecord& returns64(std::uint64_t value, std::uint8_t status = 0);
    TrailRecord& identity(const Identity& identity);
    TrailRecord& path(std::string_view path);
    TrailRecord& arg32(std::uint8_t number, std::string_view name, std::uint32_t value);
    TrailRecord& arg64(std::uint8_t number, std::string_view name, std::uint64_t value);
    TrailRecord& attr32(std::uint32_t mode, std::uint32_t user, std::uint32_t group);
    TrailRecord& execArgs(const std::vector<std::string>& arguments);
    TrailRecord& opaque(std::span<const std::uint8_t> bytes);
    TrailRecord& groups(const std::vector<std::uint32_t>& groups);
    TrailRecord& zoneName(std::string_view name);
    TrailRecord& sockInet32(std::uint16_t port, const std::string& address);
    TrailRecord& sockUnix(std::string_view path);
    // Bytes as they are: other tokens, damaged ones.
    TrailRecord& raw(std::span<const std::uint8_t> bytes);

    std::chrono::seconds time() const { return time_; }
    Data bytes() const;

  private:
    TrailRecord& token(std::uint8_t id);
    TrailRecord& subjectToken(std::uint8_t id, const Subject& subject, Layout layout);
    TrailRecord& countedText(std::string_view text);

    std::uint16_t event_;
    std::uint16_t modifier_ = 0;
    std::uint8_t version_ = 11;
    Layout layout_ = Layout::k32;
    std::string address_ = "127.0.0.1";
    std::chrono::seconds time_{};
    std::chrono::milliseconds fraction_{};
    // The tokens between the header and the trailer.
    Data tokens_;
};

}  // namespace sentrova::testing
