#include "platform/darwin/CoreFoundationText.h"

namespace sentrova::platform {

CoreFoundationHandle<CFStringRef> makeString(std::string_view text) {
    const auto* const bytes = reinterpret_cast<const UInt8*>(text.data());
    return CoreFoundationHandle<CFStringRef>(::CFStringCreateWithBytes(
        nullptr, bytes, static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, /*isExternalRepresentation=*/false));
}

std::optional<std::string> textOf(CFTypeRef object) {
    if (!object || ::CFGetTypeID(object) != ::CFStringGetTypeID()) {
        return std::nullopt;
    }
    const auto string = static_cast<CFStringRef>(object);
    const CFRange all{0, ::CFStringGetLength(string)};
    const auto convert = [&](UInt8* buffer, CFIndex room) {
        CFIndex used = 0;
        const auto converted = ::CFStringGetBytes(string, all, kCFStringEncodingUTF8, /*lossByte=*/0,
                                                  /*isExternalRepresentation=*/false, buffer, room, &used);
        return converted == all.length ? std::optional(used) : std::nullopt;
    };
    const auto size = convert(nullptr, 0);
    if (!size) {
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(*size), '\0');
    return convert(reinterpret_cast<UInt8*>(text.data()), *size) ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace sentrova::platform
