#include "BuildPaths.h"
#include "collection/EventCollector.h"
#include "collection/currentLoginUtility.h"
#include "core/GlobalVariables.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/Json.h"
#include "foundation/KeyedArchive.h"
#include "foundation/NotificationCenter.h"
#include "platform/AuditPipeDevice.h"
#include "support/AgentFixture.h"
#include "support/FakeDirectory.h"
#include "support/TrailWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Names = std::vector<std::string>;

constexpr std::uint16_t kLogin = 6152;
constexpr std::uint16_t kLogout = 6153;

Data joined(std::initializer_list<Data> parts) {
    TrailWriter trail;
    for (const auto& part : parts) {
        trail.addRaw(part);
    }
    return trail.bytes();
}

// Stands for the device's requests; the source itself is the volume's.
class RequestedDevice final : public platform::AuditPipeDevice {
  public:
    explicit RequestedDevice(std::size_t failing) : failing_(failing) { install(this); }
    ~RequestedDevice() override { install(nullptr); }

    Result<FileDescriptor> open(const std::string& path) override {
        return FileDescriptor(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    Result<std::uint32_t> request(const FileDescriptor&, platform::AuditPipeRequest request,
                                  std::uint32_t argument) override {
        requests.emplace_back(request, argument);
        if (requests.size() == failing_) {
            return posixError(ENOTTY);
        }
        return request == platform::AuditPipeRequest::getQlimitMax ? 77 : argument;
    }

    std::vector<std::pair<platform::AuditPipeRequest, std::uint32_t>> requests;

  private:
    const std::size_t failing_;
};

}  // namespace

// All that is collected stays in the spool's memory.
class EventCollectorTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventCollectorTest() {
        serverInfo.set("NumberofEventsPerRequest", 1000);
        myConfigurations.set("TimestampOfLastEvent", "100");
        writeConfiguration();
    }

    void addTrail(const char* name, const Data& bytes) { volume().addTrail(name, bytes, 5000s); }

    static void read(const std::string& path, std::optional<Names> names = std::nullopt) {
        EventCollector(path, std::move(names)).start();
    }

    static Array spooled() {
        const auto batch = EventQueueGCD::dequeue(std::nullopt);
        const auto events = batch ? Json::parse(*batch) : Result<Value>(Value(Array()));
        return events && events->array() ? *events->array() : Array{"no array"};
    }

    static std::vector<std::int64_t> valuesOf(const char* key) {
        std::vector<std::int64_t> values;
        for (const auto& event : spooled()) {
            values.push_back((*event.dictionary())[key].integerValue());
        }
        return values;
    }
};

TEST_F(EventCollectorTest, RecordsAtOrAfterTheNewestOneAreCollected) {
    TrailWriter trail;
    for (const auto second : {100, 101, 101, 100, 105, 104, 105}) {
        trail.add(TrailRecord(kLogin).at(std::chrono::seconds(second)).returns(0));
    }
    addTrail("trail", trail.bytes());
    read("/var/audit/trail");
    EXPECT_EQ(valuesOf("record_time"), (std::vector<std::int64_t>{101, 101, 105, 105}))
        << "the second of the last event has been read before";
    EXPECT_EQ(EventCollector::LastTimeStamp(), 105U);
}

TEST_F(EventCollectorTest, TypeThatIsNotConfiguredMovesTheTimeOn) {
    addTrail("trail", TrailWriter()
                          .add(TrailRecord(kLogin).at(200s).returns(0))
                          .add(TrailRecord(kLogout).at(300s).returns(0))
                          .add(TrailRecord(kLogin).at(250s).returns(0))
                          .bytes());
    read("/var/audit/trail", Names{"AUE_su", "AUE_login"});
    EXPECT_EQ(valuesOf("record_time"), std::vector<std::int64_t>{200});
    EXPECT_EQ(EventCollector::LastTimeStamp(), 300U);
}

TEST_F(EventCollectorTest, ConfiguredNamesSelectTheTypes) {
    const std::pair<const char*, std::uint16_t> known[] = {
        {"AUE_auth_user", 45023}, {"AUE_sudo", 45028},     {"AUE_login", 6152},      {"AUE_logout", 6153},
        {"AUE_telnet", 6154},     {"AUE_rshd", 6158},      {"AUE_su", 6159},         {"AUE_ssh", 6172},
        {"AUE_openssh", 32800},   {"AUE_lw_login", 45021}, {"AUE_lw_logout", 45022}, {"AUE_ssauthint", 45026}};
    for (const auto& [name, number] : known) {
        const EventSelection selection(EventSelection::split(std::string("AUE_none,") + name + ",")),
            blank(EventSelection::split(std::string(name) + " ," + name + "x"));
        for (const auto& other : known) {
            EXPECT_EQ(selection.contains(other.second), other.second == number) << name;
            EXPECT_FALSE(blank.contains(other.second)) << name;
        }
    }
    EXPECT_TRUE(EventSelection(EventSelection::split(std::nullopt)).contains(1)) << "no list: every type";
    EXPECT_TRUE(EventSelection(Names()).contains(65535));
    EXPECT_FALSE(EventSelection(EventSelection::split("")).contains(kLogin)) << "one empty name: none";
}

TEST_F(EventCollectorTest, EachSourceThatIsOpenedBeginsASecondLater) {
    addTrail("trail", {});
    const EventCollector first("/var/audit/trail", std::nullopt);
    EXPECT_EQ(EventCollector::LastTimeStamp(), 101U);
    EXPECT_FALSE(first.shouldProcessRecord(kLogin, 100));
    EXPECT_TRUE(first.shouldProcessRecord(kLogin, 101));
    const EventCollector second("/dev/auditpipe", std::nullopt);
    EXPECT_EQ(EventCollector::LastTimeStamp(), 102U);
    const EventCollector missing("/var/audit/missing", std::nullopt);
    EXPECT_EQ(EventCollector::LastTimeStamp(), 102U);
}

TEST_F(EventCollectorTest, SourceThatNeedNotOrCannotBeReadIsCancelledAtOnce) {
    const auto record = TrailRecord(kLogin).at(500s).returns(0).bytes();
    volume().addTrail("older", record, 99s);
    volume().addTrail("equal", record, 100s);
    volume().addTrail("current", record, 5000s);
    const struct {
        const char* path;
        const char* message;
    } cases[] = {
        {"/var/audit/older", "[INFO]Skipping file /var/audit/older\r\n"},
        {"/var/audit/current", "[INFO]Skipping file /var/audit/current\r\n"},
        {"/var/audit/missing", "[ERROR]failed to open audit pipe /var/audit/missing\r\n"},
    };
    for (const auto& [path, message] : cases) {
        EventCollector collector(path, std::nullopt);
        EXPECT_TRUE(collector.isCancelled() && collector.isFinished()) << path;
        collector.start();
        EXPECT_EQ(logged(message), 1) << path;
    }
    EXPECT_EQ(logged("[ERROR]auditfile is null going to cancel"), 3);
    EXPECT_EQ(logged("[ERROR]FileNotOpen failed to open audit pipe\r\n"), 1);
    EXPECT_EQ(EventQueueGCD::length(), 0U);

    read("/var/audit/equal");
    EXPECT_EQ(EventQueueGCD::length(), 1U) << "modified at the second of the last event";
}

TEST_F(EventCollectorTest, DamagedTrailIsReadUpToTheDamageWhichIsLogged) {
    const auto good = TrailRecord(kLogin).at(200s).returns(0).bytes();
    const Data cut(good.begin(), good.begin() + 20);
    const Data garbage = {0, 1, 2, 3, 4};
    addTrail("cut", joined({good, cut}));
    addTrail("garbage", joined({good, garbage, good}));
    read("/var/audit/cut");
    read("/var/audit/garbage");
    EXPECT_EQ(EventQueueGCD::length(), 1U) << "the second file's record is of a second that was read";
    EXPECT_EQ(logged("[ERROR]20 bytes of /var/audit/cut are left unread"), 1);
    EXPECT_EQ(logged("[ERROR]" + std::to_string(garbage.size() + good.size()) + " bytes of /var/audit/garbage are "),
              1);
}

TEST_F(EventCollectorTest, FieldsComeFromTheTokensOfEveryLayout) {
    const Subject subject = {501, 502, 503, 504, 505, 506, 507, 0xFFFF0001, "192.0.2.7"};
    for (const auto layout : {Layout::k32, Layout::k64, Layout::k32Ex, Layout::k64Ex}) {
        restart();
        writeConfiguration();
        const FakeDirectory nobody;
        addTrail("trail", TrailRecord(kLogin)
                              .at(1000s, 999ms)
                              .header(layout)
                              .modifier(3)
                              .subject(subject, layout)
                              .path("/ignored")
                              .text("first")
                              .text("second")
                              .returns(7, 1)
                              .identity({.signingId = "com.apple.login"})
                              .bytes());
        read("/var/audit/trail");
        const auto events = spooled();
        ASSERT_EQ(events.size(), 1U);
        const auto text = Json::write(events[0]).optional().value_or("");
        EXPECT_TRUE(text.starts_with(
            R"({"record_version":11,"record_event":6152,"record_modifier":3,"record_time":1000,)"
            R"("subject_audit-uid":"501","subject_uid":"502","subject_gid":"503","subject_ruid":"504",)"
            R"("subject_rgid":"505","subject_pid":506,"subject_sid":507,"subject_port":4294901761,)"
            R"("subject_host-ip":"192.0.2.7","text_text":"second","return_retval":7,)"
            R"("return_errval":"failure : Operation not permitted","identity_signing-id":"com.apple.login",)"))
            << text;
    }
}

TEST_F(EventCollectorTest, TokensOutsideTheRulesLeaveTheFieldsAlone) {
    const Data unreadable = {0x28, 0xFF, 0xFF};
    auto twoInOne = TrailRecord(kLogin).at(400s).text("kept").raw(Data{0x13, 0xB1, 0x05, 0, 0, 0, 0}).text("late");
    addTrail("trail", TrailWriter()
                          .add(TrailRecord(kLogin).at(200s).returns64(9, 1).text("not \xFF UTF-8"))
                          .add(TrailRecord(kLogin).at(300s).raw(unreadable))
                          .add(twoInOne)
                          .bytes());
    read("/var/audit/trail");
    const auto events = spooled();
    ASSERT_EQ(events.size(), 2U);
    const auto& first = *events[0].dictionary();
    EXPECT_EQ(first["return_retval"], Value(0));
    EXPECT_EQ(first["return_errval"], Value("success"));
    EXPECT_FALSE(first.contains("text_text"));
    EXPECT_EQ((*events[1].dictionary())["text_text"], Value("kept")) << "nothing is taken after the trailer";
}

TEST_F(EventCollectorTest, ExcludedRecordIsLoggedAndItsHistoryWrittenBeforeTheReaderEnds) {
    TrailWriter trail;
    for (const auto second : {200s, 300s, 400s}) {
        trail.add(TrailRecord(45021).at(second).subject({.auditId = 4000}).returns(0));
    }
    addTrail("trail", trail.bytes());
    read("/var/audit/trail");
    EXPECT_EQ(EventQueueGCD::length(), 0U);
    EXPECT_EQ(logged("[INFO]Error/Exclusion in "), 3);
    std::ifstream in(volume().conf() / "currentLogins", std::ios::binary);
    const Data bytes(std::istreambuf_iterator<char>(in), {});
    const auto history = KeyedArchive::unarchive(bytes);
    ASSERT_TRUE(history);
    EXPECT_EQ(history->size(), 4U) << "with the owner of the console";
    EXPECT_EQ(history->at(400), (Dictionary{{"uid", "4000"}}));
}

TEST_F(EventCollectorTest, TimeIsStoredAsTextAndOnlyWhenItIsNewer) {
    addTrail("trail", TrailRecord(kLogin).at(5000s).returns(0).bytes());
    int announced = 0;
    const auto observer = NotificationCenter::defaultCenter().addObserver(EventQueueGCD::kTimeUpdateNotification,
                                                                          [&](const Notification&) { ++announced; });
    read("/var/audit/trail");
    EXPECT_EQ(announced, 1);
    const auto stored = volume().readConfiguration("myconfigurations.plist");
    ASSERT_TRUE(stored["TimestampOfLastEvent"].string());
    EXPECT_EQ(*stored["TimestampOfLastEvent"].string(), "5000");
    EXPECT_EQ(stored["AgentVersion"], Value("1.0.0")) << "the other keys stay";
    EXPECT_EQ(GlobalVariables::getInstance().timeStampOfLastEvent(), Value("5000"));

    EXPECT_EQ(logged("Timestamps are less than or same"), 0);
    EventCollector::storeTime();
    EXPECT_EQ(logged("[DEBUG]Timestamps are less than or same"), 1);
    myConfigurations.set("TimestampOfLastEvent", 6000);
    volume().writeConfiguration("myconfigurations.plist", myConfigurations);
    EventCollector::storeTime();
    EXPECT_EQ(logged("[DEBUG]Timestamps are less than or same"), 2) << "what somebody else stored counts";
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);
}

TEST_F(EventCollectorTest, TrailOfARealMacGivesItsLogonEventsOnce) {
    const std::string path = build::kRealTrail;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        GTEST_SKIP() << path << " is not there";
    }
    volume().addTrail("20131104183620.20131104184404", Data(std::istreambuf_iterator<char>(in), {}), 1383590700s);
    myConfigurations.set("TimestampOfLastEvent", "0");
    writeConfiguration();
    const auto console = clock().epochSeconds();
    const Names names = {"AUE_auth_user", "AUE_ssauthint", "AUE_lw_login", "AUE_logout"};
    const FakeDirectory nobody;
    read("/var/audit/20131104183620.20131104184404", names);

    const auto events = spooled();
    ASSERT_EQ(events.size(), 4U);
    const struct {
        int type;
        const char* user;
        int result;
        const char* text;
    } expected[] = {{45023, "moxilo", 5000, "failure: Unknown error: 255"},
                    {45023, "moxilo", 0, "success"},
                    {45023, "moxilo", 5000, "failure: Unknown error: 255"},
                    {6153, "501", 0, "success"}};
    for (std::size_t i = 0; i < events.size(); ++i) {
        const auto& event = *events[i].dictionary();
        EXPECT_EQ(event["EventCode"], Value(expected[i].type)) << i;
        EXPECT_EQ(event["UserName"], Value(expected[i].user)) << i;
        EXPECT_EQ(event["return_retval"], Value(expected[i].result)) << i;
        EXPECT_EQ(event["return_errval"], Value(expected[i].text)) << i;
    }
    EXPECT_EQ(currentLoginUtility::getLogonUserAtTime(1383590184), std::nullopt);
    EXPECT_EQ(currentLoginUtility::getLogonUserAtTime(1383590186), (Dictionary{{"uid", "501"}}));
    EXPECT_EQ(currentLoginUtility::getLogonUserAtTime(console - 2), (Dictionary{{"uid", "501"}}));
    EXPECT_NE(currentLoginUtility::getLogonUserAtTime(console), (Dictionary{{"uid", "501"}}));

    restart();
    read("/var/audit/20131104183620.20131104184404", names);
    EXPECT_EQ(EventQueueGCD::length(), 0U);
    EXPECT_EQ(logged("[INFO]Skipping file"), 0) << "the file was modified after its last record";
    // The console's owner, added at this start, takes what lies before the last event out of the memory.
    EXPECT_EQ(currentLoginUtility::getLogonUserAtTime(console - 2), std::nullopt);
}

TEST_F(EventCollectorTest, DeviceIsConfiguredInOrderAndRefusedAtTheFirstRequestThatFails) {
    using Request = platform::AuditPipeRequest;
    const std::vector<std::pair<Request, std::uint32_t>> all = {{Request::setPreselectMode, 1},
                                                                {Request::getQlimitMax, 0},
                                                                {Request::setQlimit, 77},
                                                                {Request::setPreselectFlags, 0x3000},
                                                                {Request::setPreselectNaflags, 0x3000}};
    const char* const names[] = {"SET_PRESELECT_MODE", "GET_QLIMIT_MAX", "SET_QLIMIT", "SET_PRESELECT_FLAGS",
                                 "SET_PRESELECT_NAFLAGS"};
    for (std::size_t failing = 1; failing <= all.size() + 1; ++failing) {
        RequestedDevice device(failing);
        const EventCollector collector("/dev/auditpipe", std::nullopt);
        const bool works = failing > all.size();
        EXPECT_EQ(collector.isCancelled(), !works);
        const auto made = static_cast<std::ptrdiff_t>(std::min(failing, all.size()));
        EXPECT_EQ(device.requests, decltype(device.requests)(all.begin(), all.begin() + made));
        if (!works) {
            EXPECT_EQ(logged(std::string("[ERROR]AUDITPIPE_") + names[failing - 1] + " Exception in ioctl\r\n"), 1);
        }
    }
    EXPECT_EQ(logged("failed to open audit pipe"), 0);
}

TEST_F(EventCollectorTest, PipeIsReadAcrossPartsAndWritersUntilItIsCancelled) {
    EventCollector collector("/dev/auditpipe", std::nullopt);
    std::thread reader([&] { collector.start(); });
    const auto record = TrailRecord(kLogin).at(1000s).returns(0).bytes();
    const auto half = record.size() / 2;
    const auto write = [&](std::size_t from, std::size_t to) {
        const FileDescriptor pipe(::open(volume().auditPipe().c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(::write(pipe.get(), record.data() + from, to - from), static_cast<ssize_t>(to - from));
    };
    write(0, half);
    write(half, record.size());
    EXPECT_TRUE(eventually([] { return EventQueueGCD::length() == 1; }));
    write(0, record.size());
    EXPECT_TRUE(eventually([] { return EventQueueGCD::length() == 2; }));
    EXPECT_TRUE(collector.isExecuting());

    // The reader waits for the device; nothing more is written.
    collector.cancel();
    reader.join();
    EXPECT_TRUE(collector.isFinished());
    EXPECT_FALSE(collector.isExecuting());
    EXPECT_EQ(logged("[ERROR]Reading /dev/auditpipe failed"), 0) << "a cancel is no failure";
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"], Value("1000"));
}

}  // namespace sentrova::testing
