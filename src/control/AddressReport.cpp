#include "control/AddressReport.h"

#include "control/TimeArgument.h"
#include "core/ConfigurationCheck.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "forwarding/AddressChoice.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <cctype>
#include <future>
#include <iterator>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace sentrova::control {

namespace {

constexpr std::chrono::seconds kLimit{10};
constexpr std::int64_t kGreatestPort = 65535;

// A text of the server or the configuration: in UTF-8 and on one line.
std::string harmless(const std::string& text) {
    auto shown = excerpt(text, text.size());
    std::ranges::replace_if(shown, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    return shown;
}

// Whether the parts of the address are configured, right or wrong.
bool isConfigured(const ServerAddress& address) {
    const auto missing = orNull(std::nullopt);
    const bool hasConnection = address.scheme != missing || address.port != 0;
    return address.host != missing && !address.host.empty() && hasConnection;
}

std::string mistakeIn(const ServerAddress& address) {
    const auto is = [&](std::string_view scheme) {
        return std::ranges::equal(address.scheme, scheme,
                                  [](unsigned char left, unsigned char right) { return std::tolower(left) == right; });
    };
    if (!is("http") && !is("https")) {
        return fmt::format("the protocol {} is neither http nor https", harmless(address.scheme));
    }
    if (!isHostName(address.host)) {
        return fmt::format("\"{}\" is not a host name", harmless(address.host));
    }
    if (address.port < 1 || address.port > kGreatestPort) {
        return fmt::format("{} is not a port from 1 to {}", address.port, kGreatestPort);
    }
    return {};
}

AddressReport reportOn(const ServerAddress& address) {
    const auto origin = fmt::format("{}://{}:{}", address.scheme, address.host, address.port);
    AddressReport report{.address = harmless(origin), .probe = {}};
    report.probe.failure = mistakeIn(address);
    if (report.probe.failure.empty()) {
        report.probe = platform::probeAddress(origin, kLimit);
    }
    return report;
}

std::string timesOf(const platform::AddressProbe& probe) {
    std::string text;
    const auto add = [&](const char* step, const platform::AddressProbe::Time& time) {
        if (time) {
            text += fmt::format("{}{} {} ms", text.empty() ? "; " : ", ", step, time->count());
        }
    };
    add("name", probe.lookUp);
    add("connection", probe.connection);
    add("TLS", probe.handshake);
    add("answer", probe.answer);
    return text;
}

std::string certificateOf(const platform::AddressProbe::Tls& tls) {
    auto text = fmt::format("; {}, certificate for {}, issued by {}", tls.version.empty() ? "TLS" : tls.version,
                            tls.names.empty() ? "no name" : harmless(fmt::format("{}", fmt::join(tls.names, " "))),
                            tls.issuer.empty() ? "nobody" : harmless(tls.issuer));
    if (tls.expires) {
        text += fmt::format(", expires {}", timeText(*tls.expires));
    }
    if (!tls.isTrusted) {
        return text + ", trust unknown";
    }
    return text + (*tls.isTrusted ? ", trusted by this system"
                                  : fmt::format(", not trusted by this system ({}); the agent accepts it",
                                                harmless(tls.distrust)));
}

Value jsonTime(const platform::AddressProbe::Time& time) {
    return time ? Value(time->count()) : Value();
}

Value jsonOf(const platform::AddressProbe::Tls& tls) {
    Array names;
    std::ranges::transform(tls.names, std::back_inserter(names), harmless);
    return Dictionary{{"version", tls.version},
                      {"names", std::move(names)},
                      {"issuer", harmless(tls.issuer)},
                      {"expires", tls.expires ? Value(*tls.expires) : Value()},
                      {"trusted", tls.isTrusted ? Value(*tls.isTrusted) : Value()},
                      {"distrust", tls.distrust.empty() ? Value() : Value(harmless(tls.distrust))}};
}

}  // namespace

std::string AddressReport::text() const {
    const auto result = works() ? fmt::format("works: HTTP {}", probe.status) : "fails: " + harmless(probe.failure);
    return result + timesOf(probe) + (probe.tls ? certificateOf(*probe.tls) : "");
}

Dictionary AddressReport::json() const {
    return {{"address", address},
            {"works", works()},
            {"status", works() ? Value(probe.status) : Value()},
            {"failure", works() ? Value() : Value(harmless(probe.failure))},
            {"connected_to", probe.connectedTo.empty() ? Value() : Value(probe.connectedTo)},
            {"milliseconds", Dictionary{{"name", jsonTime(probe.lookUp)},
                                        {"connection", jsonTime(probe.connection)},
                                        {"tls", jsonTime(probe.handshake)},
                                        {"answer", jsonTime(probe.answer)}}},
            {"tls", probe.tls ? jsonOf(*probe.tls) : Value()}};
}

Result<Configuration> configurationIn(FileSystem& files, const std::string& folder) {
    using State = ConfigurationFile::State;
    const auto content = ConfigurationFiles::in(files, folder);
    const auto failed = [&](std::string_view name, const std::string& reason) {
        return Error{kPosixErrorDomain, 0, fmt::format("{}/{}: {}", folder, name, reason)};
    };
    if (content.serverInfo.state == State::missing) {
        return failed(GlobalConstants::SERVER_INFO_FILE,
                      "missing, so no server is known: its key ServerFQDN names the server");
    }
    if (content.serverInfo.state != State::read) {
        return failed(GlobalConstants::SERVER_INFO_FILE, content.serverInfo.reason);
    }
    if (content.myConfigurations.state == State::unreadable) {
        return failed(GlobalConstants::MY_CONFIGURATIONS_FILE, content.myConfigurations.reason);
    }
    return Configuration::from(content.serverInfo.content, content.myConfigurations.content);
}

int probeAddresses(const Configuration& configuration, const std::function<void(const AddressReport&)>& take) {
    std::vector<std::future<AddressReport>> reports;
    for (const auto& address : addressesInTurn(configuration)) {
        if (isConfigured(address)) {
            reports.push_back(std::async(std::launch::async, reportOn, address));
        }
    }
    int working = 0;
    for (auto& coming : reports) {
        const auto report = coming.get();
        working += report.works() ? 1 : 0;
        take(report);
    }
    return working;
}

}  // namespace sentrova::control
