// A directory that knows what a test tells it, and counts what it is asked.

#pragma once

#include "platform/Directory.h"

#include <map>
#include <string>
#include <vector>

namespace sentrova::testing {

// Takes the place of the host's directory for its lifetime. For one thread.
class FakeDirectory final : public platform::Directory {
  public:
    FakeDirectory() { install(this); }
    ~FakeDirectory() override { install(nullptr); }

    std::optional<std::string> userName(std::uint32_t id) override {
        ++idQueries;
        return nameIn(userNames, id);
    }
    std::optional<std::string> groupName(std::uint32_t id) override {
        ++idQueries;
        return nameIn(groupNames, id);
    }
    Result<std::vector<platform::DirectoryRecord>> usersNamed(const std::string& name) override {
        queries.push_back(name);
        if (problem) {
            return *problem;
        }
        const auto found = records.find(name);
        return found == records.end() ? std::vector<platform::DirectoryRecord>() : found->second;
    }

    std::map<std::uint32_t, std::string> userNames;
    std::map<std::uint32_t, std::string> groupNames;
    std::map<std::string, std::vector<platform::DirectoryRecord>> records;
    // What a query by name fails with.
    std::optional<Error> problem;

    // The names that were asked for, and how often an id was.
    std::vector<std::string> queries;
    int idQueries = 0;

  private:
    static std::optional<std::string> nameIn(const std::map<std::uint32_t, std::string>& names, std::uint32_t id) {
        const auto found = names.find(id);
        return found == names.end() ? std::nullopt : std::optional(found->second);
    }
};

}  // namespace sentrova::testing
