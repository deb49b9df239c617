#include "core/LogSource.h"
#include "core/Logger.h"
#include "foundation/run/Current.h"
#include "foundation/run/NotificationCenter.h"
#include "platform/OperatingSystem.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <future>
#include <set>
#include <stdexcept>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;

constexpr std::uintmax_t kLimit = 10'485'760;

class LoggerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    fs::path file(const std::string& name) { return volume().logs() / name; }
    void write(const std::string& name, std::uintmax_t size, hours age = hours(0)) {
        std::ofstream(file(name)) << "the first line\n";
        fs::resize_file(file(name), size);
        fs::last_write_time(file(name), fs::file_time_type::clock::from_sys(clock().wallTime() - age));
    }
    void setTable(const std::string& event) {
        volume().writeConfiguration("logfile.plist", {{"Config", "../logs/Config2026-11-15.log"}, {"Event", event}});
    }
    Dictionary table() { return volume().readConfiguration("logfile.plist"); }
    // The housekeeping queue is serial. An archived "last.log" shows that rotateLog has begun, so validateLogSize and
    // all earlier work are done.
    void keepHouse() {
        write("last.log", 1, hours(30 * 24));
        Logger::getInstance().validateLogSize();
        Logger::getInstance().rotateLog();
        ASSERT_TRUE(testing::eventually([this] { return !fs::exists(file("last.log")); }));
        fs::remove(file("archive/last.zip"));
    }
    std::set<std::string> namesIn(const std::string& folder) {
        const auto names = *Current<FileSystem>::get().names(file(folder));
        return {names.begin(), names.end()};
    }
};

TEST_F(LoggerTest, MessageCannotImitateAnotherLine) {
    const std::string forged = "[2026-11-15 12:00:00 +0000][AgentServiceHandler][1:1][ERROR]stop called";
    const std::string plain = "{\n    a = (\n        \"b\"\n    );\n}\tcaf\xC3\xA9 [";
    const std::pair<std::string, std::string> cases[] = {
        {"carla\r\n" + forged, "carla\\x0d\n    " + forged},
        {"carla\n" + forged + "\n\n" + forged, "carla\n    " + forged + "\n\n    " + forged},
        {"\x1b[2Jcarla\x7f\x08" + std::string(1, '\0') + "\r", "\\x1b[2Jcarla\\x7f\\x08\\x00\\x0d"},
        {plain, plain},
    };
    std::string expected;
    constexpr LogSource kSource("Names");
    const auto begin =
        fmt::format("[2026-11-15 12:00:00 +0000][Names][{}:{}][ERROR]", ::getpid(), platform::currentThreadId());
    for (const auto& [given, written] : cases) {
        kSource.error("{}", given);
        expected += begin + written + "\r\n";
    }
    EXPECT_EQ(log(), expected);
}

TEST_F(LoggerTest, MessagesAboveTheConfiguredLevelAreDropped) {
    const std::pair<Value, int> cases[] = {{-1, 0}, {0, 1}, {1, 3}, {"2", 7}, {"DEBUG", 1}, {"", 1}};
    constexpr LogSource kSource("Levels", LogCategory::Event);
    for (const auto& [level, written] : cases) {
        SCOPED_TRACE(level.description());
        myConfigurations.set("LogLevel", level);
        writeConfiguration();
        restart();
        fs::remove(file("Event2026-11-15.log"));
        kSource.error("x");
        kSource.info("x");
        kSource.debug("x");
        EXPECT_EQ(logged("[ERROR]x", "Event") + 2 * logged("[INFO]x", "Event") + 4 * logged("[DEBUG]x", "Event"),
                  written);
    }
    EXPECT_THROW(Logger::formatTypeToString(3), std::invalid_argument);
}

TEST_F(LoggerTest, NewDayUnknownCategoryOrForeignPathSwitchesToTheFilesOfTheDay) {
    auto& logger = Logger::getInstance();
    logger.file("Config", "A", 0, "f", "yesterday");
    clock().advance(hours(12));
    logger.file("Event", "A", 0, "f", "today");
    const Dictionary today = {{"Config", "../logs/Config2026-11-16.log"},
                              {"Event", "../logs/Event2026-11-16.log"},
                              {"Communication", "../logs/Communication2026-11-16.log"}};
    EXPECT_EQ(table(), today);
    logger.file("Config", "A", 0, "f", "today, too");
    setTable("../logs/Event2026-11-16_3.log");
    restart();
    Logger::getInstance().file("Other", "A", 0, "f", "lost");
    EXPECT_EQ(table(), today);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{"archive", "Config2026-11-15.log", "Config2026-11-16.log",
                                                   "Event2026-11-16.log"}));
    EXPECT_EQ(logged("today, too"), 1);
    // A file of another day or outside the logs folder is not continued.
    for (const auto* stored : {"2026-11-15_3.log", "../conf/2026-11-16.log", "../../conf/2026-11-16.log"}) {
        fs::remove(file("Event2026-11-16.log"));
        setTable(std::string("../logs/") + stored);
        restart();
        Logger::getInstance().file("Event", "A", 0, "f", "line");
        EXPECT_TRUE(fs::exists(file("Event2026-11-16.log"))) << stored;
    }
}

TEST_F(LoggerTest, FileAboveTheSizeLimitIsZippedAndTheLogContinuesUnderTheNextFreeNumber) {
    // The current file and its size, another existing file (maybe in a folder), and the file in which the log
    // continues.
    const std::tuple<std::string, std::uintmax_t, std::string, std::string> cases[] = {
        {"Event2026-11-15.log", kLimit, "x.log", "Event2026-11-15.log"},
        {"Event2026-11-15.log", kLimit + 1, "Event2026-11-15_1.log", "Event2026-11-15_2.log"},
        {"Event2026-11-15_4.log", kLimit + 1, "Event2026-11-15_5.log", "Event2026-11-15_6.log"},
        // A folder has the name of the zip file: the zip fails, and the log continues in the same file.
        {"Event2026-11-15.log", kLimit + 1, "Event2026-11-15.zip/x", "Event2026-11-15.log"},
    };
    for (const auto& [current, size, there, next] : cases) {
        SCOPED_TRACE(::testing::Message() << current << " of " << size << " goes on as " << next);
        fs::remove_all(volume().logs());
        fs::create_directories(file("archive"));
        fs::create_directories(file(there).parent_path());
        setTable("../logs/" + current);
        write(current, size);
        write(there, 1);
        restart();
        keepHouse();
        Logger::getInstance().file("Event", "A", 0, "f", "goes on");
        const bool continued = next != current;
        EXPECT_EQ(fs::exists(file(current)), !continued);
        EXPECT_EQ(fs::is_regular_file(file(fs::path(current).stem().string() + ".zip")), continued);
        EXPECT_EQ(table()["Event"], Value("../logs/" + next));
        EXPECT_EQ(fs::file_size(file(next)) > size, !continued);
        EXPECT_EQ(fs::file_size(file(there)), 1U);
        EXPECT_EQ(fs::exists(file("Event2026-11-15_1.log")), there == "Event2026-11-15_1.log") << "no line is astray";
    }
}

TEST_F(LoggerTest, WakeArchivesLogsOlderThanAWeek) {
    for (const auto* old : {"Config2026-11-07.log", "it's \"old\" $(id).log"}) {
        write(old, 100, hours(8 * 24));
    }
    std::set<std::string> left = {"Config2026-11-08.log", "notes.txt", "Event2026-10-01.zip", ".hidden.log"};
    for (const auto& name : left) {
        write(name, 100, hours(24) * (name.starts_with("Config") ? 7 : 30));
    }
    fs::remove(file("archive"));
    // The zip command blocks until the test creates the file "go".
    const auto zip = volume().bin() / "zip";
    const auto go = volume().bin() / "go";
    std::ofstream(zip) << "#!/bin/sh\nuntil [ -e " << go << " ]; do sleep 0.01; done\nexec /usr/bin/zip \"$@\"\n";
    fs::permissions(zip, fs::perms::owner_all);
    const std::string path = ::getenv("PATH");  // NOLINT(concurrency-mt-unsafe)
    ::setenv("PATH", (volume().bin().string() + ":" + path).c_str(), 1);
    const auto wake = [] { NotificationCenter::defaultCenter().post({Logger::kDidWakeNotification, nullptr, {}}); };
    wake();
    std::ofstream{go};
    ASSERT_TRUE(testing::eventually([this] { return logged("[INFO]Error moving file") == 2; }));
    EXPECT_TRUE(fs::exists(file("Config2026-11-07.log"))) << "it could not be moved";
    fs::create_directory(file("archive"));
    fs::remove(go);
    wake();
    wake();
    EXPECT_EQ(logged("][INFO]Zipping Log\r\n"), 3);
    std::ofstream{go};
    left.insert({"archive", "Config2026-11-15.log"});
    EXPECT_TRUE(testing::eventually([&] { return namesIn(".") == left; }));
    keepHouse();
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(logged("][INFO]Trying to zip "), 5) << "no file is zipped twice";
    EXPECT_EQ(namesIn("archive"), (std::set<std::string>{"Config2026-11-07.zip", "it's \"old\" $(id).zip"}));
}

TEST_F(LoggerTest, LineThatCannotBeWrittenLeavesTheFileIntactAndIsReportedOncePerOutage) {
    constexpr LogSource kSource("Full");
    kSource.error("first");
    ::testing::internal::CaptureStderr();
    {
        testing::FaultyFileSystem files([](const std::string& path) { return path.ends_with(".log"); });
        for (int outage = 0; outage < 2; ++outage) {
            const auto before = log();
            for (const bool isShort : {true, false}) {
                files.arm(
                    {.call = testing::FaultyFileSystem::kWrite, .error = ENOSPC, .isShort = isShort, .number = 1});
                kSource.error("late");
                EXPECT_EQ(log(), before);
            }
            kSource.error("next");
        }
    }
    EXPECT_EQ(logged("late\r\n["), 4);
    EXPECT_EQ(logged("2 lines could not be written earlier"), 2);
    const auto told = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::ranges::count(told, '\n'), 2) << told;
    EXPECT_TRUE(told.starts_with("The log cannot be written: ")) << told;

    std::ofstream(file("Config2026-11-15.log"), std::ios::app) << "[cut by a loss of pow";
    restart();
    kSource.error("after the loss");
    EXPECT_EQ(logged("loss of pow\r\n[2026"), 1);
    fs::remove_all(volume().logs());
    kSource.error("in a new folder");
    EXPECT_EQ(logged("in a new folder"), 1);
    for (const auto& folder : {volume().logs(), volume().logs() / "archive"}) {
        EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
    }
    // Without a configuration folder beside it, the working directory is no installation.
    fs::remove_all(volume().logs());
    fs::remove_all(volume().conf());
    kSource.error("nowhere");
    EXPECT_FALSE(fs::exists(volume().logs()));
}

TEST_F(LoggerTest, LinesOfManyThreadsStayWhole) {
    Logger::getInstance();
    std::vector<std::future<void>> threads;
    for (int i = 0; i < 4; ++i) {
        threads.push_back(std::async(std::launch::async, [] {
            for (int j = 0; j < 50; ++j) {
                Logger::getInstance().file("Event", "Thread", 1, "f", std::string(200, 'x'));
            }
        }));
    }
    threads.clear();
    EXPECT_EQ(logged("][INFO]" + std::string(200, 'x') + "\r\n[2026", "Event"), 199);
    EXPECT_EQ(logged("\r\n", "Event"), 200);
}

}  // namespace
}  // namespace sentrova
