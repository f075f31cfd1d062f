# Small helpers so that each component's CMakeLists.txt says only what is particular to it.

# kelvo_target(<target>): warnings and threads for one of our own targets.
function(kelvo_target target)
    target_link_libraries(${target} PRIVATE kelvo_warnings Threads::Threads)
endfunction()

# kelvo_test(<name> SOURCES ... [LIBRARIES ...]): a GoogleTest program whose every test is one CTest test.
# tests/data of the component is found through KELVO_TEST_DATA_DIR, programs and libraries of the build through
# the environment variable KELVO_BIN.
function(kelvo_test name)
    if(NOT KELVO_BUILD_TESTS)
        return()
    endif()
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    kelvo_target(${name})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} GTest::gmock GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE KELVO_TEST_DATA_DIR="${CMAKE_CURRENT_SOURCE_DIR}/data")
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests")
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
        PROPERTIES TIMEOUT 60 ENVIRONMENT "KELVO_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
endfunction()
