# The installed files and the release.

include(GNUInstallDirs)
set(release_needs quorvel fat fat_shared)
if(build_qvol)
  list(APPEND release_needs qvol)
endif()
test_program(release_tests RUNS_PROGRAMS ONCE SOURCES artefact_test exports_test install_test
             library_guide_test
             DEFINITIONS QUORVEL_BUILD_DIR="${PROJECT_BINARY_DIR}"
                         QUORVEL_BUILD_TYPE="$<CONFIG>"
                         QUORVEL_LIBDIR="${CMAKE_INSTALL_LIBDIR}"
                         QUORVEL_HAS_QVOL=$<BOOL:${build_qvol}>
                         QUORVEL_LIBRARY="$<TARGET_FILE:fat>"
                         QUORVEL_SHARED_LIBRARY="$<TARGET_FILE:fat_shared>"
                         QUORVEL_C_COMPILER="${CMAKE_C_COMPILER}"
                         QUORVEL_CXX_COMPILER="${CMAKE_CXX_COMPILER}"
             NEEDS ${release_needs})

# script_test(NAME COMMAND...): a script that exits with 77 if this machine cannot run it
function(script_test name)
  add_test(NAME ${name} COMMAND ${ARGN})
  set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 3000)
endfunction()

# The libraries and the formatter built twice, and the interface of the shared library.
if(full_stage AND NOT CMAKE_CROSSCOMPILING)
  set(twice ${CMAKE_CURRENT_BINARY_DIR}/reproducible)
  script_test(release.reproducible ${CMAKE_CURRENT_SOURCE_DIR}/reproducible ${twice}
              ${CMAKE_CXX_COMPILER})
  script_test(release.abi ${CMAKE_CURRENT_SOURCE_DIR}/abi ${twice}/first/build/libquorvel.so)
  script_test(release.symbols ${CMAKE_CURRENT_SOURCE_DIR}/symbols ${PROJECT_BINARY_DIR})
  set_tests_properties(release.reproducible PROPERTIES FIXTURES_SETUP built_twice)
  set_tests_properties(release.abi PROPERTIES FIXTURES_REQUIRED built_twice)

  # The source tarball and the Debian packages.
  foreach(part build lintian chroot)
    script_test(release.packages.${part} ${CMAKE_CURRENT_SOURCE_DIR}/packages ${part}
                ${CMAKE_CURRENT_BINARY_DIR}/packages)
    set_tests_properties(release.packages.${part} PROPERTIES FIXTURES_REQUIRED packages)
  endforeach()
  set_tests_properties(release.packages.build PROPERTIES FIXTURES_REQUIRED ""
                                                         FIXTURES_SETUP packages)

  # The commands of the README on a bare machine. One order at a time: each uses all cores.
  script_test(door.system ${CMAKE_CURRENT_SOURCE_DIR}/bare_machine system
              ${CMAKE_CURRENT_BINARY_DIR}/bare_machine)
  set_tests_properties(door.system PROPERTIES FIXTURES_SETUP bare_machine)
  foreach(order run_first test_first packages_later)
    script_test(door.${order} ${CMAKE_CURRENT_SOURCE_DIR}/bare_machine ${order}
                ${CMAKE_CURRENT_BINARY_DIR}/bare_machine)
    set_tests_properties(door.${order} PROPERTIES FIXTURES_REQUIRED bare_machine
                                                  RESOURCE_LOCK bare_machine)
  endforeach()
endif()
