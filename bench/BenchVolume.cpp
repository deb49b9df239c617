#include "BenchVolume.h"

#include "support/RunningAgent.h"
#include "volume/TrailRecord.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

namespace sentrova::bench {

using testing::TrailRecord;

namespace {

constexpr std::chrono::seconds kBegin{1'763'200'000};
constexpr std::uint32_t kFirstOfEight = 4001;
constexpr std::size_t kBlock = 200;
constexpr const char* kOpenTrail = "20251115094640.not_terminated";

testing::Subject person(std::size_t i) {
    const auto id = kFirstOfEight + static_cast<std::uint32_t>(i % 8);
    return {.auditId = id,
            .effectiveUserId = 0,
            .effectiveGroupId = 20,
            .realUserId = id,
            .realGroupId = 20,
            .processId = static_cast<std::uint32_t>(1000 + i),
            .sessionId = 100'007,
            .port = 0x1000002,
            .address = "10.20.3.41"};
}

// The subject of a daemon without an audit user, under a deleted account.
testing::Subject stranger(std::size_t i) {
    auto subject = person(i);
    subject.auditId = 0xFFFFFFFF;
    subject.effectiveUserId = subject.realUserId = 70'001;
    subject.effectiveGroupId = subject.realGroupId = 70'002;
    return subject;
}

TrailRecord selectedRecord(std::size_t i, const testing::Subject& subject) {
    if (i % 3 == 0) {
        return TrailRecord(45023)
            .subject(subject, testing::Layout::k32Ex)
            .text(fmt::format("Verify password for record type Users 'person{}' node '/Active Directory/CORP'", i % 8))
            .returns(5000, 255)
            .identity("com.apple.opendirectoryd");
    }
    return TrailRecord(45028)
        .subject(subject, testing::Layout::k32Ex)
        .text("system.privilege.admin")
        .returns(0)
        .identity("com.apple.sudo");
}

// The bulk of a Mac's trail: sessions, authorization mechanisms, files and programs.
TrailRecord otherRecord(std::size_t i) {
    switch (i % 4) {
        case 0:
            return TrailRecord(44901)
                .arg64(1, "sflags", 0x30)
                .arg32(2, "am_success", 0x3000)
                .arg32(3, "am_failure", 0x3000)
                .subject(person(i), testing::Layout::k32Ex)
                .returns(0)
                .identity("com.apple.securityd");
        case 1:
            return TrailRecord(45030)
                .subject(person(i), testing::Layout::k32Ex)
                .text("system.login.screensaver")
                .text("mechanism builtin:authenticate,privileged")
                .returns(0);
        case 2:
            return TrailRecord(72)
                .arg32(2, "flags", 0x601)
                .path("/private/var/folders/zz/zyxvpxvq6csfxvn_n0000000000000/T/com.apple.cache")
                .attr32(0100644, 501, 20)
                .subject(person(i), testing::Layout::k32Ex)
                .returns(0);
        default:
            return TrailRecord(23)
                .execArgs({"/usr/bin/xcrun", "--find", "clang"})
                .path("/usr/bin/xcrun")
                .attr32(0100755, 0, 0)
                .subject(person(i), testing::Layout::k32Ex)
                .returns(0)
                .identity("com.apple.xcrun");
    }
}

// The records of one second. `ends` and `seconds` are offsets into `bytes`: where each record ends, and where its
// header holds the time.
struct Block {
    std::string bytes;
    std::vector<std::size_t> ends;
    std::vector<std::size_t> seconds;
};

Block makeBlock(BenchVolume::Selected selected, BenchVolume::Ids ids) {
    constexpr std::size_t kSecondsInHeader = 10;
    Block block;
    for (std::size_t i = 0; i < kBlock; ++i) {
        const bool chosen = selected == BenchVolume::Selected::all ||
                            (selected == BenchVolume::Selected::fiveInHundred && i % 20 == 19);
        const bool unknown = ids == BenchVolume::Ids::halfUnknown && i / 20 % 2 == 1;
        const auto bytes = (chosen ? selectedRecord(i, unknown ? stranger(i) : person(i)) : otherRecord(i)).bytes();
        block.seconds.push_back(block.bytes.size() + kSecondsInHeader);
        block.bytes.append(bytes.begin(), bytes.end());
        block.ends.push_back(block.bytes.size());
    }
    return block;
}

}  // namespace

BenchVolume::BenchVolume(const Configuration& configuration)
    : logLevel_(configuration.logLevel),
      durable_(configuration.durable),
      volume_(testing::SystemVolume::TemporaryIn{configuration.folder}) {
    auto serverInfo = testing::loopbackConfiguration(configuration.port);
    serverInfo.set("ServerFQDN", "127.0.0.1");
    serverInfo.set("NumberofEventsPerRequest", configuration.eventsPerRequest);
    serverInfo.set("MaxEventDataSize", 100);
    serverInfo.set("IsRealTime", configuration.realtime);
    std::string names;
    for (const auto& name : eventsToRead()) {
        names += (names.empty() ? "" : ",") + name;
    }
    serverInfo.set("EventsToRead", names);
    volume_.writeConfiguration("Serverinfo.plist", serverInfo);
    writeOwnConfiguration();
    for (std::uint32_t i = 0; i < 8; ++i) {
        volume_.addDomainUser(fmt::format("person{}", i), kFirstOfEight + i, fmt::format("S-1-5-21-7-{}", i), "CORP");
    }
    volume_.addLocalUser("root", 0);
    volume_.addGroup("staff", {{"name", "staff"}, {"gid", 20}});
}

// The agent keeps its progress in this file. No event has been read yet.
void BenchVolume::writeOwnConfiguration() {
    volume_.writeConfiguration("myconfigurations.plist", {{"TimestampOfLastEvent", "0"},
                                                          {"LogLevel", logLevel_},
                                                          {"AgentVersion", "1.0"},
                                                          {"CommunicationType", 1},
                                                          {"DurableDelivery", durable_}});
}

std::filesystem::path BenchVolume::addTrail(std::string_view name, std::size_t records, Selected selected, Ids ids) {
    auto block = makeBlock(selected, ids);
    const auto path = volume_.auditFolder() / name;
    std::ofstream out(path, std::ios::binary);
    auto time = static_cast<std::uint32_t>(kBegin.count());
    for (std::size_t left = records; left > 0; ++time) {
        for (const auto at : block.seconds) {
            for (std::size_t byte = 0; byte < 4; ++byte) {
                block.bytes[at + byte] = static_cast<char>(time >> (24 - 8 * byte));
            }
        }
        const auto count = std::min(left, kBlock);
        out.write(block.bytes.data(), static_cast<std::streamsize>(block.ends[count - 1]));
        left -= count;
    }
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
    return path;
}

void BenchVolume::addUsers(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        volume_.addDomainUser(fmt::format("user{}", i), kFirstUserId + static_cast<std::uint32_t>(i),
                              fmt::format("S-1-5-21-8-{}", i), "CORP");
    }
}

void BenchVolume::enter() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    ::setenv("SENTROVA_SYSTEM_VOLUME", volume_.volume().c_str(), 1);
    std::filesystem::current_path(volume_.bin());
    writeOwnConfiguration();
    if (entered_) {
        entered_->leave();
    }
    entered_ = this;
    agent_.emplace(host_.host(session_));
    Logger::getInstance().load(NotificationCenter::defaultCenter());
    GlobalVariables::getInstance().load();
}

void BenchVolume::leave() {
    if (entered_ == this) {
        entered_ = nullptr;
        agent_.reset();
    }
}

LiveTrail::LiveTrail(const testing::SystemVolume& volume)
    : trail_(volume.auditFolder() / kOpenTrail, std::ios::binary),
      device_(::open(volume.auditPipe().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
    std::filesystem::create_symlink(kOpenTrail, volume.auditFolder() / "current");
}

void LiveTrail::writeSelected() {
    const auto now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    const auto bytes = selectedRecord(records_, person(records_)).at(now).bytes();
    ++records_;
    trail_.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    trail_.flush();
    if (!trail_ || ::write(device_.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("cannot write to the open trail and the audit device");
    }
}

std::vector<std::string> eventsToRead() {
    return {"AUE_auth_user", "AUE_sudo", "AUE_login", "AUE_logout", "AUE_ssh", "AUE_ssauthint", "AUE_lw_login"};
}

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace sentrova::bench
