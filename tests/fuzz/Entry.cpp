// The entry point of the fuzzer.

#include "fuzz/Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    sentrova::testing::fuzz({data, size});
    return 0;
}
