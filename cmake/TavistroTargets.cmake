# Options that every target of the project shares, and the two kinds of target the rooms use.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

set(TAVISTRO_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")
find_package(Threads REQUIRED)

add_library(tavistro_options INTERFACE)
target_include_directories(tavistro_options INTERFACE ${PROJECT_SOURCE_DIR}
                                                      ${PROJECT_SOURCE_DIR}/include)
# Samples are bit-exact on every platform and at every optimisation level: the compiler may not
# fuse a multiplication with an addition.
if(MSVC)
  target_compile_options(tavistro_options INTERFACE /W4 /utf-8 /permissive- /Zc:__cplusplus /fp:precise
                                                    $<$<CXX_COMPILER_ID:Clang>:/clang:-ffp-contract=off>)
else()
  target_compile_options(tavistro_options INTERFACE -Wall -Wextra -Wconversion -Wshadow
                                                    -ffp-contract=off)
endif()
if(WIN32)
  # Windows 10; its headers without what is rarely used, and without macros called min and max.
  target_compile_definitions(tavistro_options INTERFACE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN
                                                        NOMINMAX)
  # GCC takes vectors of 32 bytes on the stack for aligned, where Windows aligns it to 16 only.
  target_compile_options(tavistro_options INTERFACE
                         $<$<CXX_COMPILER_ID:GNU>:-Wa,-muse-unaligned-vector-move>)
endif()
target_link_libraries(tavistro_options INTERFACE Threads::Threads)
# Other versions have other warnings and false alarms.
option(TAVISTRO_WARNINGS_AS_ERRORS "Warnings are errors with GCC 12 and Clang 14; the presets set it" OFF)
if(TAVISTRO_WARNINGS_AS_ERRORS)
  if("${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}" MATCHES "^(GNU 12|Clang 14)\\.")
    set(CMAKE_COMPILE_WARNING_AS_ERROR ON)
  else()
    set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
    message(NOTICE "warnings are not errors with ${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}, "
                   "only with GNU 12 and Clang 14")
  endif()
endif()
if(TAVISTRO_SANITIZE)
  target_compile_options(tavistro_options INTERFACE -fsanitize=${TAVISTRO_SANITIZE}
                                                    -fno-sanitize-recover=all
                                                    -fno-omit-frame-pointer)
  target_link_options(tavistro_options INTERFACE -fsanitize=${TAVISTRO_SANITIZE})
endif()

# The target's kind of processor, by which rooms choose their faster loops. The size of a pointer tells a
# 32-bit system on a 64-bit processor.
set(TAVISTRO_PROCESSOR other)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(TAVISTRO_PROCESSOR x86_64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
    set(TAVISTRO_PROCESSOR arm64)
  endif()
endif()

# tavistro_room(name SOURCES ... LINKS ...): one room of the engine as a static library.
function(tavistro_room name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC tavistro_options ${ARG_LINKS})
endfunction()

# tavistro_unoptimised(file ...): command lines, much template code that runs once. Optimising one took
# up to half a minute with sanitizers.
function(tavistro_unoptimised)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O0)
endfunction()

# What nearly every test includes, parsed once. Optimising the tests themselves takes longer than
# running them: only what they test is optimised as its preset says.
function(tavistro_test_headers)
  add_library(tavistro_test_options INTERFACE)
  target_link_libraries(tavistro_test_options INTERFACE tavistro_options GTest::gtest_main)
  target_compile_options(tavistro_test_options INTERFACE $<IF:$<CONFIG:Release>,-O1,-O0>)
  # A program like those that use its headers, so that it is compiled as they are.
  add_executable(tavistro_test_headers ${PROJECT_SOURCE_DIR}/tests/support/test_headers.cpp)
  target_link_libraries(tavistro_test_headers PRIVATE tavistro_test_options)
  target_precompile_headers(tavistro_test_headers PRIVATE
                            <algorithm> <atomic> <chrono> <fstream> <functional> <map> <mutex> <optional>
                            <sstream> <string> <thread> <vector> <gtest/gtest.h>)
endfunction()

# tavistro_test(name SOURCES ... LINKS ... [PROPERTIES ...] [TIMEOUT s]): a GoogleTest program; every
# case becomes a test of ctest.
function(tavistro_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LINKS;PROPERTIES" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} tavistro_test_options)
  target_precompile_headers(${name} REUSE_FROM tavistro_test_headers)
  if(WIN32)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/windows/network_stack.cpp)
    target_link_libraries(${name} PRIVATE ws2_32)
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
                       PROPERTIES TIMEOUT ${ARG_TIMEOUT} ${ARG_PROPERTIES})
endfunction()
