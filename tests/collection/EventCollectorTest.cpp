#include "collection/EventCollector.h"
#include "collection/currentLoginUtility.h"
#include "core/GlobalVariables.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "foundation/run/NotificationCenter.h"
#include "platform/AuditPipeDevice.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"
#include "volume/TrailWriter.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
using Names = std::vector<std::string>;

constexpr std::uint16_t kLogin = 6152;
constexpr std::uint16_t kLogout = 6153;

// Records the requests to the device. The data comes from the volume's pipe.
class RequestedDevice final : public platform::AuditPipeDevice {
  public:
    explicit RequestedDevice(std::size_t failing) : failing_(failing) {}

    Result<FileDescriptor> open(const std::string& path) override {
        return FileDescriptor(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    Result<std::uint32_t> request(const FileDescriptor&, platform::AuditPipeRequest request,
                                  std::uint32_t argument) override {
        requests.emplace_back(request, argument);
        return requests.size() == failing_                           ? Result<std::uint32_t>(posixError(ENOTTY))
               : request == platform::AuditPipeRequest::getQlimitMax ? 77
                                                                     : argument;
    }
    Result<std::uint64_t> drops(const FileDescriptor&) override { return std::uint64_t{0}; }

    std::vector<std::pair<platform::AuditPipeRequest, std::uint32_t>> requests;

  private:
    const std::size_t failing_;
    const Current<AuditPipeDevice>::Publication publication_{*this};
};

}  // namespace

// The batch size keeps all events in the spool's memory.
class EventCollectorTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventCollectorTest() {
        serverInfo.set("NumberofEventsPerRequest", 1000);
        myConfigurations.set("TimestampOfLastEvent", "100");
        restartConfigured();
    }

    // Reads a trail with these bytes, which counts as just modified.
    void readTrail(const TrailWriter& trail, std::optional<Names> names = std::nullopt) {
        volume().addTrail("trail", trail.bytes(), 5000s);
        EventCollector("/var/audit/trail", std::move(names)).start();
    }

    static Array spooled() {
        const auto batch = EventQueueGCD::dequeue(std::nullopt);
        const auto events = batch ? Json::parse(*batch) : Result<Value>(Value(Array()));
        return events && events->array() ? *events->array() : Array{"no array"};
    }
};

TEST_F(EventCollectorTest, RecordsOfTheConfiguredTypesAtOrAfterTheNewestOneAreCollected) {
    const std::pair<std::uint16_t, int> records[] = {{kLogin, 100}, {kLogin, 101},  {kLogin, 101}, {kLogin, 100},
                                                     {kLogin, 105}, {kLogin, 104},  {kLogin, 105}, {kLogin, 200},
                                                     {kLogin, 202}, {kLogout, 300}, {kLogin, 250}};
    TrailWriter trail;
    for (const auto& [type, second] : records) {
        trail.add(TrailRecord(type).at(std::chrono::seconds(second)).returns(0));
    }
    {
        // A read that a signal interrupts is repeated.
        FaultyFileSystem files([](const auto& path) { return path.ends_with("/trail"); });
        files.arm({.call = files.kRead, .error = EINTR, .number = 1});
        readTrail(trail, Names{"AUE_su", "AUE_login"});
        EXPECT_FALSE(files.met().empty());
    }
    Array times;
    for (const auto& event : spooled()) {
        times.push_back((*event.dictionary())["record_time"]);
    }
    EXPECT_EQ(times, (Array{101, 101, 105, 105, 200, 202}))
        << "the second of the last event has been read before, and other types move the time on";
    EXPECT_EQ(EventCollector::LastTimeStamp(), 300U);
}

TEST_F(EventCollectorTest, ConfiguredNamesSelectTheTypes) {
    const std::pair<const char*, std::uint16_t> known[] = {
        {"AUE_auth_user", 45023}, {"AUE_sudo", 45028},     {"AUE_login", 6152},      {"AUE_logout", 6153},
        {"AUE_telnet", 6154},     {"AUE_rshd", 6158},      {"AUE_su", 6159},         {"AUE_ssh", 6172},
        {"AUE_openssh", 32800},   {"AUE_lw_login", 45021}, {"AUE_lw_logout", 45022}, {"AUE_ssauthint", 45026}};
    for (const auto& [name, number] : known) {
        const EventSelection selection(EventSelection::split(std::string("AUE_none,") + name + ","));
        EXPECT_EQ(std::ranges::count_if(known, [&](auto& other) { return selection.contains(other.second); }), 1);
        EXPECT_TRUE(selection.contains(number)) << name;
        EXPECT_FALSE(EventSelection(EventSelection::split(std::string(name) + " ," + name + "x")).contains(number));
    }
    EXPECT_TRUE(EventSelection(EventSelection::split(std::nullopt)).contains(1)) << "no list: every type";
    EXPECT_TRUE(EventSelection(Names()).contains(65535));
    EXPECT_FALSE(EventSelection(EventSelection::split("")).contains(kLogin)) << "one empty name: none";
}

TEST_F(EventCollectorTest, OpeningASourceMovesTheTimeForwardByOneSecondAndUnsuitableFilesAreRefused) {
    const auto record = TrailRecord(kLogin).at(500s).returns(0).bytes();
    volume().addTrail("older", record, 99s);
    volume().addTrail("equal", record, 100s);
    volume().addTrail("current", record, 5000s);
    ASSERT_EQ(::mkfifo((volume().auditFolder() / "fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(volume().auditFolder() / "folder");
    const std::tuple<const char*, const char*, std::uint64_t> cases[] = {
        {"/var/audit/older", "[INFO]Skipping file /var/audit/older\r\n", 100},
        {"/var/audit/current", "[INFO]Skipping file /var/audit/current\r\n", 100},
        {"/var/audit/missing", "[ERROR]failed to open audit pipe /var/audit/missing\r\n", 100},
        {"/var/audit/fifo", "/fifo\" is skipped: it is not a regular file\r\n", 100},
        {"/var/audit/folder", "/folder\" is skipped: it is not a regular file\r\n", 100},
        {"/var/audit/equal", nullptr, 101},
        {"/dev/auditpipe", nullptr, 102},
    };
    for (const auto& [path, refusal, time] : cases) {
        SCOPED_TRACE(path);
        EventCollector collector(path, std::nullopt);
        EXPECT_EQ(EventCollector::LastTimeStamp(), time);
        EXPECT_EQ(collector.isCancelled() && collector.isFinished(), refusal != nullptr);
        if (refusal) {
            collector.start();
            EXPECT_EQ(logged(refusal), 1);
        }
    }
    EXPECT_EQ(logged("[ERROR]auditfile is null going to cancel"), 5);
    EXPECT_EQ(logged("[ERROR]FileNotOpen failed to open audit pipe\r\n"), 3);
    EXPECT_EQ(EventQueueGCD::length(), 0U);
}

TEST_F(EventCollectorTest, TimeNeverGoesBackAndIsNotMovedByACancelledReader) {
    serverInfo.set("NumberofEventsPerRequest", 1);
    myConfigurations.set("TimestampOfLastEvent", "-1");
    writeConfiguration();
    restart();
    volume().addTrail("late", TrailWriter().add(TrailRecord(kLogin).at(200s)).add(TrailRecord(kLogin).at(300s)).bytes(),
                      5000s);
    EventCollector late("/var/audit/late", Names{"AUE_login"});
    EXPECT_EQ(EventCollector::LastTimeStamp(), 1U) << "as if nothing had been stored";
    // Posted during the delivery of the second event: another reader finishes before this one.
    const auto overtake = [&](const Notification&) {
        late.cancel();
        const EventCollector other("/var/audit/late", std::nullopt);
        EXPECT_TRUE(other.shouldProcessRecord(kLogout, 1000));
    };
    const auto observer =
        NotificationCenter::defaultCenter().addObserver(EventQueueGCD::kEventFileNotification, overtake);
    late.start();
    EXPECT_EQ(EventCollector::LastTimeStamp(), 1000U);
    EXPECT_EQ(spooled().size(), 1U) << "the late event is still delivered";
    EXPECT_FALSE(late.shouldProcessRecord(kLogin, 1001)) << "left to the next reader";
    EXPECT_TRUE(late.shouldProcessRecord(kLogin, 1000));
    EXPECT_EQ(EventCollector::LastTimeStamp(), 1000U);

    constexpr auto kLast = std::numeric_limits<std::uint64_t>::max();
    const EventCollector reader("/var/audit/late", std::nullopt);
    EXPECT_TRUE(reader.shouldProcessRecord(kLogin, kLast));
    const EventCollector next("/var/audit/late", std::nullopt);
    EXPECT_EQ(EventCollector::LastTimeStamp(), kLast) << "there is no second after it";
}

TEST_F(EventCollectorTest, EventHasTheFieldsOfItsRecordWithSignedNumbersAndNames) {
    GlobalVariables::getInstance().load();
    volume().addDomainUser("anna", 501, "S-1-5-21-7", "CORP");
    volume().addLocalUser("lars", 502);
    volume().addGroup("staff", {{"name", "staff"}, {"gid", 20}});
    const Subject subject = {501,        0xFFFFFFFF,         20,         502, 0xFFFFFFF0, 0xFFFFFFFF,
                             0x80000000, 0xFFFFFFFFFFFFFFFE, "192.0.2.7"};
    readTrail(TrailWriter().add(TrailRecord(45028)
                                    .at(1794743000s, 999ms)
                                    .version(0xFF)
                                    .modifier(0xFFFF)
                                    .subject(subject, Layout::k64Ex)
                                    .path("/ignored")
                                    .text("first")
                                    .text("\"two\" words")
                                    .returns(0xFFFFFFFF, 1)
                                    .identity("com.apple.sudo")));
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt),
              R"([{"record_version":-1,"record_event":45028,"record_modifier":65535,"record_time":1794743000,)"
              R"("subject_audit-uid":"anna","subject_uid":"-1","subject_gid":"staff","subject_ruid":"lars",)"
              R"("subject_rgid":"-16","subject_pid":-1,"subject_sid":-2147483648,"subject_port":-2,)"
              R"("subject_host-ip":"192.0.2.7","text_text":"\"two\" words","return_retval":-1,)"
              R"("return_errval":"failure : Operation not permitted","identity_signing-id":"com.apple.sudo",)"
              R"("EventCode":45028,"MachineType":4096,"EventSource":"OpenBSM","IsParsedEvent":"true",)"
              R"("DomainName":"corp.example.com","Logon Type":"2","UserName":"anna",)"
              R"("Source Workstation":"mac-042","UserSid":"S-1-5-21-7"}])");
}

TEST_F(EventCollectorTest, MissingOrMalformedTokensLeaveTheirFieldsUnset) {
    volume().setDirectoryTool("", 1);
    serverInfo.remove("DomainName");
    writeConfiguration();
    const Data unreadable = {0x28, 0xFF, 0xFF};
    Data tooLong = {0x14, 1, 0, 0, 1};
    tooLong.resize(16 * 1024 * 1024 + 1);
    const auto file = TrailWriter().addFile(200s, "/x").bytes();
    auto twoInOne = TrailRecord(kLogin).at(400s).text("kept").raw(Data{0x13, 0xB1, 0x05, 0, 0, 0, 0}).text("late");
    readTrail(TrailWriter()
                  .addRaw(file)
                  .addRaw(tooLong)
                  .add(TrailRecord(kLogin).at(200s).returns64(9, 1).text("not \xFF UTF-8"))
                  .add(TrailRecord(kLogin).at(300s).raw(unreadable))
                  .add(TrailRecord(45021).at(300s).subject({.auditId = 4000}).returns(0))
                  .add(twoInOne));
    const auto events = spooled();
    ASSERT_EQ(events.size(), 2U);
    const auto& first = *events[0].dictionary();
    EXPECT_EQ(first["return_retval"], Value(0));
    EXPECT_EQ(first["return_errval"], Value("success"));
    for (const auto* key : {"text_text", "identity_signing-id", "DomainName", "Source Workstation"}) {
        EXPECT_FALSE(first.contains(key)) << key;
    }
    EXPECT_EQ((*events[1].dictionary())["text_text"], Value("kept")) << "nothing is taken after the trailer";
    EXPECT_EQ(logged("[INFO]Error/Exclusion in "), 1);
    EXPECT_EQ(currentLoginUtility::getLogonUserAtTime(300), (Dictionary{{"uid", "4000"}}));
    EXPECT_EQ(logged("[ERROR]A record of 16777217 bytes at offset 14 of /var/audit/trail is skipped"), 1);
    readTrail(TrailWriter().addRaw(file).addRaw(std::span(tooLong).first(6)));
    EXPECT_EQ(logged("[ERROR]6 bytes of /var/audit/trail are left unread: the data at offset 14 is a truncated record"),
              1);
}

TEST_F(EventCollectorTest, TimeThatComesBeforeTheFirstPassIsUsed) {
    myConfigurations.set("TimestampOfLastEvent", 5000);
    writeConfiguration();
    GlobalVariables::getInstance().initialiseMyConfigurations();
    EXPECT_EQ(EventCollector::LastTimeStamp(), 5000U);
}

TEST_F(EventCollectorTest, TimeIsStoredAsTextAndOnlyWhenItIsNewer) {
    int announced = 0;
    const auto observer = NotificationCenter::defaultCenter().addObserver(EventQueueGCD::kTimeUpdateNotification,
                                                                          [&](const Notification&) { ++announced; });
    readTrail(TrailWriter().add(TrailRecord(kLogin).at(5000s).returns(0)));
    EXPECT_EQ(announced, 1);
    auto stored = myConfigurations;
    stored.set("TimestampOfLastEvent", "5000");
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), stored) << "the other keys stay";
    EXPECT_EQ(GlobalVariables::getInstance().timeStampOfLastEvent(), Value("5000"));

    EXPECT_EQ(logged("Timestamps are less than or same"), 0);
    Current<LastRead>::get().store();
    EXPECT_EQ(logged("[DEBUG]Timestamps are less than or same"), 1);
    myConfigurations.set("TimestampOfLastEvent", 6000);
    volume().writeConfiguration("myconfigurations.plist", myConfigurations);
    Current<LastRead>::get().store();
    EXPECT_EQ(logged("[DEBUG]Timestamps are less than or same"), 2) << "what somebody else stored counts";
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);
    myConfigurations.set("TimestampOfLastEvent", 100);
    myConfigurations.set("AgentAuthID", "");
    volume().writeConfiguration("myconfigurations.plist", myConfigurations);
    EXPECT_NO_THROW(Current<LastRead>::get().store()) << "no identity can be loaded";
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"], Value("5000"));
}

TEST_F(EventCollectorTest, DeviceIsConfiguredInOrderAndRefusedAtTheFirstRequestThatFails) {
    using Request = platform::AuditPipeRequest;
    const std::tuple<Request, std::uint32_t, std::string> all[] = {
        {Request::setPreselectMode, 1, "SET_PRESELECT_MODE"},
        {Request::getQlimitMax, 0, "GET_QLIMIT_MAX"},
        {Request::setQlimit, 77, "SET_QLIMIT"},
        {Request::setPreselectFlags, 0x3000, "SET_PRESELECT_FLAGS"},
        {Request::setPreselectNaflags, 0x3000, "SET_PRESELECT_NAFLAGS"}};
    decltype(RequestedDevice::requests) expected;
    for (const auto& [request, argument, name] : all) {
        expected.emplace_back(request, argument);
        const RequestedDevice device(expected.size());
        EXPECT_TRUE(EventCollector("/dev/auditpipe", std::nullopt).isCancelled());
        EXPECT_EQ(device.requests, expected);
        EXPECT_EQ(logged("[ERROR]AUDITPIPE_" + name + " Exception in ioctl\r\n"), 1);
    }
    const RequestedDevice device(0);
    EXPECT_FALSE(EventCollector("/dev/auditpipe", std::nullopt).isCancelled());
    EXPECT_EQ(device.requests, expected);
    EXPECT_EQ(logged("failed to open audit pipe"), 0);
}

}  // namespace sentrova::testing
