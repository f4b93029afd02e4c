# Compiler settings shared by every target, and the one-library-per-folder helper.

set(XRV_WARNINGS -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wformat=2)
if(XRV_WERROR)
  list(APPEND XRV_WARNINGS -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Checks the lock annotations of the XRV_GUARDED_BY / XRV_REQUIRES family.
  list(APPEND XRV_WARNINGS -Wthread-safety)
endif()

if(NOT XRV_SANITIZE STREQUAL "" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # The sanitizers' instrumentation makes g++ guess wrongly about uninitialised values
  # inside the standard library (std::function, std::regex).
  list(APPEND XRV_WARNINGS -Wno-maybe-uninitialized)
endif()

if(XRV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(XRV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT XRV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "XRV_SANITIZE must be address, thread or empty, not '${XRV_SANITIZE}'")
endif()

if(NOT XRV_SANITIZE STREQUAL "")
  # Lets tests loosen their memory bounds by the sanitizers' shadow memory.
  add_compile_definitions(XRV_SANITIZED=1)
endif()

if(XRV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "XRV_FUZZ needs clang (CXX=clang++)")
  endif()
  # Coverage for libFuzzer on everything; the fuzz targets add the driver itself.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# xrv_library(NAME folder SOURCES ... DEPS ...): one static library per src/ folder.
function(xrv_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(${name} PRIVATE ${XRV_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
endfunction()

# xrv_test(NAME SOURCES ... DEPS ...): one GoogleTest executable, its cases registered with ctest.
function(xrv_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${XRV_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

# Libraries whose element parsers register themselves during static initialisation.
# Nothing refers to those objects, so a plain static link would drop them. Such a
# library is built from an object library, and programs that read agent
# definitions link those objects whole (xrv_link_parsers); the archive's copies of
# the same objects are then never pulled in.
set_property(GLOBAL PROPERTY XRV_PARSER_LIBRARIES "")

# xrv_parser_library(NAME SOURCES ... DEPS ...): xrv_library for a folder with
# element parsers.
function(xrv_parser_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_include_directories(${name}_objects PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(${name}_objects PRIVATE ${XRV_WARNINGS})
  target_link_libraries(${name}_objects PUBLIC ${ARG_DEPS})
  add_library(${name} STATIC $<TARGET_OBJECTS:${name}_objects>)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  set_property(GLOBAL APPEND PROPERTY XRV_PARSER_LIBRARIES ${name})
endfunction()

# xrv_link_parsers(TARGET): links the objects of every parser library into TARGET.
function(xrv_link_parsers target)
  get_property(libraries GLOBAL PROPERTY XRV_PARSER_LIBRARIES)
  foreach(library ${libraries})
    target_link_libraries(${target} PRIVATE ${library}_objects ${library})
  endforeach()
endfunction()
