#include "collection/bsm/ErrorNumbers.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace sentrova::testing {

TEST(ErrorNumbersTest, StatusesAreConvertedToTheHostsErrorNumbers) {
    // A status without a number is unassigned, unknown to this host, or not converted by the platform's library.
    const std::pair<std::uint8_t, std::optional<int>> cases[] = {
        {37, ECHRNG},     {45, EDEADLK}, {48, ENOTSUP}, {89, ENOSYS}, {151, ESTALE},
        {145, ETIMEDOUT}, {75, {}},      {204, {}},     {250, {}},    {255, {}},
        {61, {}},         {62, {}},      {63, {}},      {128, {}},    {127, ENETDOWN},
    };
    // The oldest errors have the same numbers everywhere.
    for (std::uint8_t status = 0; status <= ERANGE; ++status) {
        EXPECT_EQ(bsm::au_bsm_to_errno(status), status);
    }
    for (const auto& [status, expected] : cases) {
        EXPECT_EQ(bsm::au_bsm_to_errno(status), expected) << "status " << int{status};
    }
}

}  // namespace sentrova::testing
