#include "collection/TrailFile.h"

#include "platform/SystemPath.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace sentrova {

Result<std::unique_ptr<TrailFile>> TrailFile::open(FileSystem& files, const std::string& path) {
    auto file = files.openForReading(platform::systemPath(path));
    if (!file) {
        return file.error();
    }
    return std::unique_ptr<TrailFile>(new TrailFile(files, *std::move(file)));  // NOLINT: the constructor is private
}

void TrailFile::seek(std::uint64_t offset, std::size_t largestRead) {
    largestRead_ = largestRead;
    problem_ = ::lseek(file_.get(), static_cast<off_t>(offset), SEEK_SET) < 0 ? errno : 0;
}

std::ptrdiff_t TrailFile::read(std::span<std::uint8_t> into) {
    // A failed seek fails the reads after it.
    while (problem_ == 0) {
        const auto got = files_.readOnce(file_.get(), into.first(std::min(into.size(), largestRead_)));
        if (got >= 0) {
            return got;
        }
        problem_ = errno == EINTR ? 0 : errno;
    }
    return -1;
}

Result<Data> TrailFile::bytes(std::uint64_t offset, std::size_t length) {
    seek(offset);
    Data content(length);
    std::size_t filled = 0;
    while (filled < length) {
        const auto got = read(std::span(content).subspan(filled));
        if (got < 0) {
            return posixError(problem_);
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    content.resize(filled);
    return content;
}

}  // namespace sentrova
