# qvol: its parts, the program, and the documents of all programs.

find_package(nlohmann_json REQUIRED)

# The program with writes that fail.
add_executable(qvol_failing_writes EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/qvol/main.cpp
                                   support/failing_pwrite.cpp)
target_link_libraries(qvol_failing_writes PRIVATE qvol_core)
target_link_options(qvol_failing_writes PRIVATE -Wl,--wrap=pwrite64)
# The program with an fsync that always fails.
add_executable(qvol_failing_fsync EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/qvol/main.cpp
                                  support/failing_fsync.cpp)
target_link_libraries(qvol_failing_fsync PRIVATE qvol_core)
# The program with the sanitizers.
if(run_sanitized)
  find_package(CLI11 REQUIRED)
  find_package(fmt REQUIRED)
  set(sources ${QVOL_CORE_SOURCES})
  if(NOT full_stage) # CLI11 is most of the time to compile qvol with sanitizers
    list(FILTER sources EXCLUDE REGEX "/command_line\\.cpp$")
    list(APPEND sources $<FILTER:$<TARGET_OBJECTS:qvol_core>,INCLUDE,/command_line\\.cpp>)
  endif()
  add_library(qvol_core_sanitized STATIC ${sources})
  target_link_libraries(qvol_core_sanitized PUBLIC core_sanitized CLI11::CLI11
                                                   nlohmann_json::nlohmann_json fmt::fmt
                                                   PkgConfig::fdisk PkgConfig::blkid PkgConfig::uuid
                                                   PkgConfig::libarchive PkgConfig::libzstd
                                                   PkgConfig::nettle PkgConfig::zlib)
  target_compile_definitions(qvol_core_sanitized PRIVATE QVOL_VERSION="${PROJECT_VERSION}")
  target_compile_options(qvol_core_sanitized PRIVATE ${sanitized_options})
  compile_in_batches(qvol_core_sanitized 14)
  add_executable(qvol_sanitized ${PROJECT_SOURCE_DIR}/qvol/main.cpp)
  target_compile_options(qvol_sanitized PRIVATE ${sanitized_options})
  target_link_libraries(qvol_sanitized PRIVATE qvol_core_sanitized)
  list(APPEND sanitized_programs QVOL=$<TARGET_FILE:qvol_sanitized>)
  set(sanitized_core SANITIZED_LIBRARIES qvol_core_sanitized)
  set(sanitized_qvol qvol_sanitized)
endif()

test_program(qvol_unit_tests SOURCES qvol_command_line_test qvol_image_stream_test qvol_names_test qvol_verify_test
             qvol_volume_test LIBRARIES qvol_core
             ${sanitized_core})

set(qvol_definitions
    QVOL_BUILT_PROGRAM="$<TARGET_FILE:qvol>"
    QVOL_FAILING_WRITES="$<TARGET_FILE:qvol_failing_writes>"
    QVOL_FAILING_FSYNC="$<TARGET_FILE:qvol_failing_fsync>"
    QUORVEL_DEEP=$<BOOL:${deep_stage}>)
set(qvol_programs quorvel qvol qvol_failing_writes qvol_failing_fsync ${sanitized_qvol})
test_program(qvol_tests LONG RUNS_PROGRAMS SHARDS 2 SOURCES qvol_build_stop_test qvol_build_test
             qvol_check_test qvol_disk_test qvol_flash_test qvol_flashing_test qvol_hostile_test qvol_import_test
             qvol_interrupted_test qvol_json_test qvol_map_test qvol_places_test qvol_program_test
             qvol_salvage_test qvol_sources_test
             DEFINITIONS ${qvol_definitions} LIBRARIES nlohmann_json::nlohmann_json
             NEEDS ${qvol_programs})
test_program(qvol_damage_tests LONG RUNS_PROGRAMS OPTIMISED qvol_damage_test
             DEFINITIONS ${qvol_definitions} LIBRARIES nlohmann_json::nlohmann_json
             NEEDS ${qvol_programs})
if(deep_stage)
  add_test(NAME deep.qvol_check
           COMMAND ${CMAKE_COMMAND} -E env QUORVEL_DEEP_TESTS=1 $<TARGET_FILE:qvol_tests>
                   --gtest_brief=1 --gtest_filter=QvolCheck*Damaged*)
  set_tests_properties(deep.qvol_check PROPERTIES TIMEOUT 3600)
endif()

# The manual pages, completions, examples and documents, compared with the programs.
add_subdirectory(${PROJECT_SOURCE_DIR}/examples ${PROJECT_BINARY_DIR}/examples)
test_program(document_tests RUNS_PROGRAMS SOURCES completion_test documents_test examples_test
             manual_test
             DEFINITIONS ${qvol_definitions} QUORVEL_LIBRARY="$<TARGET_FILE:fat>"
                         QUORVEL_C_COMPILER="${CMAKE_C_COMPILER}"
                         QUORVEL_EXAMPLES="$<TARGET_FILE_DIR:zuq_player>"
             LIBRARIES nlohmann_json::nlohmann_json
             NEEDS ${qvol_programs} zuq_player flash_model)
