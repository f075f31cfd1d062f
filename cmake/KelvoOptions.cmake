# Language level, warnings and sanitisers, the same for every target of the tree.
option(KELVO_BUILD_TESTS "Build the unit and end-to-end tests" ON)
option(KELVO_BUILD_BENCH "Build the benchmarks" OFF)
option(KELVO_BUILD_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
set(KELVO_SANITIZE "" CACHE STRING "Sanitisers to build with: empty, 'address,undefined' or 'thread'")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN")
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

find_program(KELVO_CCACHE ccache)
if(KELVO_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${KELVO_CCACHE}")
endif()

add_library(kelvo_warnings INTERFACE)
if(MSVC)
    target_compile_options(kelvo_warnings INTERFACE /W4 /WX /permissive- /utf-8)
else()
    target_compile_options(kelvo_warnings INTERFACE
        -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion
        -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef -Werror
        # A constructor's parameter may be named like the member that it fills; GCC needs the narrower form.
        $<IF:$<CXX_COMPILER_ID:GNU>,-Wshadow=local,-Wshadow>
        # GCC 12 warns of overlaps inside std::string's own operator+ when it optimises (its bug 105651).
        $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
endif()

if(KELVO_SANITIZE)
    add_compile_options(-fsanitize=${KELVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KELVO_SANITIZE})
    if(KELVO_SANITIZE STREQUAL "thread")
        # The thread sanitiser does not know fences; Asio's are in addition to the locks that order its handlers.
        add_compile_definitions(BOOST_ASIO_DISABLE_FENCED_BLOCK)
    endif()
endif()

# The macro form of the placeholders and the old error names are not used anywhere.
add_compile_definitions(BOOST_BIND_NO_PLACEHOLDERS BOOST_ASIO_NO_DEPRECATED)
if(WIN32)
    add_compile_definitions(_WIN32_WINNT=0x0A00 NOMINMAX WIN32_LEAN_AND_MEAN)
endif()
