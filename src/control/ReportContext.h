// What events take from outside of their records when sentrovactl makes them: nothing of an installation, nothing that
// a program of the system would have to be run for, and no file but those of the directory.

#pragma once

#include "collection/EventContext.h"
#include "collection/Identities.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/value/Value.h"
#include "platform/Directory.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

namespace sentrova::control {

// Not thread-safe. The login history is in memory alone.
class ReportContext : public EventContext {
  public:
    struct Surroundings {
        platform::Directory& directory;
        FileSystem& files;
        Clock& clock;
        // The console of the events' Mac, as a path on this host.
        std::string console;
    };

    // Everything in `with` must outlive the object. Without a domain or a host, the events have none.
    ReportContext(const Surroundings& with, std::optional<std::string> domain, std::optional<std::string> host);

    // Adds the console's present owner to the login history, as the agent does at its start.
    void addConsoleOwner();

    std::optional<std::string> domainName() override { return domain_; }
    std::optional<std::string> hostName() override { return host_; }
    std::string userName(std::uint32_t id) override;
    std::string groupName(std::uint32_t id) override;
    DomainUtil::UserDetails userDetails(const std::string& user) override;

    void addToLoginHistory(const Dictionary& entry, double time) override;
    std::optional<Dictionary> logonUserAt(std::int64_t time) override;
    // Waits for nothing.
    void awaitLogonUser() override {}

  protected:
    Identities& names() { return names_; }

  private:
    const Surroundings with_;
    Identities names_;
    // What the directory has answered, also that it knows no such user. A report is of one moment.
    std::unordered_map<std::uint32_t, std::string> users_;
    std::unordered_map<std::uint32_t, std::string> groups_;
    std::unordered_map<std::string, DomainUtil::UserDetails> details_;
    const std::optional<std::string> domain_;
    const std::optional<std::string> host_;
    // Entries by their time, in seconds since 1970. Records come in the order of their times, so only the entries from
    // the latest record on can still be found.
    std::map<std::int64_t, Dictionary> history_;
};

// The same for live events: the directory may change meanwhile, and the console's owner at the time of a Touch ID
// record counts.
class LiveContext final : public ReportContext {
  public:
    using ReportContext::ReportContext;

    std::string userName(std::uint32_t id) override { return names().userName(id); }
    std::string groupName(std::uint32_t id) override { return names().groupName(id); }
    DomainUtil::UserDetails userDetails(const std::string& user) override { return names().userDetails(user); }
    void awaitLogonUser() override { addConsoleOwner(); }
};

}  // namespace sentrova::control
