#include "foundation/value/Result.h"

#include <system_error>

namespace sentrova {

Error posixError(int number) {
    return {kPosixErrorDomain, number, std::generic_category().message(number)};
}

}  // namespace sentrova
