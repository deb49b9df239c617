# The Mac's compiler and linker as scripts/check-macos sets them up on Linux. The script gives SENTROVA_MAC_ARCHITECTURE
# ("arm64" or "x86_64") and SENTROVA_MAC_TOOLS, the folder of its compiler, archiver, libraries and frameworks.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SENTROVA_MAC_ARCHITECTURE SENTROVA_MAC_TOOLS)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# The deployment target; there is no older system for arm64.
if(SENTROVA_MAC_ARCHITECTURE STREQUAL "arm64")
    set(SENTROVA_MAC_TARGET aarch64-macos.11.0)
    set(SENTROVA_MAC_OLDEST 11.0)
else()
    set(SENTROVA_MAC_TARGET x86_64-macos.10.15)
    set(SENTROVA_MAC_OLDEST 10.15)
endif()

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${SENTROVA_MAC_ARCHITECTURE})
set(CMAKE_CXX_COMPILER ${SENTROVA_MAC_TOOLS}/clang++)
set(CMAKE_AR ${SENTROVA_MAC_TOOLS}/ar)
set(CMAKE_RANLIB ${SENTROVA_MAC_TOOLS}/ranlib)
set(CMAKE_INSTALL_NAME_TOOL true)

# The library's headers say from which system on it has what; a use of something newer than the target is an error.
set(CMAKE_CXX_FLAGS_INIT "-target ${SENTROVA_MAC_TARGET} -U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS \
-Werror=unguarded-availability -isystem ${CMAKE_CURRENT_LIST_DIR}/include -isystem ${SENTROVA_MAC_TOOLS}/include")

# Symbols of libraries that this host has for Linux only are left for the loader to find.
set(CMAKE_CXX_LINK_EXECUTABLE "ld64.lld-14 -arch ${SENTROVA_MAC_ARCHITECTURE} \
-platform_version macos ${SENTROVA_MAC_OLDEST} ${SENTROVA_MAC_OLDEST} -undefined dynamic_lookup \
-L${SENTROVA_MAC_TOOLS}/lib -F${SENTROVA_MAC_TOOLS}/Frameworks -o <TARGET> <OBJECTS> <LINK_LIBRARIES> -lSystem")
