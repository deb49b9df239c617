#include "collection/bsm/ErrorNumbers.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace sentrova::testing {

TEST(ErrorNumbersTest, StatusesBecomeTheHostsOwnNumbers) {
    const std::pair<std::uint8_t, std::optional<int>> cases[] = {
        {0, 0},
        {1, EPERM},
        {22, EINVAL},
        {45, EDEADLK},
        {48, ENOTSUP},
        {89, ENOSYS},
        {145, ETIMEDOUT},
        {151, ESTALE},
#ifdef ECHRNG
        {37, ECHRNG},
#else
        {37, std::nullopt},
#endif
#ifdef EPWROFF
        {204, EPWROFF},
#else
        {204, std::nullopt},
#endif
        {75, std::nullopt},  // not assigned
        {250, std::nullopt},
        {255, std::nullopt},
    };
    for (const auto& [status, expected] : cases) {
        EXPECT_EQ(bsm::au_bsm_to_errno(status), expected) << "status " << int{status};
    }
}

}  // namespace sentrova::testing
