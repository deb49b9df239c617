// The URL of a file ("file:///private/var/event_1"), as notifications carry it and messages show it.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

class FileUrl {
  public:
    explicit FileUrl(std::string path) : path_(std::move(path)) {}

    // Nothing when the text is not the URL of a file on this machine.
    static std::optional<FileUrl> parse(std::string_view text);

    const std::string& path() const { return path_; }
    std::string lastPathComponent() const;
    // The path with everything but unreserved characters and "/" percent-encoded, behind "file://".
    std::string absoluteString() const;

    friend bool operator==(const FileUrl&, const FileUrl&) = default;

  private:
    std::string path_;
};

}  // namespace sentrova
