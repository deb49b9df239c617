#include "platform/icu/IcuEncodings.h"

#include "foundation/value/Text.h"

#include <array>
#include <cstdint>

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>

namespace sentrova::platform {

namespace {

struct CloseConverter {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

// Null for an unknown encoding.
Converter openConverter(const std::string& encoding) {
    UErrorCode status = U_ZERO_ERROR;
    // Refuses an empty name, which the library would take for the host's default encoding.
    Converter converter(encoding.empty() ? nullptr : ucnv_open(encoding.c_str(), &status));
    if (!converter || U_FAILURE(status)) {
        return nullptr;
    }
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    return converter;
}

class IcuEncodings final : public Encodings {
  public:
    std::string asciiForm(char32_t character) const override {
        UErrorCode status = U_ZERO_ERROR;
        const auto* normalizer = icu::Normalizer2::getNFKDInstance(status);
        if (U_FAILURE(status)) {
            return "?";
        }
        const auto parts = normalizer->normalize(icu::UnicodeString(static_cast<UChar32>(character)), status);
        std::string form;
        for (std::int32_t i = 0; i < parts.length(); i = parts.moveIndex32(i, 1)) {
            const auto part = parts.char32At(i);
            if ((U_GET_GC_MASK(part) & (U_GC_MN_MASK | U_GC_ME_MASK)) != 0) {
                continue;
            }
            if (part >= 0x80 || part == '"' || part == '\\') {
                return "?";
            }
            form += static_cast<char>(part);
        }
        return form;
    }

    std::optional<std::size_t> shortestCharacter(const std::string& encoding) const override {
        const auto converter = openConverter(encoding);
        return converter ? std::optional(static_cast<std::size_t>(ucnv_getMinCharSize(converter.get()))) : std::nullopt;
    }

    std::optional<Decoded> decode(std::string_view bytes, const std::string& encoding) const override {
        const auto converter = openConverter(encoding);
        if (!converter) {
            return std::nullopt;
        }
        std::u16string characters;
        std::array<char16_t, 4096> chunk{};
        const char* source = bytes.data();
        const char* const end = source + bytes.size();
        UErrorCode status = U_BUFFER_OVERFLOW_ERROR;
        while (status == U_BUFFER_OVERFLOW_ERROR) {
            status = U_ZERO_ERROR;
            auto* target = chunk.data();
            ucnv_toUnicode(converter.get(), &target, chunk.data() + chunk.size(), &source, end, nullptr, true, &status);
            characters.append(chunk.data(), target);
        }
        return Decoded{utf8(characters).value_or(""), !static_cast<bool>(U_FAILURE(status))};
    }
};

}  // namespace

std::unique_ptr<Encodings> makeIcuEncodings() {
    return std::make_unique<IcuEncodings>();
}

}  // namespace sentrova::platform
