// The commands `events` and `watch` of sentrovactl, beside the agent's own collection.

#include "BuildPaths.h"
#include "collection/EventCollectionSchedule.h"
#include "core/GlobalVariables.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/formats/Json.h"
#include "support/AgentFixture.h"
#include "support/ControlProgram.h"
#include "volume/TrailWriter.h"
#include "volume/WorkingDay.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr auto kMorning = 1'700'000'000s;

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

Dictionary eventOf(const std::string& line) {
    const auto event = Json::parse(line);
    return event && event->dictionary() ? *event->dictionary() : Dictionary();
}

TrailRecord record(std::uint16_t type, std::chrono::seconds time, std::uint32_t user = 501, std::uint32_t result = 0) {
    return TrailRecord(type).at(time).subject({.auditId = user, .processId = 7, .sessionId = 100007}).returns(result);
}

std::string bytesOf(const TrailWriter& trail) {
    return {trail.bytes().begin(), trail.bytes().end()};
}

// Records of every kind that the rules treat in their own way, with the reason why each is left out; "" if it is not.
struct EveryKind {
    void add(const TrailRecord& record, const char* reason = "") {
        trail.add(record);
        reasons.emplace_back(reason);
    }
    EveryKind() {
        const char* const history = "feeds the login history only";
        const char* const local = "a local user of this Mac";
        add(record(45021, kMorning), history);
        add(record(6152, kMorning + 1s).identity("com.apple.login"));
        add(record(6152, kMorning), "older than the newest record read before it");
        add(record(6152, kMorning + 1s, 502), local);
        add(record(45026, kMorning + 2s).text("anna").identity("com.apple.authorizationhost"), history);
        add(record(45026, kMorning + 2s).text("anna"), "an authorization that was granted");
        add(record(45026, kMorning + 2s, 501, 1).text("Failed <anna>, \"x\"\r\n\x1b[31m"));
        add(record(6153, kMorning + 3s).identity("com.apple.sshd"), "a closed ssh session (com.apple.sshd)");
        add(record(45023, kMorning + 4s).text("Touch ID authentication"));
        add(record(45023, kMorning + 4s).text("User 'lars'"), local);
        add(record(45023, kMorning + 5s).text("Touch ID authentication"), local);
        add(record(45023, kMorning + 5s, 600, 5000).text("User 'gh\xC3\xB6st'"));
        add(record(45023, kMorning + 5s, 600).text("\xFF"));
        add(record(45028, kMorning + 6s, 0xFFFFFFFF).raw(Data{0xAA, 1, 2, 3}));
        add(record(6172, kMorning + 6s).raw(Data{0x28, 0xFF, 0xFF, 1}), "the record's content is damaged");
    }

    TrailWriter trail;
    Lines reasons;
};

class EventsTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventsTest() {
        volume().addDomainUser("anna", 501, "S-1-5-21-7", "CORP");
        volume().addLocalUser("lars", 502);
        fs::remove(volume().console());
        serverInfo.set("NumberofEventsPerRequest", 1'000'000);
        myConfigurations.set("LogLevel", 0);
        restartConfigured();
    }

    // What an agent that has read nothing yet puts into its spool from the volume's trails.
    std::string spooled() {
        fs::remove(volume().conf() / "currentLogins");
        restartConfigured();
        GlobalVariables::getInstance().setHostName("mac-042");
        EventCollectionSchedule().start();
        return EventQueueGCD::dequeue(std::nullopt).value_or("[]");
    }

    std::string path(const std::string& trail) { return (volume().auditFolder() / trail).string(); }
    Lines arguments(Lines more) {
        Lines all = {"events", "--domain", "corp.example.com", "--host", "mac-042"};
        if (const auto* const names = serverInfo["EventsToRead"].string()) {
            all.insert(all.end(), {"--select", *names});
        }
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    ControlOutcome events(Lines more, const std::string& input = {}) { return runControl(arguments(more), input); }
    // The lines as the spool's array.
    std::string asArray(const Lines& more) {
        std::string array = "[";
        for (const auto& line : linesOf(events(more).output)) {
            array += (array.size() > 1 ? "," : "") + line;
        }
        return array + "]";
    }
};

TEST_F(EventsTest, EventsAreByteForByteThoseOfTheAgentsSpool) {
    std::vector<std::pair<std::string, Data>> trails = {{"every", EveryKind().trail.bytes()}};
    for (const std::uint32_t seed : {1U, 2U}) {
        const WorkingDay day(kMorning + seed * 240h, seed);
        fs::remove(volume().auditFolder() / "current");
        day.putOn(volume());
        for (const auto& trail : day.trails()) {
            trails.emplace_back(trail.name, trail.content.bytes());
        }
    }
    if (fs::exists(build::kRealTrail)) {
        const auto real = textOf(build::kRealTrail);
        trails.emplace_back("real", Data(real.begin(), real.end()));
    }
    for (const bool everything : {false, true}) {
        everything ? static_cast<void>(serverInfo.remove("EventsToRead")) : void();
        EXPECT_EQ(asArray({}), spooled()) << "all of the volume";
        // Each of the volume's trails as its only one.
        fs::rename(volume().auditFolder(), volume().root() / "all");
        for (const auto& [name, bytes] : trails) {
            fs::create_directory(volume().auditFolder());
            volume().addTrail(name, bytes, 4'000'000'000s);
            const auto expected = spooled();
            EXPECT_TRUE(expected.size() > 100 || !everything) << name;
            EXPECT_EQ(asArray({path(name)}), expected) << name;
            fs::remove_all(volume().auditFolder());
        }
        fs::rename(volume().root() / "all", volume().auditFolder());
    }
}

TEST_F(EventsTest, VolumeIsReadByTheAgentsRulesBetweenTrailsAndNamedTrailsByOneReader) {
    const auto trail = [](std::initializer_list<std::chrono::seconds> times) {
        TrailWriter written;
        for (const auto time : times) {
            written.add(record(6152, time));
        }
        return written;
    };
    volume().addTrail("b", trail({0s, 100s, 100s, 200s}).bytes(), 1000s);
    volume().addTrail("a", trail({200s, 201s}).bytes(), 1000s + 1s);
    volume().addTrail("late", trail({300s}).bytes(), 150s);
    volume().addTrail("unread", trail({250s}).bytes(), 200s);
    fs::create_symlink("a", volume().auditFolder() / "current");
    const auto times = [](const ControlOutcome& outcome) {
        std::vector<std::int64_t> found;
        for (const auto& line : linesOf(outcome.output)) {
            found.push_back(eventOf(line)["record_time"].integerValue());
        }
        EXPECT_EQ(outcome.status, 0) << outcome.problems;
        return found;
    };
    EXPECT_EQ(asArray({}), spooled());
    using Times = std::vector<std::int64_t>;
    EXPECT_EQ(times(events({path("b"), path("a")})), (Times{100, 100, 200, 200, 201}));
    EXPECT_EQ(times(events({path("b"), "-", path("late")}, bytesOf(trail({199s, 200s})))),
              (Times{100, 100, 200, 200, 300}));
    EXPECT_EQ(times(events({"--since", "100", "--until", "200", path("b")})), (Times{100, 100}));
    EXPECT_EQ(times(events({"--excluded"})).size(), 8U) << "of the trail that is not read, too";
}

TEST_F(EventsTest, VolumeNeedsNoInstallationRunsNoProgramAndGivesNoNamesOfThisMachine) {
    // Root is an account of every host, but not of this volume.
    volume().addTrail("t", TrailWriter().add(record(6152, kMorning, 0)).add(record(6152, kMorning)).bytes(), kMorning);
    fs::current_path(volume().root());
    fs::remove_all(volume().agent());
    ::unsetenv("SENTROVA_SYSTEM_VOLUME");
    for (const Lines& more : {Lines{}, Lines{path("t")}}) {
        Lines arguments = {"events", "--volume", volume().volume().string() + "/"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const auto outcome = runControl(arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.problems, "");
        const auto lines = linesOf(outcome.output);
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(eventOf(lines[0])["UserName"], Value("0"));
        EXPECT_EQ(eventOf(lines[1])["UserName"], Value("anna"));
        EXPECT_FALSE(eventOf(lines[1]).contains("DomainName") || eventOf(lines[1]).contains("Source Workstation"));
    }
    for (const auto& entry : fs::recursive_directory_iterator(volume().root())) {
        EXPECT_NE(entry.path().filename(), ".runs") << "the directory tool has run";
    }
    EXPECT_FALSE(fs::exists(volume().agent()));
    const auto none = runControl({"events", "--volume", path("t")});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(linesOf(none.problems).size(), 1U) << none.problems;
    // The data volume of a Mac's disk.
    fs::create_directory(volume().root() / "disk");
    fs::rename(volume().volume(), volume().root() / "disk/private");
    EXPECT_EQ(linesOf(runControl({"events", "--volume", (volume().root() / "disk").string()}).output).size(), 2U);
}

TEST_F(EventsTest, ExcludedRecordsStandAmongTheOthersWithTheirReasons) {
    const EveryKind every;
    volume().addTrail("t", every.trail.bytes(), kMorning);
    const auto outcome = events({"--excluded", path("t")});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.problems,
              "sentrovactl: " + path("t") + ": the content of the record at offset " +
                  std::to_string(every.trail.bytes().size() - record(6172, 0s).raw(Data(4)).bytes().size()) +
                  " is damaged\n");
    Lines reasons;
    std::string reported;
    for (const auto& line : linesOf(outcome.output)) {
        const auto event = eventOf(line);
        EXPECT_TRUE(event.contains("record_event") && event.contains("record_time")) << line;
        reasons.push_back(event["Excluded"].isNull() ? "" : event["Excluded"].description());
        reported += reasons.back().empty() ? line + "\n" : "";
    }
    EXPECT_EQ(reasons, every.reasons);
    EXPECT_EQ(reported, events({path("t")}).output);
    EXPECT_EQ(linesOf(runControl({"events", "--excluded", "--select", "AUE_logout", path("t")}).output).size(), 1U);
    EXPECT_EQ(linesOf(events({"--user", "anna", path("t")}).output).size(), 3U);
    EXPECT_EQ(events({"--user", "ann", path("t")}).output, "");
}

TEST_F(EventsTest, CsvIsQuotedAndTableHasNoOtherLinesThanItsEvents) {
    volume().addTrail("t", EveryKind().trail.bytes(), kMorning);
    const auto csv = events({"--format", "csv", "--user", "anna", "--excluded", path("t")}).output;
    EXPECT_NE(csv.find(",\"Failed <anna>, \"\"x\"\"\r\n\x1b[31m\",1,"), std::string::npos) << csv;
    EXPECT_NE(csv.find(",anna,mac-042,S-1-5-21-7,\r\n"), std::string::npos) << csv;

    const auto json = linesOf(events({path("t")}).output);
    const auto count = json.size();
    std::string keys;
    for (const auto& [key, value] : eventOf(json.at(0))) {
        keys += key + ",";
    }
    EXPECT_TRUE(csv.starts_with(keys + "Excluded\r\n11,")) << keys << "\n" << csv;
    const auto table = runControl(arguments({"--format", "table", path("t")}), {}, {"TZ=Asia/Tokyo"}).output;
    const auto lines = linesOf(table);
    EXPECT_LE(lines.size(), count + 4);
    EXPECT_NE(table.find("JST"), std::string::npos);
    EXPECT_NE(table.find("Failed <anna>, \"x\"\\x0d\\x0a\\x1b[31m"), std::string::npos) << table;
    EXPECT_NE(table.find("gh\xC3\xB6st"), std::string::npos) << table;
    EXPECT_EQ(
        std::ranges::count_if(lines, [](const auto& line) { return line.find("  07:13:2") != std::string::npos; }),
        static_cast<std::ptrdiff_t>(count))
        << table;
    EXPECT_LE(linesOf(events({"--format", "table", "--user", "nobody", path("t")}).output).size(), 4U);
}

TEST_F(EventsTest, DamagedTrailIsToldInOneLineAndTheOthersAreRead) {
    const auto good = TrailWriter().add(record(6152, kMorning)).add(record(6152, kMorning));
    const auto begun = record(6152, kMorning).bytes();
    const Data cut(begun.begin(), begun.begin() + 20);
    volume().addTrail("cut", TrailWriter(good).addRaw(cut).bytes(), kMorning);
    volume().addTrail("garbage", TrailWriter(good).addRaw(Data{1, 2, 3}).bytes(), kMorning);
    volume().addTrail("good", good.bytes(), kMorning);
    fs::create_directory(path("folder"));
    const auto offset = std::to_string(good.bytes().size());
    const std::pair<std::string, std::string> cases[] = {
        {"cut", "the record at offset " + offset + " is cut off; 20 bytes are left unread"},
        {"garbage", "the data at offset " + offset + " is not an audit record; 3 bytes are left unread"},
        {"missing", "cannot be opened: No such file or directory"},
        {"folder", "is a folder, not a trail"},
    };
    for (const auto& [name, problem] : cases) {
        const auto outcome = events({path(name), path("good")});
        EXPECT_EQ(outcome.status, 1) << name;
        EXPECT_EQ(outcome.problems, "sentrovactl: " + path(name) + ": " + problem + "\n");
        EXPECT_EQ(linesOf(outcome.output).size(), name == "missing" || name == "folder" ? 2U : 4U);
    }
    EXPECT_EQ(events({"-"}, bytesOf(TrailWriter(good).addRaw(cut))).problems,
              "sentrovactl: standard input: the record at offset " + offset + " is cut off\n");
    EXPECT_EQ(events({"-", "-"}).status, 64);
    EXPECT_EQ(events({"--since", "soon"}).status, 64);
    EXPECT_EQ(events({"--format", "xml"}).status, 64);
    const auto all = events({});
    EXPECT_EQ(all.status, 1);
    EXPECT_EQ(linesOf(all.problems).size(), 3U) << all.problems;

    const auto problems = volume().root() / "problems";
    const auto full =
        std::string("'") + build::kControl + "' events '" + path("good") + "' >/dev/full 2>'" + problems.string() + "'";
    const int status = std::system(full.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_EQ(textOf(problems), "sentrovactl: the output cannot be written: No space left on device\n");
}

TEST_F(EventsTest, WatchShowsLiveEventsUntilASignalAndLeavesTheAgentItsRecords) {
    FileDescriptor pipe(::open(volume().auditPipe().c_str(), O_RDWR | O_CLOEXEC));
    const auto write = [&pipe](const TrailRecord& written) {
        const auto bytes = written.bytes();
        ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    };
    const auto output = volume().root() / "watched";
    const auto root = volume().agent().string();
    for (const int signal : {SIGINT, SIGTERM}) {
        const pid_t process = ::fork();
        if (process == 0) {
            ::close(STDOUT_FILENO);
            ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::execl(build::kControl, build::kControl, "--root", root.c_str(), "watch", "--select",
                    "AUE_login,AUE_auth_user,AUE_lw_login", nullptr);
            ::_exit(127);
        }
        const auto shown = [&output](std::size_t events) {
            return eventually([&output, events] { return linesOf(textOf(output)).size() == events; });
        };
        write(record(6152, kMorning));
        EXPECT_TRUE(shown(1));
        // One that is excluded, and one that takes its user from it.
        write(record(45021, kMorning));
        write(record(45023, kMorning + 1s).text("Touch ID authentication"));
        EXPECT_TRUE(shown(2));
        EXPECT_EQ(eventOf(linesOf(textOf(output)).at(1))["UserName"], Value("anna"));
        ::kill(process, signal);
        int status = -1;
        ::waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(linesOf(textOf(output)).size(), 2U);
    }
    const FileDescriptor lock(::open((volume().conf() / "agent.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    write(record(6152, kMorning));
    const auto refused = runControl({"--root", root, "watch"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_NE(refused.problems.find("would take the records of the agent"), std::string::npos) << refused.problems;
}

}  // namespace
}  // namespace sentrova::testing
