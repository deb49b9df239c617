// The URL of a file ("file:///private/var/event_1"), for notifications and log messages.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

class FileUrl {
  public:
    explicit FileUrl(std::string path) : path_(std::move(path)) {}

    // Absent if the text is not the URL of a file on this machine.
    static std::optional<FileUrl> parse(std::string_view text);

    const std::string& path() const { return path_; }
    std::string lastPathComponent() const;
    // "file://" and the path. Characters other than "/" and the unreserved ones (RFC 3986) are percent-encoded.
    std::string absoluteString() const;

    friend bool operator==(const FileUrl&, const FileUrl&) = default;

  private:
    std::string path_;
};

}  // namespace sentrova
