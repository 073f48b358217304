# test_program(NAME SOURCES S...): a program with the cases of tests/S.cpp, registered as NAME, and as
# asan.NAME with the sanitized library and programs.
#
#   OPTIMISED S...  further sources, which calculate for long: see support.cmake
#   ALONE S...      those of the sources whose names clash with others: not compiled in a batch
#   LONG            runs for long and therefore begins before the others
#   SHARDS N        registers N parts, NAME.1 to NAME.N, which may run at the same time
#   RUNS_PROGRAMS   tests other programs: not under valgrind, not for another machine; asan.NAME is the
#                   same program with the sanitized programs
#   CALLS_LIBRARY   although it RUNS_PROGRAMS, asan.NAME has the sanitized library, too
#   ONCE            has no sanitized form
#   VALGRIND S      the first stage with valgrind.NAME: full or deep (default); never: no stage
#   FURTHER F...    further source files
#   DEFINITIONS, LIBRARIES, SANITIZED_LIBRARIES, NEEDS (targets)

find_program(VALGRIND valgrind)
set(sanitized_programs QUORVEL_TOOL=$<TARGET_FILE:quorvel_sanitized>)
if(NOT full_stage) # the search for leaks and the stack of each allocation take most of a short run
  set(short_run_settings detect_leaks=0:malloc_context_size=0)
endif()
set_property(GLOBAL PROPERTY quorvel_test_sources "")

# register_program(NAME SHARDS COMMAND...)
function(register_program name shards)
  set(name ${QUORVEL_TEST_PREFIX}${name})
  foreach(shard RANGE 1 ${shards})
    set(shard_name ${name})
    set(environment ${test_environment})
    if(shards GREATER 1)
      set(shard_name ${name}.${shard})
      math(EXPR index "${shard} - 1")
      list(APPEND environment GTEST_TOTAL_SHARDS=${shards} GTEST_SHARD_INDEX=${index})
    endif()
    add_test(NAME ${shard_name} COMMAND ${ARGN})
    set_tests_properties(${shard_name} PROPERTIES TIMEOUT 1500 LABELS cases COST ${cost})
    set_property(TEST ${shard_name} PROPERTY ENVIRONMENT ${environment})
  endforeach()
endfunction()

function(test_program name)
  cmake_parse_arguments(
    arg "LONG;RUNS_PROGRAMS;CALLS_LIBRARY;ONCE" "SHARDS;VALGRIND"
    "SOURCES;OPTIMISED;ALONE;FURTHER;DEFINITIONS;LIBRARIES;SANITIZED_LIBRARIES;NEEDS" ${ARGN})
  set_property(GLOBAL APPEND PROPERTY quorvel_test_sources ${arg_SOURCES} ${arg_OPTIMISED})
  if(QUORVEL_TESTS)
    list(JOIN QUORVEL_TESTS "|" wanted)
    list(FILTER arg_SOURCES INCLUDE REGEX "^(${wanted})$")
    list(FILTER arg_OPTIMISED INCLUDE REGEX "^(${wanted})$")
  endif()
  set(all_sources ${arg_SOURCES} ${arg_OPTIMISED})
  if(NOT all_sources OR (CMAKE_CROSSCOMPILING AND arg_RUNS_PROGRAMS))
    return()
  endif()
  foreach(source IN LISTS arg_ALONE)
    set_source_files_properties(${source}.cpp PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
  endforeach()
  if(NOT arg_SHARDS)
    set(arg_SHARDS 1)
  endif()
  set(cost 1)
  if(arg_LONG)
    set(cost 100)
  endif()
  if(NOT arg_VALGRIND)
    set(arg_VALGRIND deep)
  endif()

  # The optimised objects come first: of an inline function that several have, the first is linked.
  set(objects "")
  set(support test_support)
  if(arg_OPTIMISED)
    set(support test_support_optimised)
    add_objects(${name}_optimised_objects test_support_optimised "${arg_OPTIMISED}")
  endif()
  if(arg_SOURCES)
    add_objects(${name}_objects test_support "${arg_SOURCES}")
  endif()
  if(arg_FURTHER)
    add_objects(${name}_further_objects test_support "${arg_FURTHER}")
  endif()
  add_executable(${name} ${objects})
  target_link_libraries(${name} PRIVATE ${support} ${arg_LIBRARIES} fat)
  add_dependencies(${name} quorvel ${arg_NEEDS})
  if(run_sanitized)
    add_dependencies(${name} quorvel_sanitized)
  endif()
  register_program(${name} ${arg_SHARDS} ${name} --gtest_brief=1)

  if(run_sanitized AND NOT arg_ONCE)
    set(sanitized ${name})
    if(NOT arg_RUNS_PROGRAMS OR arg_CALLS_LIBRARY)
      set(sanitized asan_${name})
      add_sanitized_program(${name})
    endif()
    set(settings ${sanitizer_settings})
    set(environment ${CMAKE_COMMAND} -E env)
    if(arg_RUNS_PROGRAMS)
      list(APPEND settings ${short_run_settings})
      list(APPEND environment ${sanitized_programs})
    endif()
    if(settings)
      list(JOIN settings : settings)
      list(APPEND environment ASAN_OPTIONS=${settings})
    endif()
    register_program(asan.${name} ${arg_SHARDS} ${environment} $<TARGET_FILE:${sanitized}>
                     --gtest_brief=1)
  endif()
  if(VALGRIND AND NOT CMAKE_CROSSCOMPILING AND NOT arg_RUNS_PROGRAMS
     AND (deep_stage OR (full_stage AND arg_VALGRIND STREQUAL full)))
    register_program(valgrind.${name} ${arg_SHARDS} ${VALGRIND} --quiet --error-exitcode=99
                     --leak-check=full --errors-for-leak-kinds=definite,indirect
                     --suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/valgrind.supp
                     $<TARGET_FILE:${name}> --gtest_brief=1)
  endif()
endfunction()

# Sources of a test program, compiled with the options and the precompiled headers of `support`.
macro(add_objects target with sources)
  set(files ${sources})
  list(TRANSFORM files APPEND .cpp REGEX "_test$")
  add_library(${target} OBJECT ${files})
  target_link_libraries(${target} PRIVATE ${with} ${arg_LIBRARIES})
  target_compile_definitions(${target} PRIVATE ${arg_DEFINITIONS})
  set_property(TARGET ${target} PROPERTY CXX_COMPILER_LAUNCHER ${test_compiler})
  target_precompile_headers(${target} REUSE_FROM ${with})
  compile_in_batches(${target} 3)
  list(APPEND objects $<TARGET_OBJECTS:${target}>)
endmacro()

# The objects of a test program, linked with the sanitized library.
macro(add_sanitized_program name)
  add_executable(asan_${name} ${objects})
  target_link_libraries(asan_${name} PRIVATE ${support} ${arg_SANITIZED_LIBRARIES}
                                             $<TARGET_FILE:fat_sanitized>)
  target_link_options(asan_${name} PRIVATE ${sanitized_link_options})
  add_dependencies(asan_${name} fat_sanitized ${name})
endmacro()

# Fails if a source of cases is in no program.
function(require_every_test_source)
  get_property(known GLOBAL PROPERTY quorvel_test_sources)
  file(GLOB found CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} *_test.cpp)
  list(TRANSFORM found REPLACE "\\.cpp$" "")
  list(REMOVE_ITEM found ${known} c_api_test)
  if(found AND build_qvol)
    message(FATAL_ERROR "these sources are in no test program: ${found}")
  endif()
endfunction()
