#include "service/StatusFile.h"

#include "collection/AuditCheck.h"
#include "collection/CollectionRefusal.h"
#include "core/LogSource.h"
#include "forwarding/DurableForwarder.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "platform/ProcessMemory.h"
#include "service/CommandLine.h"

#include <unistd.h>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("StatusFile");

template <class Number>
Value orNullValue(const std::optional<Number>& number) {
    return number ? Value(static_cast<std::int64_t>(*number)) : Value();
}

std::int64_t count(std::uint64_t number) {
    return static_cast<std::int64_t>(number);
}

const char* nameOf(StatusFile::Phase phase) {
    switch (phase) {
        case StatusFile::Phase::starting:
            return "starting";
        case StatusFile::Phase::running:
            return "running";
        case StatusFile::Phase::ended:
            break;
    }
    return "ended";
}

const char* nameOf(SyncRounds::Outcome outcome) {
    switch (outcome) {
        case SyncRounds::Outcome::applied:
            return "applied";
        case SyncRounds::Outcome::rejected:
            return "rejected";
        case SyncRounds::Outcome::failed:
            break;
    }
    return "failed";
}

Dictionary countsOf(const Statistics::Snapshot& statistics) {
    Dictionary failures;
    for (const auto& [kind, number] : statistics.failures) {
        failures.set(kind, count(number));
    }
    return {{"records_read", count(statistics.read.records)},
            {"events_collected", count(statistics.read.collected)},
            {"events_excluded", count(statistics.read.excluded)},
            {"events_delivered", count(statistics.delivered)},
            {"failures", std::move(failures)}};
}

Dictionary serverOf(const Statistics::Server& server) {
    Value failure;
    if (server.lastFailure) {
        failure = Dictionary{{"time", server.lastFailure->time}, {"text", server.lastFailure->text}};
    }
    return {{"reachable", server.isReachable ? Value(*server.isReachable) : Value()},
            {"succeeded", server.hasSucceeded ? Value(*server.hasSucceeded) : Value()},
            {"address", server.address.empty() ? Value() : Value(server.address)},
            {"last_contact", orNullValue(server.lastContact)},
            {"last_failure", std::move(failure)}};
}

Dictionary syncOf(const SyncRounds::State& syncs) {
    Value last;
    if (syncs.last) {
        last = Dictionary{
            {"time", syncs.last->time}, {"outcome", nameOf(syncs.last->outcome)}, {"text", syncs.last->text}};
    }
    return {{"under_way_since", orNullValue(syncs.underWaySince)},
            {"asked", count(syncs.asked)},
            {"served", count(syncs.served)},
            {"last", std::move(last)}};
}

// Null without the durable mode.
Value durableMode(Clock& clock) {
    auto* const spool = Current<DurableSpool>::orNull();
    if (!spool) {
        return {};
    }
    const auto overview = spool->overview();
    Value next;
    if (overview.nextAttempt) {
        const auto wait =
            std::chrono::duration_cast<std::chrono::seconds>(*overview.nextAttempt - clock.monotonicTime());
        next = clock.epochSeconds() + std::max<std::int64_t>(wait.count(), 0);
    }
    return Dictionary{{"journal_bytes", orNullValue(overview.journalBytes)},
                      {"refused", count(overview.refused)},
                      {"next_attempt", std::move(next)}};
}

}  // namespace

StatusFile::StatusFile(const Surroundings& with) : with_(with), since_(with.clock.epochSeconds()) {}

void StatusFile::begin(const std::string& folder) {
    {
        const MutexLock lock(mutex_);
        path_ = fmt::format("{}/{}", folder, kName);
        const auto former = with_.files.readText(*path_);
        const auto parsed = former ? Json::parse(*former) : Result<Value>(former.error());
        if (const auto* const file = parsed ? parsed->dictionary() : nullptr) {
            const auto timeIn = [&](std::string_view key) {
                const auto& value = (*file)[key];
                return value.isNumber() ? std::optional(value.integerValue()) : std::nullopt;
            };
            with_.statistics.continueFrom(timeIn("last_read"), timeIn("last_delivered"));
        }
    }
    write();
}

void StatusFile::enter(Phase phase) {
    const MutexLock lock(mutex_);
    phase_ = phase;
}

void StatusFile::write() {
    const MutexLock lock(mutex_);
    if (!path_) {
        return;
    }
    const auto text = Json::write(content());
    const auto written =
        text ? with_.files.writeAtomically(*path_, {reinterpret_cast<const std::uint8_t*>(text->data()), text->size()},
                                           FileSystem::Durability::renamed)
             : Result<Done>(text.error());
    if (!written) {
        kLog.error("The status file was not written: {}", written.error().description);
    }
}

Dictionary StatusFile::content() {
    const auto configuration = with_.configuration.snapshot();
    const auto statistics = with_.statistics.snapshot();
    const auto auditing = with_.auditCondition.state();
    Dictionary nextRuns;
    for (const auto& [name, date] : with_.tasks.nextRuns()) {
        nextRuns.set(name, epochSeconds(date));
    }
    const auto refusal = CollectionRefusal::reason();
    return {{"version", kVersion},
            {"agent_version", kAgentVersion},
            {"pid", static_cast<std::int64_t>(::getpid())},
            {"since", since_},
            {"written", with_.clock.epochSeconds()},
            {"phase", nameOf(phase_)},
            {"memory", orNullValue(platform::residentMemory())},
            {"auditing", auditing ? Value(*auditing == platform::AuditState::on) : Value()},
            {"audit_problem", AuditCheck::obstacle() ? Value(*AuditCheck::obstacle()) : Value()},
            {"collection_refused", refusal ? Value(*refusal) : Value()},
            {"realtime", Dictionary{{"on", configuration->isRealTime},
                                    {"reading", statistics.isDeviceOpen},
                                    {"dropped", count(statistics.drops)}}},
            {"server", serverOf(statistics.server)},
            {"sync", syncOf(with_.syncs.state())},
            {"last_read", orNullValue(statistics.lastRead)},
            {"last_delivered", orNullValue(statistics.lastDelivered)},
            {"in_flight", count(statistics.inFlight)},
            {"spool_limit_reached", configuration->maxEventDataSizeReached},
            {"next_runs", std::move(nextRuns)},
            {"counts", countsOf(statistics)},
            {"durable", durableMode(with_.clock)}};
}

}  // namespace sentrova
