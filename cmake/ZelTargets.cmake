# Flags and helpers that every target of this tree shares.
include(GoogleTest)

add_library(zelFlags INTERFACE)
target_compile_options(zelFlags INTERFACE -Wall -Wextra -Wconversion -Wshadow -Wnon-virtual-dtor)
# So that a program takes no more of the libraries than it uses.
target_compile_options(zelFlags INTERFACE -ffunction-sections -fdata-sections)
# What -O3 adds is size alone, see docs/PERFORMANCE.md.
target_compile_options(zelFlags INTERFACE $<$<CONFIG:Release>:-O2>)
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  target_compile_options(zelFlags INTERFACE -Wthread-safety)
endif()
if(ZEL_TOP_LEVEL)
  target_compile_options(zelFlags INTERFACE -Werror)
endif()
target_compile_definitions(zelFlags INTERFACE _FILE_OFFSET_BITS=64)
if(ZEL_SANITIZE)
  # Instrumented code makes this warning guess wrongly. Source: GCC's manual, "Program Instrumentation Options".
  target_compile_options(zelFlags INTERFACE -Wno-maybe-uninitialized)
endif()
if(ZEL_SANITIZE STREQUAL "address")
  target_compile_options(zelFlags INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(zelFlags INTERFACE -fsanitize=address,undefined)
elseif(ZEL_SANITIZE STREQUAL "thread")
  target_compile_options(zelFlags INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(zelFlags INTERFACE -fsanitize=thread)
endif()
if(ZEL_COVERAGE)
  target_compile_options(zelFlags INTERFACE --coverage -O0)
  target_link_options(zelFlags INTERFACE --coverage)
endif()
if(ZEL_LIBFUZZER)
  target_compile_options(zelFlags INTERFACE -fsanitize=fuzzer-no-link,address,undefined)
  target_link_options(zelFlags INTERFACE -fsanitize=address,undefined)
endif()

# For code that runs at start or when somebody asks: small. The ground floor and the control groups, which an update of
# all limits goes through, are not; what of the other folders runs each second or is asked before each piece of work is
# named with zel_fast(SOURCE...) beside its target.
add_library(zelSmall INTERFACE)
target_compile_options(zelSmall INTERFACE $<$<NOT:$<CONFIG:Debug>>:-Os>)
function(zel_fast)
  set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS $<$<NOT:$<CONFIG:Debug>>:-O2>)
endfunction()

# What nearly every test includes, read once. Not where a compiler cache stands before the compiler, which does better
# with plain sources; so what a test forgets to include is missed in those builds.
if(ZEL_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(ZEL_READ_HEADERS_ONCE ON)
else()
  set(ZEL_READ_HEADERS_ONCE OFF)
endif()

# zel_compile_tests(NAME): a test program is compiled to be right, not to be fast: its sources are most of what a build
# compiles, and nobody waits for them to run.
function(zel_compile_tests name)
  target_compile_options(${name} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-O0>)
  if(ZEL_READ_HEADERS_ONCE)
    target_precompile_headers(${name} REUSE_FROM testHeaders)
    # What is compiled in from elsewhere is compiled as there.
    get_target_property(sources ${name} SOURCES)
    list(FILTER sources INCLUDE REGEX "^${PROJECT_SOURCE_DIR}/(agent|runtime|src)/")
    set_source_files_properties(${sources} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  endif()
endfunction()

# zel_add_tests(NAME SOURCES ... LIBS ... [LABELS ...] [TIMEOUT s] [WHOLE] [FAST] [ALONE filter])
# A GoogleTest program. Each of its tests becomes a test of its own, or with WHOLE the program is one test. FAST: it
# computes so much that it is worth an optimised build. ALONE: tests that nothing may run beside, as a filter of GoogleTest.
function(zel_add_tests name)
  cmake_parse_arguments(ARG "WHOLE;FAST" "TIMEOUT;ALONE" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} testSupport zelFlags GTest::gmock testMain)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(NOT ARG_FAST OR ZEL_SANITIZE)
    zel_compile_tests(${name})
  endif()
  set(properties TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}" SKIP_RETURN_CODE 77)
  if(ARG_WHOLE)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES ${properties})
  elseif(ARG_ALONE)
    # The two filters complete each other: no test is left out by both.
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 TEST_FILTER "-${ARG_ALONE}"
      PROPERTIES ${properties})
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 TEST_FILTER "${ARG_ALONE}"
      TEST_LIST ${name}_ALONE PROPERTIES ${properties} RUN_SERIAL ON)
  else()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
  endif()
endfunction()

# zel_add_fuzzer(FuzzX SOURCES ... LIBS ... CORPUS dir)
# With ZEL_LIBFUZZER a libFuzzer program; always a replay of its corpus as a test.
function(zel_add_fuzzer name)
  cmake_parse_arguments(ARG "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  if(ZEL_LIBFUZZER)
    add_executable(${name} ${ARG_SOURCES})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(${name} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/ReplayMain.cpp)
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} zelFlags)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(ZEL_LIBFUZZER)
    add_test(NAME ${name} COMMAND ${name} -runs=0 ${ARG_CORPUS})
  else()
    add_test(NAME ${name} COMMAND ${name} ${ARG_CORPUS})
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT 120 LABELS fuzz)
  # One name for all of them: a list elsewhere would forget the next one.
  if(NOT TARGET AllFuzzers)
    add_custom_target(AllFuzzers)
  endif()
  add_dependencies(AllFuzzers ${name})
endfunction()
