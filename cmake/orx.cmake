# What every target of the project shares: warnings, sanitizers, and the three kinds of target.

find_package(Threads REQUIRED)

add_compile_options(-Wall -Wextra -Werror)
# Recordings pass 2 GB, and recorders the year 2038, on 32-bit machines as well. For the whole build: records of libc
# that hold a file's size or a time have two layouts there.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-psabi)  # remarks on ARM that g++ 7 changed how records are passed
  add_compile_options(-Wno-restrict)  # g++ 12 sees overlaps in std::string that cannot be (GCC bug 105651)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND ORX_SANITIZE)
  # g++ 12 sees uninitialised and overrun memory that is not there once sanitizers rewrite the code
  add_compile_options(-Wno-maybe-uninitialized -Wno-stringop-overflow -Wno-array-bounds)
endif()
if(ORX_SANITIZE)
  add_compile_options(-fsanitize=${ORX_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORX_SANITIZE})
  if(ORX_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
if(ORX_WATCH_TASKS)
  add_compile_definitions(ORX_WATCH_TASKS)
endif()
if(ORX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# orx_module(runtime USES orx_base): one static library of every source in this folder. It may use the
# libraries named and nothing above them.
function(orx_module name)
  cmake_parse_arguments(M "" "" "USES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(orx_${name} STATIC ${sources})
  target_include_directories(orx_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(orx_${name} PRIVATE -Wshadow -fno-exceptions -fno-rtti -ffunction-sections
                                             -fdata-sections)
  if(NOT ORX_SANITIZE)
    # a box has little room: nothing unwinds a stack, and what -O3 adds is larger, not quicker
    target_compile_options(orx_${name} PRIVATE $<$<CONFIG:Release>:-O2> -fno-asynchronous-unwind-tables)
  endif()
  target_link_libraries(orx_${name} PUBLIC ${M_USES} Threads::Threads)
endfunction()

# orx_test_headers(unit_base): GoogleTest's headers take longer to compile than most tests, so that all test
# programs share one precompiled copy of them. It is named without its directory: by a path clang-tidy would find
# g++'s precompiled file and choke on it, and ccache would want to be told that it may trust it.
function(orx_test_headers target)
  if(CMAKE_DISABLE_PRECOMPILE_HEADERS)
    return()
  endif()
  if(NOT TARGET test_headers)
    add_library(test_headers OBJECT ${PROJECT_SOURCE_DIR}/tests/support/headers.cpp)
    target_link_libraries(test_headers PRIVATE GTest::gmock)
    target_precompile_headers(test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> <filesystem> <thread>)
    target_include_directories(test_headers INTERFACE ${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/test_headers.dir)
    target_compile_options(test_headers INTERFACE "SHELL:-include cmake_pch.hxx")
  endif()
  target_link_libraries(${target} PRIVATE test_headers)
endfunction()

# orx_unit_test(runtime) or orx_unit_test(server/core): one test program per folder, of every source in that
# folder of tests/unit. It links all of that folder's library and so only those below it: a use that points
# upwards does not link.
function(orx_unit_test folder)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  get_filename_component(name ${folder} NAME)
  add_executable(unit_${name} ${sources})
  target_include_directories(unit_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(unit_${name} PRIVATE ORX_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data"
                                                  ORX_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  target_link_libraries(unit_${name} PRIVATE -Wl,--whole-archive $<TARGET_FILE:orx_${name}> -Wl,--no-whole-archive
                                             orx_${name} GTest::gmock GTest::gtest_main)
  orx_test_headers(unit_${name})
  set_target_properties(unit_${name} PROPERTIES UNITY_BUILD ${ORX_UNITY} UNITY_BUILD_BATCH_SIZE 0)
  gtest_discover_tests(unit_${name} TEST_PREFIX "unit.${name}." DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()
