# Both programs for both Mac architectures. vcpkg builds for one architecture at a time, and some of its libraries contain
# code for one architecture. So a preset per architecture builds the programs, and lipo joins the two halves of each.
find_program(SENTROVA_LIPO lipo REQUIRED)

foreach(architecture IN ITEMS arm64 x86_64)
    add_custom_target(half-${architecture}
        COMMAND ${CMAKE_COMMAND} --preset macos-${architecture}
        COMMAND ${CMAKE_COMMAND} --build --preset macos-${architecture}
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
        USES_TERMINAL VERBATIM)
endforeach()

foreach(program IN ITEMS sentrova-agent sentrovactl)
    set(joined ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${program})
    add_custom_target(${program} ALL
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}
        COMMAND ${SENTROVA_LIPO} -create
            ${CMAKE_SOURCE_DIR}/build/macos-arm64/bin/${program}
            ${CMAKE_SOURCE_DIR}/build/macos-x86_64/bin/${program}
            -output ${joined}
        COMMAND ${SENTROVA_LIPO} -archs ${joined}
        VERBATIM)
    add_dependencies(${program} half-arm64 half-x86_64)
endforeach()
