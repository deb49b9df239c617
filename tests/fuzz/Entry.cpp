// Where the fuzzer and the replay enter a target.

#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    sentrova::testing::fuzz({data, size});
    return 0;
}
