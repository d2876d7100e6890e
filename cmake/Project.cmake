# What every folder shares: the language, the warnings, the include roots, and one function for each kind of thing
# that a folder can be (library, plug-in, support of tests, test, benchmark). A folder's sources are all of its .cpp files.

set(SUPPRESSION_SANITIZE "" CACHE STRING "sanitizers to build with, as in -fsanitize=")
option(SUPPRESSION_WERROR "warnings are errors; the presets, and CI with them, say so" OFF)
option(SUPPRESSION_FUZZ "build the libFuzzer targets too; needs clang" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# Installed, the programs lie where the GNU directories say, and our libraries, plug-ins among them, in a folder of their
# own. Each finds them from its own place, so that an installed tree may be moved as a whole.
include(GNUInstallDirs)
set(INSTALL_LIBRARIES ${CMAKE_INSTALL_LIBDIR}/arp-suppression)
foreach(programs BINDIR SBINDIR)
  file(RELATIVE_PATH ${programs}_TO_LIBRARIES ${CMAKE_INSTALL_FULL_${programs}} ${CMAKE_INSTALL_FULL_LIBDIR}/arp-suppression)
endforeach()

# What was compiled in one checkout serves every other one.
find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options(-Xclang -fno-pch-timestamp)
  else()
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
  endif()
endif()

add_library(project_options INTERFACE)
target_compile_options(project_options INTERFACE
  -fPIC $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wconversion $<$<BOOL:${SUPPRESSION_WERROR}>:-Werror>>)
# GCC 12 sees an overlap or an overflow in each `"text" + std::string(...)` that -O3 inlines; there is none (its bug 105651).
# The sanitizers look for real ones.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(project_options INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:-Wno-restrict -Wno-stringop-overflow -Wno-array-bounds>)
endif()
target_include_directories(project_options INTERFACE
  ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/platform ${CMAKE_SOURCE_DIR}/model ${CMAKE_SOURCE_DIR}/linux)
# Not vptr: its check opens a pipe, and takes every object for a broken one where a test has used up all descriptors.
if(SUPPRESSION_SANITIZE)
  target_compile_options(project_options INTERFACE -fsanitize=${SUPPRESSION_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(project_options INTERFACE -fsanitize=${SUPPRESSION_SANITIZE})
endif()
if(SUPPRESSION_FUZZ)
  target_compile_options(project_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# What tests are compiled with: `test_program_options` are those of test programs, `test_options` those of what they share with
# benchmarks and fuzz targets. In a release and under the sanitizers it is the libraries that are looked at, so test programs are
# not optimised there: that takes 40% less time. What is shared is optimised in a release, because benchmarks measure with it.
if(BUILD_TESTING)
  find_package(GTest)
  if(NOT GTest_FOUND)
    message(FATAL_ERROR "The tests need GoogleTest: run `scripts/setup test`, or configure with -DBUILD_TESTING=OFF.")
  endif()
  add_library(test_options INTERFACE)
  target_link_libraries(test_options INTERFACE project_options GTest::gmock)
  target_include_directories(test_options INTERFACE ${CMAKE_SOURCE_DIR}/test)
  add_library(test_program_options INTERFACE)
  target_link_libraries(test_program_options INTERFACE test_options)
  set(SUPPORT_HEADERS TestHeaders)
  if(SUPPRESSION_SANITIZE)
    target_compile_options(test_options INTERFACE -O0)
  elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    target_compile_options(test_program_options INTERFACE -O0 -g0 -U_FORTIFY_SOURCE)
    set(SUPPORT_HEADERS StandardHeaders)
  endif()
endif()

# The headers that nearly every source reads, parsed once for the libraries and once, with the test framework, for the tests.
# Who uses them is compiled with the same options (-fPIC, no define per target), or the compilers refuse them.
set(STANDARD_HEADERS <algorithm> <array> <cerrno> <compare> <cstddef> <cstdint> <cstring> <functional> <map> <memory> <optional> <set>
                     <span> <string> <string_view> <type_traits> <utility> <vector>)
function(precompiled_headers name options)
  file(WRITE ${CMAKE_BINARY_DIR}/${name}.cpp "")
  add_library(${name} OBJECT ${CMAKE_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE ${options})
  target_precompile_headers(${name} PRIVATE ${STANDARD_HEADERS} ${ARGN})
endfunction()
precompiled_headers(StandardHeaders project_options)

# project_library(Name [LINK other...]): the shared library of this folder. Shared, because the host and the plug-ins
# that it loads must see one copy of the runtime's registries.
function(project_library name)
  cmake_parse_arguments(ARG "" "" "LINK;SOURCES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} SHARED ${sources} ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC project_options ${ARG_LINK})
  target_precompile_headers(${name} REUSE_FROM StandardHeaders)
  set_target_properties(${name} PROPERTIES DEFINE_SYMBOL "" INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} LIBRARY DESTINATION ${INSTALL_LIBRARIES})
endfunction()

# project_plugin(Name [LINK other...]): a plug-in of the agent host, lib<Name>.so, that tests can link as well.
function(project_plugin name)
  project_library(${name} ${ARGN})
endfunction()

# project_support(Name SOURCES file... [LINK other...]): what tests, benchmarks and fuzz targets share.
function(project_support name)
  cmake_parse_arguments(ARG "" "" "LINK;SOURCES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC project_options GTest::gmock ${ARG_LINK} PRIVATE test_options)
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/test)
  target_precompile_headers(${name} REUSE_FROM ${SUPPORT_HEADERS})
endfunction()

# project_test(Name [SOURCES file...] [LINK other...] [HEADERS target] [LABEL unit|lab]): one GoogleTest program, of this
# folder's sources unless it names some; HEADERS are its precompiled headers, if not those of all tests.
function(project_test name)
  cmake_parse_arguments(ARG "" "LABEL;HEADERS" "LINK;SOURCES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*Test.cpp)
  if(ARG_SOURCES)
    set(sources ${ARG_SOURCES})
  endif()
  if(NOT ARG_LABEL)
    set(ARG_LABEL unit)
  endif()
  if(NOT ARG_HEADERS)
    set(ARG_HEADERS TestHeaders)
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE test_program_options FixedHashSeed ${ARG_LINK} GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM ${ARG_HEADERS})
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS ${ARG_LABEL} TIMEOUT 600)
endfunction()

# project_bench(Name SOURCES file... [LINK other...]): one benchmark program.
function(project_bench name)
  cmake_parse_arguments(ARG "" "" "LINK;SOURCES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE project_options ${ARG_LINK})
  target_precompile_headers(${name} REUSE_FROM StandardHeaders)
endfunction()
