#include "core/LogFiles.h"

#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "platform/OperatingSystem.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <numeric>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("Logger");
constexpr std::int64_t kMaximumFileSize = 10'485'760;
constexpr std::chrono::seconds kArchivedAfter{604'800};

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
}

// Messages contain names and texts from outside. Prevents such a text from imitating a log line: escapes control
// characters, keeps line breaks (descriptions have them), and indents a "[" after a line break, since lines start with
// it.
std::string harmless(std::string_view message) {
    std::string text;
    char before = 0;
    for (const char c : message) {
        if (before == '\n' && c == '[') {
            text += "    ";
        }
        if (isControl(c) && c != '\n' && c != '\t') {
            text += fmt::format("\\x{:02x}", c);
        } else {
            text += c;
        }
        before = c;
    }
    return text;
}

std::string withoutExtension(const std::string& name) {
    return name.substr(0, name.rfind('.'));
}

}  // namespace

// The constructor must not log: each log line needs these files, and their table is just being read. If the table
// cannot be read, the log starts with the files of the day and keeps the reason in problem(). Logger::load logs the
// reason as soon as the log works.
LogFiles::LogFiles(FileSystem& files, Clock& clock, DateFormat& dates)
    : files_(files),
      clock_(clock),
      dates_(dates),
      table_(files, clock, dates),
      housekeeping_("log housekeeping", clock) {}

void LogFiles::write(std::string_view category, std::string_view className, std::int32_t level,
                     std::string_view message) {
    const auto now = clock_.wallTime();
    const auto path = table_.fileFor(category, dates_.format("yyyy-MM-dd", now));
    if (path.empty()) {
        return;
    }
    auto line = std::ranges::any_of(message, isControl) ? lineOf(now, className, level, harmless(message))
                                                        : lineOf(now, className, level, message);
    auto unwritten = unwritten_.take(category, path);
    std::string text;
    Result<bool> isWhole = true;
    if (!unwritten.isAfterWholeLine) {
        isWhole = files_.endsWithLineFeed(path);
        text = isWhole && !*isWhole ? "\r\n" : "";
    }
    if (unwritten.count > 0) {
        text += lineOf(now, "Logger", LogLevel::Error,
                       fmt::format("{} lines could not be written earlier; {} of them follow. Reason: {}",
                                   unwritten.count, unwritten.errors.size(), unwritten.reason));
        text = std::accumulate(unwritten.errors.begin(), unwritten.errors.end(), std::move(text));
    }
    auto written = isWhole ? files_.append(path, text + line) : isWhole.error();
    if (!written) {
        written = appendElsewhere(written.error(), category, path, text + line);
    }
    if (written) {
        if (!unwritten.isAfterWholeLine) {
            unwritten_.noteWritten(category, path);
        }
        return;
    }
    ++unwritten.count;
    unwritten.reason = written.error().description;
    if (level == LogLevel::Error) {
        unwritten.errors.push_back(std::move(line));
    }
    if (unwritten_.add(category, std::move(unwritten))) {
        fmt::print(stderr,
                   "The log cannot be written: {}. The first lines of level ERROR are kept and written later.\n",
                   written.error().description);
    }
}

std::string LogFiles::lineOf(Date now, std::string_view className, std::int32_t level, std::string_view message) {
    return fmt::format("[{}][{}][{}:{}][{}]{}\r\n", dates_.format("yyyy-MM-dd HH:mm:ss Z", now), className, ::getpid(),
                       platform::currentThreadId(), Logger::formatTypeToString(level), message);
}

// Tries again after a failed append: creates missing folders, or continues the log beside a symbolic link. Returns the
// original error if the failure has another cause.
Result<Done> LogFiles::appendElsewhere(const Error& why, std::string_view category, const std::string& path,
                                       std::string_view text) {
    if (why.code == ENOENT && makeFolders()) {
        return files_.append(path, text);
    }
    return why.code == ELOOP ? appendBesideLink(category, path, text) : why;
}

// Creates the logs folder and its archive, but only if the working directory belongs to an installation: it has a
// configuration folder beside it.
bool LogFiles::makeFolders() {
    if (!files_.checkOwnFolder(std::string(GlobalConstants::CONF_PATH)) ||
        !files_.createFolder(std::string(GlobalConstants::LOG_PATH))) {
        return false;
    }
    static_cast<void>(files_.createFolder(std::string(GlobalConstants::LOG_PATH) + "/archive"));
    return true;
}

// A symbolic link in the place of a current file is neither followed nor removed. The log continues in another file.
Result<Done> LogFiles::appendBesideLink(std::string_view category, const std::string& path, std::string_view text) {
    const auto status = files_.linkStatus(path);
    if (!status || !status->isSymbolicLink) {
        return posixError(ELOOP);
    }
    const auto next = continuationOf(path);
    table_.replace(std::string(category), next);
    auto written = files_.append(next, text);
    kLog.error("The log file {} is a symbolic link and is not followed; the log continues in {}", path, next);
    return written;
}

// The next free name for the log after `path`: the number after "_" counts up.
std::string LogFiles::continuationOf(const std::string& path) {
    const auto underscore = path.find('_');
    std::int64_t number = 1;
    const auto base = path.substr(0, std::min(underscore, path.rfind(LogFileTable::kExtension)));
    if (underscore != std::string::npos) {
        const auto digits = path.substr(underscore + 1);
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
    }
    for (;; ++number) {
        auto candidate = fmt::format("{}_{}{}", base, number, LogFileTable::kExtension);
        if (!files_.linkStatus(candidate)) {
            return candidate;
        }
    }
}

void LogFiles::continueLargeFiles() {
    housekeeping_.async([this] {
        for (const auto& [category, path] : table_.copy()) {
            continueIfLarge(category, path);
        }
    });
}

void LogFiles::continueIfLarge(const std::string& category, const std::string& path) {
    if (FileUtils::sizeOfFile(path) <= kMaximumFileSize) {
        return;
    }
    kLog.debug("Current file {} has reached limit", path);
    const auto candidate = continuationOf(path);
    if (candidate == path) {
        return;
    }
    // Switches to the new file before zipping. A line written to the old file between the zip and the deletion would be
    // lost.
    table_.replace(category, candidate);
    if (!FileUtils::zipFile(path)) {
        goBackTo(category, path, candidate);
        return;
    }
    kLog.info("File {} has been zipped", path);
    kLog.info("New File name {}", candidate);
    FileUtils::deleteFile(path);
}

// Switches back to the old file after a failed zip, and moves the lines written meanwhile to it.
void LogFiles::goBackTo(const std::string& category, const std::string& path, const std::string& continuation) {
    table_.replace(category, path);
    if (const auto lines = files_.readText(continuation)) {
        if (files_.append(path, *lines)) {
            static_cast<void>(files_.remove(continuation));
        }
    }
}

void LogFiles::archiveOldFiles() {
    housekeeping_.async([this] { archiveFilesBefore(clock_.wallTime() - kArchivedAfter); });
}

void LogFiles::archiveFilesBefore(Date cutoff) {
    const auto files = FileUtils::listOfFileURLSInPath(GlobalVariables::getInstance().logsPath());
    if (!files) {
        return;
    }
    for (const auto& file : *files) {
        const auto& path = file.path();
        const auto modified = FileUtils::modificationDate(path);
        if (!path.ends_with(LogFileTable::kExtension) || !modified || *modified >= cutoff) {
            continue;
        }
        const auto name = file.lastPathComponent();
        kLog.info("Trying to zip {}", name);
        if (!FileUtils::zipFile(path)) {
            continue;
        }
        if (FileUtils::moveFileFrom(
                withoutExtension(path) + ".zip",
                fmt::format("{}{}.zip", GlobalConstants::LOG_ARCHIVE_PATH, withoutExtension(name)))) {
            FileUtils::deleteFile(path);
        }
    }
}

}  // namespace sentrova
