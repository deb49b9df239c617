// Reads big-endian fields one after another from untrusted bytes.
//
// A field that does not fit reads as zero or empty and marks the bytes as damaged permanently. A caller can therefore
// read a whole layout and check damaged() once at the end. Views point into the bytes, which must outlive them.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

namespace sentrova::bsm {

class ByteCursor {
  public:
    explicit ByteCursor(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    std::uint8_t u8() { return number<std::uint8_t>(); }
    std::uint16_t u16() { return number<std::uint16_t>(); }
    std::uint32_t u32() { return number<std::uint32_t>(); }
    std::uint64_t u64() { return number<std::uint64_t>(); }
    // Four or eight bytes.
    std::uint64_t word(bool wide) { return wide ? u64() : u32(); }

    std::span<const std::uint8_t> take(std::size_t count) {
        if (count > left()) {
            reject();
            return {};
        }
        const auto field = bytes_.subspan(position_, count);
        position_ += count;
        return field;
    }

    // Bytes with a 16-bit count before them.
    std::span<const std::uint8_t> counted() { return take(u16()); }

    // Text with a 16-bit count before it; it ends at its first zero byte, or where the count says.
    std::string_view text() {
        const auto field = counted();
        const auto length = static_cast<std::size_t>(std::ranges::find(field, 0) - field.begin());
        return {reinterpret_cast<const char*>(field.data()), length};
    }

    // Marks the bytes as damaged because of their content, not their length.
    void reject() {
        damaged_ = true;
        position_ = bytes_.size();
    }

    bool damaged() const { return damaged_; }
    std::size_t position() const { return position_; }
    std::size_t left() const { return bytes_.size() - position_; }
    std::span<const std::uint8_t> rest() const { return bytes_.subspan(position_); }

  private:
    template <class T>
    T number() {
        const auto field = take(sizeof(T));
        return field.empty() ? T{0} : bigEndian<T>(field.data(), std::make_index_sequence<sizeof(T)>());
    }

    // Composed byte by byte; compilers turn this into one load.
    template <class T, std::size_t... I>
    static T bigEndian(const std::uint8_t* bytes, std::index_sequence<I...> /*places*/) {
        return static_cast<T>(((static_cast<std::uint64_t>(bytes[I]) << (8 * (sizeof(T) - 1 - I))) | ...));
    }

    std::span<const std::uint8_t> bytes_;
    std::size_t position_ = 0;
    bool damaged_ = false;
};

}  // namespace sentrova::bsm
