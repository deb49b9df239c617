// The commands `check` and `probe` of sentrovactl.

#include "BuildPaths.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/formats/Json.h"
#include "server/AuditServer.h"
#include "support/ControlProgram.h"
#include "volume/SystemVolume.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class CheckAndProbeTest : public ::testing::Test {
  protected:
    ControlOutcome run(Lines arguments) const {
        arguments.insert(arguments.begin(), {"--root", volume.agent()});
        return runControl(arguments, {}, {"SENTROVA_SYSTEM_VOLUME=" + volume.volume().string()});
    }
    // Expects the lines of the command to hold these texts, in this order, each from the line's beginning on, with
    // anything in place of "...". Returns the list in its JSON form, which has as many entries.
    Array expect(const Lines& arguments, int status, const Lines& texts, const char* list) const {
        const auto outcome = run(arguments);
        EXPECT_EQ(outcome.status, status);
        EXPECT_EQ(outcome.problems, "");
        std::istringstream output(outcome.output);
        for (const auto& text : texts) {
            std::string line;
            std::getline(output, line);
            const auto gap = text.find("...");
            EXPECT_TRUE(line.starts_with(text.substr(0, gap))) << text << "\n" << line;
            EXPECT_NE(line.find(gap == std::string::npos ? "" : text.substr(gap + 3)), std::string::npos)
                << text << line;
        }
        EXPECT_FALSE(output.peek() != EOF) << outcome.output;
        auto asJson = arguments;
        asJson.emplace_back("--json");
        const auto json = run(asJson);
        EXPECT_EQ(json.status, status);
        const auto parsed = Json::parse(json.output);
        const auto* const found = parsed ? (*parsed->dictionary())[list].array() : nullptr;
        EXPECT_TRUE(found && found->size() == texts.size()) << json.output;
        return found ? *found : Array();
    }
    void configure(const Dictionary& changes) {
        Dictionary content = {{"isEnabled", true},     {"EventsToRead", "AUE_sudo"}, {"NumberofEventsPerRequest", 20},
                              {"MaxEventDataSize", 1}, {"ServerIP", "127.0.0.1"},    {"NATServerName", "-"}};
        for (const auto& [key, value] : changes) {
            content.set(key, value);
        }
        volume.writeConfiguration("Serverinfo.plist", content);
    }

    SystemVolume volume;
};

TEST_F(CheckAndProbeTest, CheckTellsEachMistakeWithFileAndKey) {
    fs::copy(build::kShippedSchedules, volume.conf());
    volume.writeConfiguration("myconfigurations.plist", {{"TimestampOfLastEvent", "0"}});
    configure({{"Port", 8080}, {"Protocol", "https"}});
    expect({"check"}, 0, {}, "findings");

    configure({{"Protocol", "ftp"},
               {"Port", 70000},
               {"EventsToRead", "AUE_sudo, AUE_sshh"},
               {"NumberofEventsPerRequest", 0},
               {"MaxEventDataSize", 0},
               {"SyncTime", "soon"},
               {"FetchInterval", -1},
               {"ServerFQDM", "typo"}});
    volume.writeConfiguration("myconfigurations.plist", {{"TimestampOfLastEvent", "today"}, {"LogLevel", "loud"}});
    const Dictionary unnamed = {{"className", "ServerCommunicator"},
                                {"selector", "syncFromServer"},
                                {"IntervalSeconds", 60},
                                {"Repeat", true},
                                {"TaskStatus", "Enable"}};
    volume.writeConfiguration("schedules.plist", {{"ScheduleTasks", Array{unnamed}}});
    const auto folder = volume.root() / "new";
    fs::rename(volume.conf(), folder);
    std::ofstream(folder / "logfile.plist") << "damaged";
    const std::string server = "Serverinfo.plist: ";
    const auto findings = expect(
        {"check", folder}, 1,
        {server + "Port: 70000 is not a port", server + "Protocol: \"ftp\" is neither http nor https; requests",
         server + "EventsToRead: \" AUE_sshh\"...selects nothing", server + "NumberofEventsPerRequest: 0 is below 1",
         server + "MaxEventDataSize: 0...collection stops", server + "FetchInterval: -1",
         server + "SyncTime: \"soon\"...60 seconds", server + "ServerFQDM: unknown key...ServerFQDN",
         "myconfigurations.plist: TimestampOfLastEvent: \"today\"", "myconfigurations.plist: LogLevel: \"loud\"",
         "schedules.plist: ScheduleTasks[0].TaskName: missing", "logfile.plist: damaged"},
        "findings");
    ASSERT_EQ(findings.size(), 12U);
    EXPECT_EQ(findings[1], Value(Dictionary{{"file", "Serverinfo.plist"},
                                            {"key", "Protocol"},
                                            {"problem", "\"ftp\" is neither http nor https"},
                                            {"instead",
                                             "requests over this connection fail, and the next connection "
                                             "is tried"}}));
    EXPECT_TRUE((*findings[11].dictionary())["key"].isNull());
    EXPECT_EQ(textOf(folder / "logfile.plist"), "damaged");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 4) << "nothing was made or renamed";

    fs::remove(folder / "Serverinfo.plist");
    std::ofstream(folder / "schedules.plist") << "<plist>";
    expect({"check", folder}, 1,
           {server + "missing or empty", "myconfigurations.plist: T", "myconfigurations.plist: L",
            "schedules.plist: damaged: Not a property list", "logfile.plist: damaged"},
           "findings");
    for (const auto& missing : {run({"check"}), run({"check", "--json", "nowhere"}), run({"check", ""})}) {
        EXPECT_EQ(missing.status, 1);
        EXPECT_EQ(missing.output, "");
        EXPECT_NE(missing.problems.find(" cannot be checked: "), std::string::npos) << missing.problems;
    }
}

TEST_F(CheckAndProbeTest, ProbeTellsHowFarEachAddressGetsAndDeliversNothing) {
    AuditServer secure({.https = true});
    AuditServer plain;
    plain.fail({.status = 503, .count = -1});
    // Bound, but not listening.
    const FileDescriptor idle(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_TRUE(::bind(idle.get(), generic, length) == 0 && ::getsockname(idle.get(), generic, &length) == 0);
    const int port = ntohs(address.sin_port);
    const auto at = [](const char* scheme, int number) { return fmt::format("{}://127.0.0.1:{} ", scheme, number); };
    const auto connections = [&](int product, const char* protocol, int agent, int relay) {
        configure({{"OrgAccessKey", "0f6a4c1e9b7d"},
                   {"Port", product},
                   {"Protocol", protocol},
                   {"AgentPort", agent},
                   {"AgentProtocol", "http"},
                   {"NATServerName", "127.0.0.1"},
                   {"NATPort", relay},
                   {"NATProtocol", "http"}});
    };

    connections(secure.port(), "https", port, plain.port());
    const auto found =
        expect({"probe"}, 0,
               {
                   at("http", plain.port()) + "works: HTTP 503; connection ",
                   at("http", port) + "fails: the connection was refused",
                   at("https", secure.port()) + "works: HTTP ...TLS 1.3, certificate for audit-server, issued by "
                                                "CN = audit-server, expires 20",
               },
               "addresses");
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ((*found[1].dictionary())["works"], Value(false));
    const auto& entry = *found[2].dictionary();
    EXPECT_EQ(entry["address"], Value(fmt::format("https://127.0.0.1:{}", secure.port())));
    EXPECT_EQ(entry["works"], Value(true));
    const auto& tls = *entry["tls"].dictionary();
    EXPECT_EQ(tls["version"], Value("TLS 1.3"));
    EXPECT_EQ(tls["names"], Value(Array{"audit-server"}));
    EXPECT_EQ(tls["trusted"], Value(false));
    EXPECT_GT(tls["expires"].integerValue(), std::time(nullptr));
    EXPECT_NE(run({"probe"}).output.find(", not trusted by this system"), std::string::npos);
    for (const auto& request : plain.requests()) {
        EXPECT_EQ(request.method + request.path + request.body, "HEAD/");
        EXPECT_TRUE(
            std::ranges::none_of(request.headers, [](const auto& header) { return header.first == "OrgAccessKey"; }));
    }

    // From now on connections are made, but nobody answers on them.
    ASSERT_EQ(::listen(idle.get(), 8), 0);
    connections(port, "http", port, port);
    auto serverInfo = volume.readConfiguration("Serverinfo.plist");
    serverInfo.set("ServerFQDN", "no.such.name.invalid");
    serverInfo.set("AgentProtocol", "https");
    volume.writeConfiguration("Serverinfo.plist", serverInfo);
    const auto outcome = run({"probe"});
    EXPECT_EQ(outcome.status, 1);
    for (const auto& text : {at("http", port) + "fails: the answer timed out", std::string("could not be resolved"),
                             at("https", port) + "fails: the TLS handshake timed out"}) {
        EXPECT_NE(outcome.output.find(text), std::string::npos) << text << "\n" << outcome.output;
    }

    fs::remove(volume.conf() / "Serverinfo.plist");
    EXPECT_NE(run({"probe"}).problems.find("/conf/Serverinfo.plist: missing"), std::string::npos);
}

}  // namespace
}  // namespace sentrova::testing
