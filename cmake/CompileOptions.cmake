# What every target of the project is compiled and linked with.
add_library(sentrova-options INTERFACE)
target_compile_options(sentrova-options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual
    -Wold-style-cast -Wcast-qual -Wformat=2 -Werror -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(sentrova-options INTERFACE -Wthread-safety -Wextra-semi)
else()
    # False positives: g++ 12 reports these two inside its own inlined containers.
    target_compile_options(sentrova-options INTERFACE -Wduplicated-cond -Wlogical-op -Wno-restrict -Wno-maybe-uninitialized)
endif()

if(SENTROVA_SANITIZE)
    target_compile_options(sentrova-options INTERFACE -fsanitize=${SENTROVA_SANITIZE} -fno-sanitize-recover=all -O1)
    target_link_options(sentrova-options INTERFACE -fsanitize=${SENTROVA_SANITIZE})
endif()

if(SENTROVA_FUZZ)
    target_compile_options(sentrova-options INTERFACE -fsanitize=fuzzer-no-link)
endif()
