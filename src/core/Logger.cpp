#include "core/Logger.h"

#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "foundation/Clock.h"
#include "foundation/DateFormat.h"
#include "foundation/DispatchQueue.h"
#include "foundation/FileSystem.h"
#include "foundation/Mutex.h"
#include "foundation/NotificationCenter.h"
#include "foundation/ProcessWide.h"
#include "foundation/PropertyList.h"
#include "platform/OperatingSystem.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <map>
#include <numeric>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("Logger");
constexpr std::array kCategories = {LogCategory::Config, LogCategory::Event, LogCategory::Communication};
constexpr std::int64_t kMaximumFileSize = 10'485'760;
constexpr std::chrono::seconds kArchivedAfter{604'800};
constexpr std::string_view kExtension = ".log";

std::string inConfFolder(std::string_view file) {
    return fmt::format("{}/{}", GlobalConstants::CONF_PATH, file);
}

std::string fileNameFor(std::string_view category, std::string_view date) {
    return fmt::format("{}/{}{}{}", GlobalConstants::LOG_PATH, category, date, kExtension);
}

// The current file of each category, shared by all loggers.
class FileTable {
  public:
    using Table = std::map<std::string, std::string, std::less<>>;

    FileTable() { load(); }

    // Why the stored table was not read; empty when it was, or there is none.
    const std::string& problem() const { return problem_; }

    // The category's file for the day; empty for a category that has none. A new day, or a category that is not in the
    // table, starts the files of the day for all categories.
    std::string fileFor(std::string_view category, const std::string& date) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (const auto found = table_.find(category);
            found != table_.end() && found->second.find(date) != std::string::npos) {
            return found->second;
        }
        table_ = today(date);
        const auto found = table_.find(category);
        auto path = found == table_.end() ? std::string() : found->second;
        const auto copy = table_;
        // Without the lock: a failure to save is itself logged, into the table as it is now.
        lock.unlock();
        save(copy);
        return path;
    }

    Table copy() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return table_;
    }

    void replace(const std::string& category, const std::string& path) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        table_[category] = path;
        const auto copy = table_;
        lock.unlock();
        save(copy);
    }

  private:
    static Table today(const std::string& date) {
        Table table;
        for (const auto category : kCategories) {
            table.emplace(category, fileNameFor(category, date));
        }
        return table;
    }

    // Logs nothing: every line of the log needs the table.
    void load() {
        const auto path = inConfFolder(GlobalConstants::LOG_FILE_TABLE);
        const auto bytes = FileSystem::shared().read(path);
        const auto stored = bytes ? PropertyList::parse(*bytes) : Result<Value>(bytes.error());
        const auto* const dictionary = stored ? stored->dictionary() : nullptr;
        if (!stored && stored.error().code != ENOENT) {
            problem_ = fmt::format("Property list {} is not read: {}", path, stored.error().description);
        }
        Table table;
        for (const auto category : kCategories) {
            const auto* name = dictionary ? (*dictionary)[category].string() : nullptr;
            if (name && isLogFile(*name)) {
                table.emplace(category, *name);
            }
        }
        MutexLock lock(mutex_);
        table_ = table.empty() ? today(DateFormat::format("yyyy-MM-dd", Clock::shared().wallTime())) : table;
    }

    // The table comes from a file: a name in it must not lead out of the logs folder.
    static bool isLogFile(std::string_view path) {
        const auto folder = fmt::format("{}/", GlobalConstants::LOG_PATH);
        return path.starts_with(folder) && path.find('/', folder.size()) == std::string_view::npos &&
               path.ends_with(kExtension);
    }

    static void save(const Table& table) {
        Dictionary dictionary;
        for (const auto& [category, path] : table) {
            dictionary.set(category, path);
        }
        PropertyListHandler handler;
        handler.updateDictionary(dictionary);
        handler.WriteToProplist(inConfFolder(GlobalConstants::LOG_FILE_TABLE));
    }

    std::string problem_;
    Mutex mutex_{LockRank::log};
    Table table_ GUARDED_BY(mutex_);
};

// Lines that could not be written, category by category, until one can be. Of those of level 0 the text is kept, for
// the first hundred; of the others their number. Also knows which file each category has been written to last.
class UnwrittenLines {
  public:
    struct Lines {
        std::size_t count = 0;
        std::vector<std::string> errors;
        // Why the last of them was not written.
        std::string reason;
        // This process's last line of the category went into the file, and so the file ends with a whole line.
        bool isAfterWholeLine = false;
    };

    Lines take(std::string_view category, const std::string& path) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto found = lines_.find(category);
        auto lines = found == lines_.end() ? Lines() : std::move(lines_.extract(found).mapped());
        const auto file = lastFile_.find(category);
        lines.isAfterWholeLine = file != lastFile_.end() && file->second == path;
        return lines;
    }

    void noteWritten(std::string_view category, const std::string& path) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        lastFile_[std::string(category)] = path;
        if (told_ == category) {
            told_.clear();
        }
    }

    // True when the outage has not been told outside the log, which the caller does now.
    bool add(std::string_view category, Lines lines) EXCLUDES(mutex_) {
        constexpr std::size_t kMostKept = 100;
        MutexLock lock(mutex_);
        auto& kept = lines_[std::string(category)];
        kept.count += lines.count;
        std::ranges::move(lines.errors, std::back_inserter(kept.errors));
        kept.errors.resize(std::min(kept.errors.size(), kMostKept));
        kept.reason = std::move(lines.reason);
        lastFile_.erase(std::string(category));
        const bool isNew = told_.empty();
        if (isNew) {
            told_ = category;
        }
        return isNew;
    }

  private:
    Mutex mutex_;
    std::map<std::string, Lines, std::less<>> lines_ GUARDED_BY(mutex_);
    std::map<std::string, std::string, std::less<>> lastFile_ GUARDED_BY(mutex_);
    // The category whose outage was told on standard error, until it is written again; empty while there is none.
    std::string told_ GUARDED_BY(mutex_);
};

ProcessWide<FileTable> theFileTable;
ProcessWide<UnwrittenLines> theUnwrittenLines;

// The name under which a file that has grown too large goes on.
std::string continuationOf(const std::string& path) {
    const auto underscore = path.find('_');
    std::int64_t number = 1;
    std::string base = path.substr(0, std::min(underscore, path.rfind(kExtension)));
    if (underscore != std::string::npos) {
        const auto digits = path.substr(underscore + 1);
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
    }
    for (;; ++number) {
        auto candidate = fmt::format("{}_{}{}", base, number, kExtension);
        if (!FileSystem::shared().linkStatus(candidate)) {
            return candidate;
        }
    }
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
}

// The message with nothing in it that could pass for a line of its own, since names and texts from outside are part of
// messages. Line breaks stay, as descriptions have them, but what follows one does not begin as a line does.
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

// Makes the logs folder and its archive where the working directory is that of an installation.
bool makeFolders() {
    auto& fileSystem = FileSystem::shared();
    if (!fileSystem.checkOwnFolder(std::string(GlobalConstants::CONF_PATH)) ||
        !fileSystem.createFolder(std::string(GlobalConstants::LOG_PATH))) {
        return false;
    }
    static_cast<void>(fileSystem.createFolder(std::string(GlobalConstants::LOG_PATH) + "/archive"));
    return true;
}

// Leaves a symbolic link in the place of a current file behind, neither followed nor removed: the log goes on beside
// it.
Result<Done> appendBesideLink(std::string_view category, const std::string& path, std::string_view text) {
    const auto status = FileSystem::shared().linkStatus(path);
    if (!status || !status->isSymbolicLink) {
        return posixError(ELOOP);
    }
    const auto next = continuationOf(path);
    theFileTable.get().replace(std::string(category), next);
    auto written = FileSystem::shared().append(next, text);
    kLog.error(__func__, "The log file {} is a symbolic link and is not followed; the log goes on in {}", path, next);
    return written;
}

}  // namespace

// The shared logger writes errors only until it is complete: what it reads for that may itself have something to log.
struct SharedLogger {
    Logger logger{LogLevel::Error};
    std::atomic<bool> loading = false;
    DispatchQueue housekeeping{"log housekeeping"};

    // Waits for the zip under way.
    void quiesce() { housekeeping.close(); }
};

namespace {

ProcessWide<SharedLogger> theSharedLogger;

// Undoes the switch to the continuation. The lines that it has got meanwhile move to the file that goes on.
void goBackTo(const std::string& category, const std::string& path, const std::string& continuation) {
    theFileTable.get().replace(category, path);
    if (const auto lines = FileSystem::shared().readText(continuation)) {
        if (FileSystem::shared().append(path, *lines)) {
            static_cast<void>(FileSystem::shared().remove(continuation));
        }
    }
}

void continueLargeFiles() {
    for (const auto& [category, path] : theFileTable.get().copy()) {
        if (FileUtils::sizeOfFile(path) <= kMaximumFileSize) {
            continue;
        }
        kLog.debug("validateLogSize", "Current file {} has reached limit", path);
        const auto candidate = continuationOf(path);
        if (candidate == path) {
            continue;
        }
        // The log switches before the zip, because the agent is at work: a line that came between the zip and the
        // deletion would be lost.
        theFileTable.get().replace(category, candidate);
        if (!FileUtils::zipFile(path)) {
            goBackTo(category, path, candidate);
            continue;
        }
        kLog.info("validateLogSize", "File {} has been zipped", path);
        kLog.info("validateLogSize", "New File name {}", candidate);
        FileUtils::deleteFile(path);
    }
}

void archiveOldFiles() {
    const auto cutoff = Clock::shared().wallTime() - kArchivedAfter;
    const auto files = FileUtils::listOfFileURLSInPath(GlobalVariables::getInstance().logsPath());
    if (!files) {
        return;
    }
    for (const auto& file : *files) {
        const auto& path = file.path();
        const auto modified = FileUtils::modificationDate(path);
        if (!path.ends_with(kExtension) || !modified || *modified >= cutoff) {
            continue;
        }
        const auto name = file.lastPathComponent();
        kLog.info("rotateLog", "Trying to zip {}", name);
        if (!FileUtils::zipFile(path)) {
            continue;
        }
        const auto withoutExtension = [](const std::string& text) { return text.substr(0, text.rfind('.')); };
        if (FileUtils::moveFileFrom(
                withoutExtension(path) + ".zip",
                fmt::format("{}{}.zip", GlobalConstants::LOG_ARCHIVE_PATH, withoutExtension(name)))) {
            FileUtils::deleteFile(path);
        }
    }
}

}  // namespace

Logger& Logger::getInstance() {
    auto& shared = theSharedLogger.get();
    if (!shared.loading.load(std::memory_order_relaxed) && !shared.loading.exchange(true)) {
        shared.logger.load();
        if (const auto& problem = theFileTable.get().problem(); !problem.empty()) {
            shared.logger.file(LogCategory::Config, "Logger", LogLevel::Error, __func__, problem);
        }
    }
    return shared.logger;
}

Logger::Logger() : currentLogLevel_(LogLevel::Error) {
    load();
}

void Logger::load() {
    const auto configuration = PropertyListHandler::initWithFile(inConfFolder(GlobalConstants::MY_CONFIGURATIONS_FILE));
    currentLogLevel_ = configuration.GetValueForKey(GlobalConstants::LOG_LEVEL).intValue();
    wakeObserver_ =
        NotificationCenter::defaultCenter().addObserver(kDidWakeNotification, [this](const auto&) { rotateLog(); });
}

void Logger::file(std::string_view category, std::string_view print, std::int32_t level, std::string_view /*func*/,
                  std::string_view str) {
    if (currentLogLevel_ < level) {
        return;
    }
    const auto now = Clock::shared().wallTime();
    const auto path = theFileTable.get().fileFor(category, DateFormat::format("yyyy-MM-dd", now));
    if (path.empty()) {
        return;
    }
    std::string cleaned;
    if (std::ranges::any_of(str, isControl)) {
        cleaned = harmless(str);
        str = cleaned;
    }
    const auto lineOf = [now](std::string_view source, std::int32_t ofLevel, std::string_view text) {
        return fmt::format("[{}][{}][{}:{}][{}]{}\r\n", DateFormat::format("yyyy-MM-dd HH:mm:ss Z", now), source,
                           ::getpid(), platform::currentThreadId(), formatTypeToString(ofLevel), text);
    };
    auto line = lineOf(print, level, str);
    auto unwritten = theUnwrittenLines.get().take(category, path);
    std::string text;
    Result<bool> isWhole = true;
    if (!unwritten.isAfterWholeLine) {
        isWhole = FileSystem::shared().endsWithLineFeed(path);
        text = isWhole && !*isWhole ? "\r\n" : "";
    }
    if (unwritten.count > 0) {
        text += lineOf("Logger", LogLevel::Error,
                       fmt::format("{} lines could not be written when they came, and {} of them follow: {}",
                                   unwritten.count, unwritten.errors.size(), unwritten.reason));
        text = std::accumulate(unwritten.errors.begin(), unwritten.errors.end(), std::move(text));
    }
    auto written = isWhole ? FileSystem::shared().append(path, text + line) : isWhole.error();
    if (!written && written.error().code == ENOENT && makeFolders()) {
        written = FileSystem::shared().append(path, text + line);
    } else if (!written && written.error().code == ELOOP) {
        written = appendBesideLink(category, path, text + line);
    }
    if (written) {
        if (!unwritten.isAfterWholeLine) {
            theUnwrittenLines.get().noteWritten(category, path);
        }
        return;
    }
    ++unwritten.count;
    unwritten.reason = written.error().description;
    if (level == LogLevel::Error) {
        unwritten.errors.push_back(std::move(line));
    }
    if (theUnwrittenLines.get().add(category, std::move(unwritten))) {
        fmt::print(stderr, "The log cannot be written: {}. Lines of level ERROR follow in it once it can be.\n",
                   written.error().description);
    }
}

std::string Logger::formatTypeToString(std::int32_t level) {
    switch (level) {
        case LogLevel::Error:
            return "ERROR";
        case LogLevel::Info:
            return "INFO";
        case LogLevel::Debug:
            return "DEBUG";
        default:
            throw std::invalid_argument("Unexpected FormatType.");
    }
}

void Logger::validateLogSize() {
    kLog.info(__func__, "Going to rotate log");
    theSharedLogger.get().housekeeping.async(continueLargeFiles);
}

void Logger::rotateLog() {
    kLog.info(__func__, "Zipping Log");
    theSharedLogger.get().housekeeping.async(archiveOldFiles);
}

}  // namespace sentrova
