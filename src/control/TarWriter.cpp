#include "control/TarWriter.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <system_error>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::size_t kBlock = 512;
constexpr std::size_t kLongestName = 100;
constexpr std::uint64_t kGreatestOctalSize = 077777777777;

// A field's place in the header.
struct Field {
    std::size_t offset;
    std::size_t size;
};
constexpr Field kName{0, kLongestName};
constexpr Field kMode{100, 8};
constexpr Field kUser{108, 8};
constexpr Field kGroup{116, 8};
constexpr Field kSize{124, 12};
constexpr Field kTime{136, 12};
constexpr Field kChecksum{148, 8};
constexpr Field kType{156, 1};
constexpr Field kMagic{257, 8};
constexpr Field kUserName{265, 32};
constexpr Field kGroupName{297, 32};

void put(std::string& header, const Field& field, std::string_view text) {
    const auto put = text.substr(0, field.size);
    std::ranges::copy(put, header.begin() + static_cast<std::ptrdiff_t>(field.offset));
}

void putNumber(std::string& header, const Field& field, std::uint64_t number) {
    put(header, field, fmt::format("{:0{}o}", number, field.size - 1));
}

std::string headerOf(std::string_view name, char type, std::uint64_t size, std::int64_t modified) {
    std::string header(kBlock, '\0');
    put(header, kName, name);
    putNumber(header, kMode, 0600);
    putNumber(header, kUser, 0);
    putNumber(header, kGroup, 0);
    if (size <= kGreatestOctalSize) {
        putNumber(header, kSize, size);
    } else {
        // Eight gigabytes and more stand as a binary number behind a byte with the highest bit.
        std::string binary(kSize.size, '\0');
        binary.front() = '\x80';
        for (auto at = binary.rbegin(); size > 0; ++at, size >>= 8U) {
            *at = static_cast<char>(size & 0xFFU);
        }
        put(header, kSize, binary);
    }
    putNumber(header, kTime, static_cast<std::uint64_t>(std::max<std::int64_t>(modified, 0)));
    put(header, kType, {&type, 1});
    put(header, kMagic, {"ustar\00000", 8});
    put(header, kUserName, "root");
    put(header, kGroupName, "root");
    // The sum counts its own field as blanks.
    put(header, kChecksum, "        ");
    const auto sum = std::accumulate(header.begin(), header.end(), 0U, [](unsigned total, char byte) {
        return total + static_cast<unsigned char>(byte);
    });
    put(header, kChecksum, fmt::format("{:06o}", sum) + std::string{'\0', ' '});
    return header;
}

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category());
}

}  // namespace

void TarWriter::begin(const std::string& name, std::int64_t modified) {
    if (name.size() > kLongestName) {
        writeLongName(name);
    }
    name_ = name;
    modified_ = modified;
    header_ = length_;
    append(headerOf(name, '0', 0, modified));
}

// A pax header: one record "LENGTH path=NAME\n", in which the length counts its own digits too.
void TarWriter::writeLongName(const std::string& name) {
    const auto rest = fmt::format(" path={}\n", name);
    auto length = rest.size();
    while (fmt::formatted_size("{}", length) + rest.size() != length) {
        length = fmt::formatted_size("{}", length) + rest.size();
    }
    append(headerOf("pax-header", 'x', length, 0));
    append(fmt::format("{}{}", length, rest));
    pad();
}

void TarWriter::write(std::string_view content) {
    append(content);
}

void TarWriter::end() {
    const auto size = length_ - header_ - kBlock;
    pad();
    const auto header = headerOf(name_, '0', size, modified_);
    if (::pwrite(descriptor_, header.data(), header.size(), static_cast<off_t>(header_)) !=
        static_cast<ssize_t>(header.size())) {
        fail();
    }
}

void TarWriter::finish() {
    append(std::string(2 * kBlock, '\0'));
}

void TarWriter::pad() {
    append(std::string((kBlock - length_ % kBlock) % kBlock, '\0'));
}

void TarWriter::append(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto written = ::write(descriptor_, bytes.data(), bytes.size());
        if (written >= 0) {
            length_ += static_cast<std::uint64_t>(written);
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            fail();
        }
    }
}

}  // namespace sentrova::control
