# Libraries of all test programs: GoogleTest, support/, and the sanitized library.

find_package(GTest QUIET)
if(NOT GTest_FOUND AND EXISTS /usr/src/googletest) # for another machine: Debian's sources
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
elseif(NOT GTest_FOUND)
  message(FATAL_ERROR "the tests need GoogleTest: install libgtest-dev and configure again")
endif()

# Some checks do not apply to instrumented programs.
foreach(check "SANITIZED;-fsanitize" "COVERED;--coverage")
  list(GET check 1 flag)
  string(FIND "${CMAKE_CXX_FLAGS}" "${flag}" position)
  list(GET check 0 name)
  if(position EQUAL -1)
    set(QUORVEL_${name} 0)
  else()
    set(QUORVEL_${name} 1)
  endif()
endforeach()

# Another machine's programs run under its emulator, with its character-set converters.
set(test_environment "")
if(QUORVEL_GCONV_PATH)
  set(test_environment GCONV_PATH=${QUORVEL_GCONV_PATH})
endif()
set(tool_path $<TARGET_FILE:quorvel>)
if(CMAKE_CROSSCOMPILING)
  set(tool_path ${CMAKE_CURRENT_BINARY_DIR}/emulated_quorvel)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  file(GENERATE OUTPUT ${tool_path} CONTENT "#!/bin/sh\nexec ${emulator} $<TARGET_FILE:quorvel> \"$@\"\n"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endif()

# Of the compilers clang takes half of the time for test code. In the quick stage it compiles the test
# code alone, where it is installed; what is tested is compiled by the compiler that was chosen.
set(test_compiler "")
find_program(QUORVEL_CLANG clang++)
if(QUORVEL_CLANG AND CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT full_stage AND NOT CMAKE_CROSSCOMPILING
   AND NOT CMAKE_CXX_COMPILER_LAUNCHER AND NOT QUORVEL_COVERED AND NOT QUORVEL_SANITIZED)
  set(test_compiler ${CMAKE_CURRENT_SOURCE_DIR}/instead_of_compiler ${QUORVEL_CLANG})
endif()

# Most test code is compiled more often than it runs, so that test_support is not optimised. Programs
# that calculate for long are linked with test_support_optimised; at that level gcc 12 mistakes inlined
# string functions for accesses outside their objects.
set(level_test_support -O0)
set(level_test_support_optimised -O1 -Wno-array-bounds -Wno-stringop-overflow)
foreach(support test_support test_support_optimised)
  add_library(${support} STATIC support/faults.cpp support/process.cpp)
  target_include_directories(${support} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${support} PUBLIC quorvel_compile GTest::gtest GTest::gtest_main)
  target_compile_definitions(
    ${support} PUBLIC QUORVEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                      QUORVEL_BUILT_TOOL="${tool_path}"
                      QUORVEL_SANITIZED=${QUORVEL_SANITIZED}
                      QUORVEL_COVERED=${QUORVEL_COVERED}
                      QUORVEL_EMULATED=$<BOOL:${CMAKE_CROSSCOMPILING}>
                      QUORVEL_FULL=$<BOOL:${full_stage}>)
  target_compile_options(${support} PUBLIC ${level_${support}})
  set_property(TARGET ${support} PROPERTY CXX_COMPILER_LAUNCHER ${test_compiler})
  target_precompile_headers(
    ${support} PRIVATE <gtest/gtest.h> <filesystem> <fstream> <map> <random> <set> <sstream>
    <string> <vector>)
  # Lets support/faults.cpp intercept calls between the library and the system.
  foreach(function malloc calloc realloc free open64 close read write lseek64 fstat64 lstat64 readlink
                   ioctl truncate64 fsync iconv_open iconv_close)
    target_link_options(${support} PUBLIC -Wl,--wrap=${function})
  endforeach()
  # Links faults.cpp into programs that inject no fault themselves.
  target_link_options(${support} PUBLIC -Wl,--undefined=__wrap_malloc)
endforeach()

# An instrumented build, or one for another machine, has no sanitized form.
set(run_sanitized ON)
if(QUORVEL_SANITIZED OR QUORVEL_COVERED OR CMAKE_CROSSCOMPILING)
  set(run_sanitized OFF)
endif()
# In the quick stage undefined behaviour ends in SIGILL and its line, and the dynamic type of objects is
# not checked: the tables for messages and types are most of a program, and half of the time that a
# command takes. Less of the freed memory is held back, and of the stack of each allocation two
# calls are stored. The later stages have all of it.
set(sanitizers -fsanitize=address,undefined)
set(sanitized_options -Og -g1 ${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer
                      -fno-pie)
set(sanitized_link_options ${sanitizers} -no-pie) # no relocations at each start
if(NOT full_stage)
  list(APPEND sanitized_options -fno-sanitize=vptr -fsanitize-undefined-trap-on-error)
  set(sanitizer_settings handle_sigill=1:quarantine_size_mb=16:malloc_context_size=2)
endif()

# compile_in_batches(TARGET SIZE): headers and templates that the sources of a batch share are compiled
# once for it. Not where CMAKE_UNITY_BUILD is set.
function(compile_in_batches target size)
  if(NOT DEFINED CMAKE_UNITY_BUILD)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${size})
    # The sources of a batch count as headers, with classes that derive from those of the source.
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
  endif()
endfunction()

if(run_sanitized)
  foreach(part core fat)
    string(TOUPPER ${part} list)
    list(TRANSFORM ${list}_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE sources)
    add_library(${part}_sanitized_objects OBJECT ${sources})
    target_include_directories(${part}_sanitized_objects PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${part}_sanitized_objects PRIVATE quorvel_compile)
    target_compile_options(${part}_sanitized_objects PRIVATE ${sanitized_options})
    compile_in_batches(${part}_sanitized_objects 14)
  endforeach()
  add_library(core_sanitized STATIC $<TARGET_OBJECTS:core_sanitized_objects>)
  add_library(fat_sanitized STATIC $<TARGET_OBJECTS:fat_sanitized_objects>
                                   $<TARGET_OBJECTS:core_sanitized_objects>)
  foreach(library core_sanitized fat_sanitized)
    set_target_properties(${library} PROPERTIES LINKER_LANGUAGE CXX)
    target_include_directories(${library} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${library} PUBLIC quorvel_compile)
    target_link_options(${library} PUBLIC ${sanitized_link_options})
  endforeach()
  add_executable(quorvel_sanitized ${PROJECT_SOURCE_DIR}/tool/main.cpp
                                   ${PROJECT_SOURCE_DIR}/tool/options.cpp)
  target_link_libraries(quorvel_sanitized PRIVATE fat_sanitized)
endif()
