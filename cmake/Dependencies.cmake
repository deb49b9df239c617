find_package(Threads REQUIRED)
find_package(CURL 7.87 REQUIRED)
find_package(OpenSSL 3.0 REQUIRED)
find_package(ICU REQUIRED COMPONENTS i18n uc data)
find_package(fmt 9 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(utf8cpp 3.2 REQUIRED)
find_package(FastFloat 3.5 REQUIRED)
find_package(CLI11 2.1 REQUIRED)

# The system's own libcurl has another TLS library behind it, with which nothing of docs/security.md was tested.
if(APPLE AND CURL_LIBRARIES MATCHES "libcurl[.0-9]*\\.tbd")
    message(FATAL_ERROR "This is the system's libcurl; use a preset, which finds one with OpenSSL")
endif()

# The Mac's own frameworks that src/platform/darwin calls.
set(SENTROVA_HOST_LIBRARIES "")
if(APPLE)
    foreach(framework IN ITEMS CoreFoundation IOKit OpenDirectory SystemConfiguration)
        list(APPEND SENTROVA_HOST_LIBRARIES "-framework ${framework}")
    endforeach()
endif()
