# How every target of the house is compiled.

find_program(BRELIX_CCACHE ccache)
if(BRELIX_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${BRELIX_CCACHE})
endif()

add_library(brelix_options INTERFACE)
target_compile_options(brelix_options INTERFACE -Wall -Wextra -Wpedantic -Werror -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(brelix_options INTERFACE -Wthread-safety)
endif()
# What the sanitizers add makes g++ see uninitialised values where there are none.
if(BRELIX_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(brelix_options INTERFACE -Wno-maybe-uninitialized)
endif()
if(BRELIX_SANITIZE STREQUAL "address")
  target_compile_options(brelix_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=undefined)
  target_link_options(brelix_options INTERFACE -fsanitize=address,undefined)
elseif(BRELIX_SANITIZE STREQUAL "thread")
  target_compile_options(brelix_options INTERFACE -fsanitize=thread)
  target_link_options(brelix_options INTERFACE -fsanitize=thread)
endif()

# What most sources include, read once. A preset without it proves that each file includes what it
# needs (clang does).
option(BRELIX_PRECOMPILED "use precompiled headers" ON)

# brelix_precompile(NAME DEPS target... HEADERS header...): headers that others reuse.
function(brelix_precompile name)
  cmake_parse_arguments(ARG "" "" "DEPS;HEADERS" ${ARGN})
  if(NOT BRELIX_PRECOMPILED)
    return()
  endif()
  add_library(${name} OBJECT ${CMAKE_SOURCE_DIR}/cmake/precompiled.cpp)
  target_link_libraries(${name} PRIVATE brelix_options ${ARG_DEPS})
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${name} PRIVATE -fpch-preprocess)
  endif()
endfunction()

function(brelix_reuse_precompiled target name)
  if(NOT TARGET ${name})
    return()
  endif()
  target_precompile_headers(${target} REUSE_FROM ${name})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -fpch-preprocess)
  endif()
endfunction()

# brelix_library(NAME DEPS target...): the folder src/NAME, with everything in it and in linux/.
# Adding or removing a file needs no change here.
function(brelix_library name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${name}/*.cpp
       ${CMAKE_SOURCE_DIR}/src/${name}/linux/*.cpp)
  if(sources)
    add_library(brelix_${name} STATIC ${sources})
    set(scope PUBLIC)
  else()
    add_library(brelix_${name} INTERFACE)
    set(scope INTERFACE)
  endif()
  target_include_directories(brelix_${name} ${scope} ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(brelix_${name} ${scope} brelix_options ${ARG_DEPS} Threads::Threads)
endfunction()

# brelix_unit_tests(NAME DEPS target...): tests/unit/NAME as one program, each case a CTest test.
function(brelix_unit_tests name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/unit/${name}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(unit_${name} ${sources})
  target_include_directories(unit_${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(unit_${name} PRIVATE ${ARG_DEPS} brelix_test_support GTest::gmock)
  brelix_reuse_precompiled(unit_${name} brelix_precompiled_tests)
  # Made often and run briefly.
  target_compile_options(unit_${name} PRIVATE -O0 -g1)
  add_test(NAME unit_${name} COMMAND unit_${name} --gtest_brief=1)
  set_tests_properties(unit_${name} PROPERTIES TIMEOUT 600 LABELS unit)
endfunction()
