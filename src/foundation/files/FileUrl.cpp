#include "foundation/files/FileUrl.h"

#include <charconv>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr std::string_view kScheme = "file://";

bool standsForItself(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view("-._~/").find(c) != std::string_view::npos;
}

}  // namespace

std::optional<FileUrl> FileUrl::parse(std::string_view text) {
    if (!text.starts_with(kScheme) || !text.substr(kScheme.size()).starts_with('/')) {
        return std::nullopt;
    }
    text.remove_prefix(kScheme.size());
    std::string path;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            path += text[i];
            continue;
        }
        unsigned char byte = 0;
        const auto digits = text.substr(i + 1, 2);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (error != std::errc() || end != digits.data() + 2) {
            return std::nullopt;
        }
        path += static_cast<char>(byte);
        i += 2;
    }
    return FileUrl(std::move(path));
}

std::string FileUrl::lastPathComponent() const {
    return path_.substr(path_.find_last_of('/') + 1);
}

std::string FileUrl::absoluteString() const {
    std::string text(kScheme);
    for (const char c : path_) {
        if (standsForItself(c)) {
            text += c;
        } else {
            fmt::format_to(std::back_inserter(text), "%{:02X}", static_cast<unsigned char>(c));
        }
    }
    return text;
}

}  // namespace sentrova
