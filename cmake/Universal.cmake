# One agent for both Mac architectures. vcpkg builds for one architecture at a time, and some of its libraries contain
# code for one architecture. So a preset per architecture builds one program, and lipo joins the two.
find_program(SENTROVA_LIPO lipo REQUIRED)

set(halves "")
foreach(architecture IN ITEMS arm64 x86_64)
    add_custom_target(half-${architecture}
        COMMAND ${CMAKE_COMMAND} --preset macos-${architecture}
        COMMAND ${CMAKE_COMMAND} --build --preset macos-${architecture}
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
        USES_TERMINAL VERBATIM)
    list(APPEND halves ${CMAKE_SOURCE_DIR}/build/macos-${architecture}/bin/sentrova-agent)
endforeach()

add_custom_target(sentrova-agent ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
    COMMAND ${SENTROVA_LIPO} -create ${halves} -output ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/sentrova-agent
    COMMAND ${SENTROVA_LIPO} -archs ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/sentrova-agent
    VERBATIM)
add_dependencies(sentrova-agent half-arm64 half-x86_64)
