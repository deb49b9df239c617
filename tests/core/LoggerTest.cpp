#include "core/LogSource.h"
#include "core/Logger.h"
#include "foundation/NotificationCenter.h"
#include "platform/OperatingSystem.h"
#include "support/AgentFixture.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {

// Counts how often it becomes text.
struct CostlyText {
    static inline int made = 0;
};

}  // namespace sentrova

template <>
struct fmt::formatter<sentrova::CostlyText> : fmt::formatter<fmt::string_view> {
    template <class Context>
    auto format(const sentrova::CostlyText&, Context& context) const {
        ++sentrova::CostlyText::made;
        return fmt::formatter<fmt::string_view>::format("costly", context);
    }
};

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
    bool hasTable() { return fs::exists(volume().conf() / "logfile.plist"); }
    Dictionary table() { return volume().readConfiguration("logfile.plist"); }
    std::set<std::string> archive() {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(volume().logs() / "archive")) {
            names.insert(entry.path().filename());
        }
        return names;
    }
    static Dictionary tableOf(const std::string& day) {
        return {{"Config", "../logs/Config" + day + ".log"},
                {"Event", "../logs/Event" + day + ".log"},
                {"Communication", "../logs/Communication" + day + ".log"}};
    }
};

TEST_F(LoggerTest, LineHasTimeClassProcessThreadAndLevelInBrackets) {
    Logger::getInstance().file("Config", "AgentServiceHandler", 2, "init", "caf\xC3\xA9 %@ {}\n");
    const auto begin = "[2026-11-15 12:00:00 +0000][AgentServiceHandler][" + std::to_string(::getpid()) + ":";
    EXPECT_EQ(log(), begin + std::to_string(platform::currentThreadId()) + "][DEBUG]caf\xC3\xA9 %@ {}\n\r\n");
    EXPECT_FALSE(hasTable());
    EXPECT_EQ(log("Event"), "");
}

TEST_F(LoggerTest, NothingInAMessageCanPassForALineOfItsOwn) {
    const std::string forged =
        "[2026-11-15 12:00:00 +0000][AgentServiceHandler][1:1][ERROR]AgentServiceHandler stop called";
    const std::pair<std::string, std::string> cases[] = {
        {"carla\r\n" + forged, "carla\\x0d\n    " + forged},
        {"carla\n" + forged + "\n\n" + forged, "carla\n    " + forged + "\n\n    " + forged},
        {"\x1b[2Jcarla\x7f\x08" + std::string(1, '\0') + "\r", "\\x1b[2Jcarla\\x7f\\x08\\x00\\x0d"},
        {"{\n    a = (\n        \"b\"\n    );\n}\tcaf\xC3\xA9 [",
         "{\n    a = (\n        \"b\"\n    );\n}\tcaf\xC3\xA9 ["},
    };
    std::string expected;
    constexpr LogSource kSource("Names");
    const auto begin =
        fmt::format("[2026-11-15 12:00:00 +0000][Names][{}:{}][ERROR]", ::getpid(), platform::currentThreadId());
    for (const auto& [given, written] : cases) {
        kSource.error("f", "{}", given);
        expected += begin + written + "\r\n";
    }
    EXPECT_EQ(log(), expected);
}

TEST_F(LoggerTest, MessagesAboveTheConfiguredLevelAreDroppedUnformatted) {
    const std::pair<Value, int> cases[] = {{-1, 0}, {0, 1}, {1, 2}, {"2", 3}, {"DEBUG", 1}, {Value(), 1}};
    constexpr LogSource kSource("Levels", LogCategory::Event);
    for (const auto& [level, lines] : cases) {
        SCOPED_TRACE(level.description());
        myConfigurations.remove("LogLevel");
        if (!level.isNull()) {
            myConfigurations.set("LogLevel", level);
        }
        writeConfiguration();
        restart();
        CostlyText::made = 0;
        const auto before = logged("costly\r\n", "Event");
        kSource.error("f", "{}", CostlyText());
        kSource.info("f", "{}", CostlyText());
        kSource.debug("f", "{}", CostlyText());
        EXPECT_EQ(logged("costly\r\n", "Event") - before, lines);
        EXPECT_EQ(CostlyText::made, lines);
    }
    EXPECT_EQ(Logger::formatTypeToString(1), "INFO");
    EXPECT_THROW(Logger::formatTypeToString(3), std::invalid_argument);
    EXPECT_THROW(Logger::formatTypeToString(-1), std::invalid_argument);
}

TEST_F(LoggerTest, NewDaySwitchesAllCategoriesAtTheFirstLine) {
    auto& logger = Logger::getInstance();
    logger.file("Config", "A", 0, "f", "yesterday");
    clock().advance(hours(12));
    logger.file("Event", "A", 0, "f", "today");
    EXPECT_EQ(table(), tableOf("2026-11-16"));
    EXPECT_EQ(logged("today", "Event"), 1);
    logger.file("Config", "A", 0, "f", "today, too");
    EXPECT_EQ(logged("today, too"), 1);
    EXPECT_EQ(logged("yesterday"), 0);
    EXPECT_TRUE(fs::exists(file("Config2026-11-15.log")));
}

TEST_F(LoggerTest, TableOfTheLastRunIsGoneOnWith) {
    const std::pair<const char*, const char*> cases[] = {
        {"../logs/Event2026-11-15_3.log", "Event2026-11-15_3.log"},
        {"../logs/Event2026-11-14_3.log", "Event2026-11-15.log"},
        // Names that lead out of the folder are not taken.
        {"../logs/../conf/2026-11-15.log", "Event2026-11-15.log"},
        {"../conf/2026-11-15.log", "Event2026-11-15.log"},
    };
    for (const auto& [stored, name] : cases) {
        SCOPED_TRACE(stored);
        setTable(stored);
        restart();
        fs::remove(file(name));
        Logger::getInstance().file("Event", "A", 0, "f", "line");
        EXPECT_TRUE(fs::exists(file(name)));
        EXPECT_FALSE(fs::exists(volume().conf() / "2026-11-15.log"));
    }
}

TEST_F(LoggerTest, DamagedTableIsReportedAndTheFilesOfTheDayAreUsed) {
    std::ofstream(volume().conf() / "logfile.plist") << "garbage";
    Logger::getInstance().file("Event", "A", 0, "f", "line");
    EXPECT_EQ(logged("line\r\n", "Event"), 1);
    EXPECT_EQ(logged("][ERROR]Property list ../conf/logfile.plist is not read: "), 1);
}

TEST_F(LoggerTest, UnknownCategoryIsWrittenNowhereAndRenewsTheTable) {
    setTable("../logs/Event2026-11-15_3.log");
    Logger::getInstance().file("Other", "A", 0, "f", "lost");
    EXPECT_EQ(table(), tableOf("2026-11-15"));
    EXPECT_EQ(std::distance(fs::directory_iterator(volume().logs()), {}), 1) << "there is more than the archive folder";
}

TEST_F(LoggerTest, FileAboveTheSizeLimitIsZippedAndGoesOnUnderTheNextFreeNumber) {
    struct Case {
        std::string current;
        std::uintmax_t size;
        std::vector<std::string> there;
        std::string next;
    };
    const Case cases[] = {
        {"Event2026-11-15.log", kLimit, {}, "Event2026-11-15.log"},
        {"Event2026-11-15.log", kLimit + 1, {}, "Event2026-11-15_1.log"},
        {"Event2026-11-15.log",
         kLimit + 1,
         {"Event2026-11-15_1.log", "Event2026-11-15_2.log"},
         "Event2026-11-15_3.log"},
        {"Event2026-11-15_4.log", kLimit + 1, {"Event2026-11-15_5.log"}, "Event2026-11-15_6.log"},
        // A folder in the way: the zip fails, and the file grows on.
        {"Event2026-11-15.log", kLimit + 1, {"Event2026-11-15.zip/x"}, "Event2026-11-15.log"},
    };
    for (const auto& [current, size, there, next] : cases) {
        SCOPED_TRACE(::testing::Message() << current << " of " << size << " goes on as " << next);
        for (const auto& entry : fs::directory_iterator(volume().logs())) {
            if (entry.path().filename() != "archive") {
                fs::remove_all(entry.path());
            }
        }
        setTable("../logs/" + current);
        write(current, size);
        for (const auto& name : there) {
            fs::create_directories(file(name).parent_path());
            write(name, 1);
        }
        restart();
        Logger().validateLogSize();
        Logger::getInstance().file("Event", "A", 0, "f", "goes on");
        const bool continued = next != current;
        EXPECT_EQ(fs::exists(file(current)), !continued);
        EXPECT_EQ(fs::is_regular_file(file(fs::path(current).stem().string() + ".zip")), continued);
        EXPECT_EQ(table()["Event"], Value("../logs/" + next));
        EXPECT_EQ(fs::file_size(file(next)) > size, !continued);
        EXPECT_EQ(logged("][INFO]New File name ../logs/" + next + "\r\n"), continued ? 1 : 0);
        EXPECT_EQ(logged("][DEBUG]Current file ../logs/" + current + " has reached limit\r\n"), size > kLimit ? 1 : 0);
    }
}

TEST_F(LoggerTest, WeekOldLogsGoToTheArchive) {
    write("Config2026-11-07.log", 100, hours(8 * 24));
    write("it's \"old\" $(id).log", 100, hours(8 * 24));
    write("Config2026-11-08.log", 100, hours(7 * 24));
    write("Config2026-11-09.log", 100, hours(6 * 24));
    write("notes.txt", 100, hours(30 * 24));
    write("Event2026-10-01.zip", 100, hours(30 * 24));
    write(".hidden.log", 100, hours(30 * 24));
    Logger().rotateLog();
    EXPECT_EQ(archive(), (std::set<std::string>{"Config2026-11-07.zip", "it's \"old\" $(id).zip"}));
    EXPECT_EQ(logged("][INFO]Trying to zip Config2026-11-07.log\r\n"), 1);
    for (const auto* gone : {"Config2026-11-07.log", "Config2026-11-07.zip", "it's \"old\" $(id).log"}) {
        EXPECT_FALSE(fs::exists(file(gone))) << gone;
    }
    for (const auto* kept :
         {"Config2026-11-08.log", "Config2026-11-09.log", "notes.txt", "Event2026-10-01.zip", ".hidden.log"}) {
        EXPECT_TRUE(fs::exists(file(kept))) << kept;
    }
}

TEST_F(LoggerTest, LogThatCannotBeMovedToTheArchiveStays) {
    write("Config2026-11-07.log", 100, hours(8 * 24));
    fs::remove(volume().logs() / "archive");
    Logger().rotateLog();
    EXPECT_TRUE(fs::exists(file("Config2026-11-07.log")));
    fs::create_directory(volume().logs() / "archive");
    Logger().rotateLog();
    EXPECT_FALSE(fs::exists(file("Config2026-11-07.log")));
    EXPECT_EQ(archive(), std::set<std::string>{"Config2026-11-07.zip"});
}

TEST_F(LoggerTest, WakeOfTheMachineArchivesForAsLongAsTheLoggerLives) {
    const auto wake = [] { NotificationCenter::defaultCenter().post({Logger::kDidWakeNotification, nullptr, {}}); };
    Logger::getInstance();
    auto logger = std::make_unique<Logger>();
    wake();
    EXPECT_EQ(logged("][INFO]Zipping Log\r\n"), 2) << "the shared logger and this one";
    logger.reset();
    write("Config2026-11-07.log", 100, hours(8 * 24));
    wake();
    EXPECT_EQ(logged("][INFO]Zipping Log\r\n"), 3);
    EXPECT_EQ(archive(), std::set<std::string>{"Config2026-11-07.zip"});
}

TEST_F(LoggerTest, LinesOfManyThreadsStayWhole) {
    Logger::getInstance();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int j = 0; j < 50; ++j) {
                Logger::getInstance().file("Event", "Thread", 1, "f", std::string(200, 'x'));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(logged("][INFO]" + std::string(200, 'x') + "\r\n[2026", "Event"), 199);
    EXPECT_EQ(logged("\r\n", "Event"), 200);
}

}  // namespace
}  // namespace sentrova
