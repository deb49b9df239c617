// Writes a tar archive (POSIX.1-2001, "ustar" with pax headers) whose members may be longer than memory.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sentrova::control {

// Every function throws std::system_error if the file cannot be written. Not thread-safe.
class TarWriter {
  public:
    // The descriptor is of an empty regular file, and must outlive the object.
    explicit TarWriter(int descriptor) : descriptor_(descriptor) {}

    // Begins a member, a file for its owner only. `modified` is in seconds since 1970.
    void begin(const std::string& name, std::int64_t modified);
    // Adds content to the member.
    void write(std::string_view content);
    void end();
    // Ends the archive, after the last member.
    void finish();

  private:
    void append(std::string_view bytes);
    void pad();
    void writeLongName(const std::string& name);

    int descriptor_;
    std::uint64_t length_ = 0;
    std::string name_;
    std::int64_t modified_ = 0;
    // Where the member's header stands. It is written again at the end, when the size is known.
    std::uint64_t header_ = 0;
};

}  // namespace sentrova::control
