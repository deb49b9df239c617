#include "volume/WorkingDay.h"

#include <array>
#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace sentrova::testing {

using namespace std::chrono_literals;

struct WorkingDay::Person {
    const char* name;
    std::uint32_t uid;
    // The last part of the domain SID; 0 for a local user.
    std::uint32_t relativeId;
};

const WorkingDay::Person WorkingDay::kAnna{"anna", 501, 0};
const WorkingDay::Person WorkingDay::kEva{"eva", 502, 0};
const WorkingDay::Person WorkingDay::kBruno{"bruno", 1108231001, 1104};
const WorkingDay::Person WorkingDay::kCarla{"carla", 1108231002, 1105};
const WorkingDay::Person WorkingDay::kDora{"dora", 1108231003, 1121};

namespace {

constexpr std::uint16_t kAuthUser = 45023;
constexpr std::uint16_t kSudo = 45028;
constexpr std::uint16_t kLogin = 6152;
constexpr std::uint16_t kLogout = 6153;
constexpr std::uint16_t kSu = 6159;
constexpr std::uint16_t kSsh = 6172;
constexpr std::uint16_t kOpenSsh = 32800;
constexpr std::uint16_t kConsoleLogin = 45021;
constexpr std::uint16_t kConsoleLogout = 45022;
constexpr std::uint16_t kAuthorization = 45026;

// The values of a rejected password: a status without an error number, and the directory's own code.
constexpr std::uint8_t kRefused = 255;
constexpr std::uint32_t kWrongPassword = 5000;

// The session of the system's own processes.
constexpr std::uint32_t kSystemSession = 100000;

Subject daemon(std::uint32_t process, std::uint32_t session = kSystemSession) {
    return {.processId = process, .sessionId = session, .port = process};
}

Subject userProcess(std::uint32_t uid, std::uint32_t process, std::uint32_t session) {
    return {uid, uid, 20, uid, 20, process, session, 0x03000002, "0.0.0.0"};
}

std::string verifyText(std::string_view user) {
    return fmt::format("Verify password for record type Users '{}' node '/Local/Default'", user);
}

}  // namespace

WorkingDay::WorkingDay(std::chrono::seconds startSinceEpoch, std::uint32_t seed)
    : start_(startSinceEpoch), random_(seed) {
    boot();
    wrongPassword(kBruno, 2min);
    consoleLogon(kBruno, 2min + 20s, 100005);
    for (auto at = 31min; at < 235min; at += std::chrono::minutes(20 + random(25))) {
        if (random(3) == 0) {
            touchId(at, 100005);
        } else {
            unlock(kBruno, at, 100005);
        }
    }
    touchId(48min, 100005);
    refusedAuthorization(kBruno, 95min);
    terminal(kBruno, 140min, 100005);
    remoteSession(kDora, 180min, "10.20.3.41");
    consoleLogout(kBruno, 4h, 100005);

    wrongPassword(kAnna, 4h + 58min);
    consoleLogon(kAnna, 4h + 59min, 100009);
    unlock(kAnna, 5h + 20min, 100009);
    terminal(kAnna, 5h + 25min, 100009);
    consoleLogout(kAnna, 5h + 40min, 100009);

    consoleLogon(kCarla, 6h, 100012);
    for (auto at = 375min; at < 570min; at += std::chrono::minutes(15 + random(20))) {
        unlock(kCarla, at, 100012);
    }
    touchId(6h + 9min, 100012);
    terminal(kCarla, 7h + 12min, 100012);
    wrongPassword(kCarla, 8h + 1min);
    refusedAuthorization(kEva, 8h + 30min);
    remoteSession(kEva, 8h + 45min, "10.20.3.77");
    remoteSession(kBruno, 9h + 5min, "2001:db8:20::17");
    consoleLogout(kCarla, kLength - 25min, 100012);

    for (auto at = 30s; at < kLength; at += std::chrono::seconds(35 + random(50))) {
        noise(at);
    }
    split();
}

TrailRecord& WorkingDay::add(std::uint16_t event, std::chrono::seconds time) {
    const auto entry = records_.emplace(time, TrailRecord(event));
    return entry->second.at(time, std::chrono::milliseconds(random(1000)));
}

TrailRecord& WorkingDay::logon(std::uint16_t event, std::chrono::seconds sinceStart) {
    ++logonRecords_;
    return add(event, start_ + sinceStart);
}

TrailRecord& WorkingDay::other(std::uint16_t event, std::chrono::seconds sinceStart) {
    ++otherRecords_;
    return add(event, start_ + sinceStart);
}

void WorkingDay::boot() {
    other(45029, 0s).text("launchctl::Audit recovery").path("/var/audit/crash_recovery").returns(0);
    other(45000, 0s).text("launchctl::Audit startup").returns(0);
    other(44901, 1s)
        .arg64(1, "sflags", 0x30)
        .arg32(2, "am_success", 0x3000)
        .arg32(3, "am_failure", 0x3000)
        .subject(daemon(0, 100004))
        .returns(0);
    for (const auto* mechanism : {"builtin:policy-banner", "loginwindow:login", "builtin:login-begin"}) {
        other(45030, 2s)
            .subject(daemon(67, 100004))
            .text("system.login.console")
            .text(fmt::format("mechanism {}", mechanism))
            .returns(0);
    }
}

void WorkingDay::wrongPassword(const Person& person, std::chrono::seconds at) {
    logon(kAuthUser, at)
        .subject(daemon(143, 100004))
        .text(verifyText(person.name))
        .returns(kWrongPassword, kRefused)
        .identity("com.apple.opendirectoryd");
}

void WorkingDay::consoleLogon(const Person& person, std::chrono::seconds at, std::uint32_t session) {
    other(45025, at).subject(daemon(67, session)).text("begin evaluation").returns(0);
    logon(kAuthUser, at + 1s)
        .subject(daemon(143, session))
        .text(verifyText(person.name))
        .returns(0)
        .identity("com.apple.opendirectoryd");
    logon(kAuthorization, at + 1s)
        .subject(daemon(145, session))
        .text(person.name)
        .returns(0)
        .identity("com.apple.authorizationhost");
    logon(kConsoleLogin, at + 2s)
        .subject(userProcess(person.uid, 67, session), Layout::k32Ex)
        .returns(0)
        .identity("com.apple.loginwindow");
    other(44903, at + 2s).arg64(1, "sflags", 0x1031).subject(userProcess(person.uid, 67, session)).returns(0);
}

void WorkingDay::consoleLogout(const Person& person, std::chrono::seconds at, std::uint32_t session) {
    logon(kConsoleLogout, at)
        .subject(userProcess(person.uid, 67, session), Layout::k32Ex)
        .returns(0)
        .identity("com.apple.loginwindow");
    logon(kLogout, at + 1s).subject(userProcess(person.uid, 67, session)).returns(0).identity("com.apple.loginwindow");
}

void WorkingDay::unlock(const Person& person, std::chrono::seconds at, std::uint32_t session) {
    if (random(4) == 0) {
        logon(kAuthUser, at - 5s)
            .subject(userProcess(person.uid, 67, session))
            .text(verifyText(person.name))
            .returns(kWrongPassword, kRefused)
            .identity("com.apple.loginwindow");
    }
    logon(kAuthUser, at)
        .subject(userProcess(person.uid, 67, session))
        .text(verifyText(person.name))
        .returns(0)
        .identity("com.apple.loginwindow");
}

void WorkingDay::touchId(std::chrono::seconds at, std::uint32_t session) {
    logon(kAuthUser, at)
        .header(Layout::k64)
        .subject(daemon(98, session))
        .text("Touch ID authentication")
        .returns(0)
        .identity("com.apple.coreauthd");
}

void WorkingDay::refusedAuthorization(const Person& person, std::chrono::seconds at) {
    logon(kAuthorization, at)
        .subject(daemon(145, 100005))
        .text(fmt::format("Authentication of user <{}> failed", person.name))
        .returns(60, kRefused)
        .identity("com.apple.authorizationhost");
}

void WorkingDay::terminal(const Person& person, std::chrono::seconds at, std::uint32_t session) {
    const auto shell = userProcess(person.uid, 2210 + random(900), session);
    logon(kLogin, at).subject(shell).text("successful login").returns(0).identity("com.apple.login");
    logon(kSudo, at + 40s)
        .subject(shell)
        .text("/usr/bin/less /var/log/install.log")
        .returns(1, 1)
        .identity("com.apple.sudo");
    logon(kSudo, at + 52s)
        .subject(shell)
        .text("/usr/bin/less /var/log/install.log")
        .returns(0)
        .identity("com.apple.sudo");
    logon(kSu, at + 3min).subject(shell).text("su: bad su").returns(1, kRefused).identity("com.apple.su");
    logon(kLogout, at + 6min).subject(shell).returns(0).identity("com.apple.login");
}

void WorkingDay::remoteSession(const Person& person, std::chrono::seconds at, const std::string& from) {
    const auto process = 4100 + random(900);
    auto caller = userProcess(person.uid, process, 100040 + random(50));
    caller.port = 0xD43A0016;
    caller.address = from;
    const std::string sshd = "com.apple.sshd";
    other(32, at).subject(daemon(4090)).arg32(1, "fd", 5).path("/usr/sbin/sshd").returns(0);
    logon(kOpenSsh, at)
        .header(Layout::k32Ex, from)
        .subject(caller, Layout::k32Ex)
        .text(fmt::format("invalid password for {}", person.name))
        .returns(1, kRefused)
        .identity(sshd);
    logon(kOpenSsh, at + 6s)
        .subject(caller, Layout::k32Ex)
        .text(fmt::format("successful login {}", person.name))
        .returns(0)
        .identity(sshd);
    logon(kSsh, at + 6s).subject(caller, Layout::k64Ex).text("session opened").returns(0).identity(sshd);
    logon(kLogout, at + 11min).subject(caller, Layout::k32Ex).text("session closed").returns(0).identity(sshd);
}

void WorkingDay::noise(std::chrono::seconds at) {
    const auto process = daemon(200 + random(4000));
    switch (random(8)) {
        case 0:
            other(72, at)
                .arg32(2, "flags", 0)
                .path("/private/etc/hosts")
                .attr32(0100644, 0, 0)
                .subject(process)
                .returns(3);
            break;
        case 1:
            other(23, at)
                .execArgs({"/bin/sh", "-c", "periodic daily"})
                .path("/bin/sh")
                .attr32(0100755, 0, 0)
                .subject(process)
                .returns(0)
                .identity("com.apple.sh");
            break;
        case 2:
            other(32, at).arg32(1, "fd", 7).sockInet32(443, "17.253.144.10").subject(process).returns(0);
            break;
        case 3:
            other(32, at).arg32(1, "fd", 9).sockUnix("/private/var/run/mDNSResponder").subject(process).returns(0, 2);
            break;
        case 4:
            other(15, at).arg32(2, "signal", 15).process(daemon(300 + random(90))).subject(process).returns(0);
            break;
        case 5:
            other(45025, at)
                .subject(process)
                .text("com.apple.ServiceManagement.daemons.modify")
                .text("client /usr/libexec/UserEventAgent")
                .returns(0);
            break;
        case 6:
            other(6, at).path("/private/tmp/.scratch").subject(process, Layout::k64).returns64(0).zoneName("global");
            break;
        default:
            other(26, at)
                .groups({20, 12, 61, 80})
                .opaque(std::array<std::uint8_t, 4>{1, 2, 3, 4})
                .subject(process)
                .returns(0);
    }
}

// Splits the day into trail files, as the audit daemon does when a file has grown. A file token begins and ends each.
void WorkingDay::split() {
    const auto stamp = [](std::chrono::seconds time) {
        return fmt::format("{:%Y%m%d%H%M%S}", fmt::gmtime(static_cast<std::time_t>(time.count())));
    };
    const std::array cuts = {0s,
                             std::chrono::seconds(3h),
                             std::chrono::seconds(5h),
                             std::chrono::seconds(7h + 30min),
                             std::chrono::seconds(kLength - 20min),
                             std::chrono::seconds(kLength)};
    auto next = records_.begin();
    for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
        const auto from = start_ + cuts[i];
        const auto to = start_ + cuts[i + 1];
        const bool open = i + 2 == cuts.size();
        Trail trail{stamp(from) + "." + (open ? "not_terminated" : stamp(to)), {}};
        const auto path = "/var/audit/" + trail.name;
        trail.content.addFile(from, path);
        for (; next != records_.end() && next->first < to; ++next) {
            trail.content.add(next->second);
        }
        if (!open) {
            trail.content.addFile(trail.content.lastTime(), path);
        }
        trails_.push_back(std::move(trail));
    }
}

void WorkingDay::putOn(SystemVolume& volume) const {
    const auto sid = [](const Person& person) {
        return fmt::format("S-1-5-21-1085031214-1563985344-725345543-{}", person.relativeId);
    };
    for (const auto& person : {kAnna, kEva}) {
        volume.addLocalUser(person.name, person.uid);
    }
    for (const auto& person : {kBruno, kCarla}) {
        volume.addDomainUser(person.name, person.uid, sid(person), "CORP");
    }
    // One record with the directory's standard attribute names, as in an export.
    volume.addUser(kDora.name, {{"dsAttrTypeStandard:RecordName", kDora.name},
                                {"dsAttrTypeStandard:UniqueID", kDora.uid},
                                {"dsAttrTypeStandard:PrimaryGroupID", 20},
                                {"dsAttrTypeStandard:SMBSID", sid(kDora)},
                                {"dsAttrTypeStandard:PrimaryNTDomain", "CORP"}});
    volume.addGroup("wheel", {{"name", "wheel"}, {"gid", 0}});
    volume.addGroup("staff", {{"name", "staff"}, {"gid", 20}});
    volume.addGroup("admin", {{"dsAttrTypeStandard:RecordName", "admin"}, {"dsAttrTypeStandard:PrimaryGroupID", 80}});
    for (const auto& [name, content] : trails_) {
        volume.addTrail(name, content.bytes(), content.lastTime());
    }
    volume.linkCurrentTrail(trails_.back().name);
}

}  // namespace sentrova::testing
