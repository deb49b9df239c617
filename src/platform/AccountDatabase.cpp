#include "platform/AccountDatabase.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace sentrova::platform {

namespace {

// Calls a reentrant look-up function of the C library, and doubles the buffer until it is large enough.
template <class Entry, class LookUp>
std::optional<std::string> nameFrom(LookUp lookUp, char* Entry::* name) {
    std::vector<char> buffer(1024);
    for (;;) {
        Entry entry{};
        Entry* found = nullptr;
        const int problem = lookUp(&entry, buffer.data(), buffer.size(), &found);
        if (problem == ERANGE && buffer.size() < 1024 * 1024) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        return problem == 0 && found ? std::optional<std::string>(found->*name) : std::nullopt;
    }
}

}  // namespace

std::optional<std::string> databaseUserName(std::uint32_t id) {
    return nameFrom<passwd>([id](auto* entry, auto* buffer, auto size,
                                 auto* found) { return ::getpwuid_r(id, entry, buffer, size, found); },
                            &passwd::pw_name);
}

std::optional<std::string> databaseGroupName(std::uint32_t id) {
    return nameFrom<group>([id](auto* entry, auto* buffer, auto size,
                                auto* found) { return ::getgrgid_r(id, entry, buffer, size, found); },
                           &group::gr_name);
}

}  // namespace sentrova::platform
