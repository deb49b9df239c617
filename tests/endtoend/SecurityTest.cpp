// What other users must not get out of the agent or into it: the agent's own program in a hostile environment.

#include "endtoend/EndToEnd.h"
#include "foundation/formats/Json.h"

#include <sys/stat.h>

#include <regex>
#include <span>

#include <fmt/chrono.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class SecurityTest : public EndToEnd {
  protected:
    SecurityTest() { addNineEvents(1'700'000'000s); }

    // Two full batches in files, and one event in memory.
    void addNineEvents(std::chrono::seconds begin) { addTrail(volume, sudoTrail(begin, 0, 9)); }
    static void write(const fs::path& path, const std::string& text, std::chrono::hours age = 0h) {
        std::ofstream(path) << text;
        fs::last_write_time(path, fs::file_time_type::clock::now() - age);
    }
    fs::path logFile(std::string_view category, std::chrono::hours later = 0h) const {
        const auto time = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() + later);
        return volume.logs() / fmt::format("{}{:%F}.log", category, fmt::gmtime(time));
    }
    std::string logs() const { return log() + log("Communication"); }
};

TEST_F(SecurityTest, EverythingTheAgentCreatesIsForItsOwnerOnly) {
    configure();
    fs::remove(volume.eventData());
    write(volume.conf() / "schedules.plist", "damaged");
    write(volume.logs() / "Config2020-01-01.log", "old", 300h);
    write(logFile("Event"), std::string(10'485'761, 'x'));
    const auto inodes = [this] {
        std::map<fs::path, ino_t> found;
        for (const auto& entry : fs::recursive_directory_iterator(volume.agent())) {
            struct stat status{};
            EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
            found[entry.path()] = status.st_ino;
        }
        return found;
    };
    const auto before = inodes();
    server.fail({.path = AuditServer::kEventsPath, .count = -1});
    const auto mask = ::umask(0);
    RunningAgent agent(build::kAgent, volume);
    ::umask(mask);
    ASSERT_TRUE(waitForLog(volume, "Communication", "TransportEngine isconnected changed to 0"));
    ASSERT_TRUE(waitUntil([&] { return !fs::is_empty(volume.eventData()); }));
    ASSERT_TRUE(waitUntil([&] { return !fs::exists(volume.logs() / "Config2020-01-01.log"); }));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_NE(log().find("events in memory were not delivered; this stop discards them"), std::string::npos);
    std::map<std::string, int> made;
    for (const auto& [path, inode] : inodes()) {
        if (const auto known = before.find(path); known == before.end() || known->second != inode) {
            const auto mode = static_cast<unsigned>(fs::symlink_status(path).permissions());
            EXPECT_EQ(mode, fs::is_directory(path) ? 0700U : 0600U) << path;
            ++made[path.parent_path().filename().string() + "/*" + path.extension().string()];
        }
    }
    for (const auto* kind : {"agent/*", "conf/*", "conf/*.plist", "conf/*.damaged", "logs/*.log", "logs/*.zip",
                             "archive/*.zip", "eventData/*"}) {
        EXPECT_GT(made[kind], 0) << kind;
    }
}

TEST_F(SecurityTest, LinksPlantedInTheFoldersAreNamedAndNotFollowed) {
    configure();
    const auto outside = volume.root() / "outside";
    fs::create_directories(outside / "archive");
    fs::remove(volume.logs() / "archive");
    const fs::path links[] = {volume.conf() / "logfile.plist", volume.conf() / "currentLogins",
                              volume.conf() / "schedules.plist", logFile("Config"), volume.logs() / "Old.log",
                              volume.logs() / "Aged.zip", volume.logs() / "archive",
                              volume.eventData() / "event_20200101000000000",
                              // Not refused, but present: tomorrow's log, and files that are removed at the start.
                              logFile("Config", 24h), volume.eventData() / ".event_1.1.1.sentrova-tmp"};
    for (const auto& link : links) {
        const auto target = outside / link.filename();
        if (!fs::exists(target)) {
            write(target, R"([{"planted":1}])", 300h);
        }
        fs::create_symlink(target, link);
    }
    // Other users can then have created the links.
    fs::permissions(volume.agent(), fs::perms::others_write, fs::perm_options::add);
    const std::pair<fs::path, fs::perms> open[] = {{volume.conf(), fs::perms::others_write},
                                                   {volume.logs(), fs::perms::group_write},
                                                   {volume.eventData(), fs::perms::others_write}};
    for (const auto& [folder, writers] : open) {
        fs::permissions(folder, writers, fs::perm_options::add);
    }
    write(volume.logs() / "Aged.log", "aged", 300h);
    write(volume.logs() / "Moved.log", "aged", 300h);
    const auto state = [&outside] {
        std::map<fs::path, std::string> contents;
        for (const auto& entry : fs::recursive_directory_iterator(outside)) {
            contents[entry.path()] = entry.is_directory() ? "" : textOf(entry.path());
        }
        return contents;
    };
    const auto before = state();
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(8)) << logs();
    for (const auto* name : {"/Old.log", "/Aged.log"}) {
        ASSERT_TRUE(waitUntil([&] { return logs().find(name + std::string(" is not zipped")) != std::string::npos; }));
    }
    EXPECT_EQ(agent.stop(), 0);

    EXPECT_EQ(state(), before);
    for (const auto& request : server.requests()) {
        EXPECT_EQ(request.body.find("planted"), std::string::npos);
    }
    const auto text = logs();
    for (const auto& link : std::span(links).first(8)) {
        const auto name = "/" + link.filename().string();
        EXPECT_TRUE(std::regex_search(text, std::regex("\\]\\[ERROR\\][^\n]*" + name + "[^\n]*symbolic link"))) << link;
    }
    EXPECT_FALSE(fs::is_symlink(std::rbegin(links)[0])) << "an unfinished file stays";
    for (const auto& [folder, writers] : open) {
        const auto line = "can change the folder " + volume.bin().string() + "/../" + folder.filename().string();
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
    EXPECT_TRUE(fs::exists(volume.logs() / "Moved.log"));
}

TEST_F(SecurityTest, IdentityAndAccessKeyAreInNoLogInAnyForm) {
    // However a value is escaped in the text, its letters stay the same.
    const std::string letters[] = {"KernelOfMyWord", "SubstanceOfMyLatch"};
    serverInfo.set("OrgAccessKey", "\"/+&=%20\\<" + letters[1]);
    configure();
    const auto bare = *Json::write(Dictionary{{"OrgAccessKey", serverInfo["OrgAccessKey"]}});
    serverInfo.set("AgentGuid", "guid");
    serverInfo.set("DomainID", "7");
    serverInfo.set("AgentAuthID", "\"/+&=%20\\<" + letters[0] + "\xC3\xA9");
    const auto good = *Json::write(serverInfo);
    server.setAnswer(good);
    // The names of the keys as escape sequences, which are equivalent.
    auto escaped = good;
    for (const std::string name : {"OrgAccessKey", "AgentAuthID"}) {
        escaped.replace(escaped.find(name), 1, fmt::format("\\u{:04x}", name.front()));
    }
    const std::pair<int, std::string> answers[] = {
        {200, good},
        {500, bare},
        {200, bare.substr(0, bare.size() - 1) + " and so on"},
        {200, good.substr(0, good.find("Kernel") + 12)},
        {200, R"([{"a":[)" + bare + "]}]"},
        {200, escaped},
    };
    auto begin = 1'700'000'000s;
    for (const auto& [status, body] : answers) {
        server.fail({.path = AuditServer::kSyncPath, .status = status, .body = body});
        server.fail({.path = AuditServer::kEventsPath, .status = status, .body = body});
        addNineEvents(begin += 1000s);
        std::error_code firstTime;
        fs::rename(logFile("Communication"), volume.logs() / fmt::format("Communication{}", begin.count()), firstTime);
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(waitForLog(volume, "Communication2", "EventForwarder DATA= "));
        EXPECT_EQ(agent.stop(), 0);
    }
    const auto requests = server.requests();
    EXPECT_EQ(requests.front().body.find("AgentAuthID"), std::string::npos);
    EXPECT_TRUE(std::ranges::any_of(requests, [&](const auto& request) {
        return request.body.find(letters[0]) != std::string::npos;
    })) << "it is sent from the next start on";
    const auto stored = volume.readConfiguration("myconfigurations.plist")["AgentAuthID"].description();
    EXPECT_EQ(stored.size(), 32U + 44U) << "characters at random, and 32 bytes of cipher text in base64";
    EXPECT_EQ(stored.find("Kernel"), std::string::npos);
    const auto text = logs();
    for (const auto& secret : letters) {
        for (std::size_t i = 0; i + 6 <= secret.size(); ++i) {
            const auto piece = secret.substr(i, 6);
            EXPECT_EQ(text.find(piece), std::string::npos) << piece;
            EXPECT_EQ(text.find(fmt::format("{:02x}", fmt::join(piece, ""))), std::string::npos)
                << piece << " as bytes";
        }
        for (const std::size_t shift : {0U, 1U, 2U}) {
            std::string encoded(100, '\0');
            const auto* bytes = reinterpret_cast<const unsigned char*>(secret.data()) + shift;
            encoded.resize(
                static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()), bytes, 12)));
            EXPECT_EQ(text.find(encoded), std::string::npos) << "in base64";
        }
    }
}

}  // namespace
}  // namespace sentrova::testing
