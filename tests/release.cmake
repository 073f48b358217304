# What is installed and released.

quorvel_test(install_test RUNS_PROGRAMS ONCE DEFINITIONS
             QUORVEL_BUILD_DIR="${PROJECT_BINARY_DIR}"
             QUORVEL_LIBDIR="${CMAKE_INSTALL_LIBDIR}"
             QUORVEL_HAS_QVOL=$<BOOL:${QUORVEL_BUILD_QVOL}>
             QUORVEL_C_COMPILER="${CMAKE_C_COMPILER}"
             QUORVEL_CXX_COMPILER="${CMAKE_CXX_COMPILER}")
if(TARGET install_test AND QUORVEL_BUILD_QVOL)
  add_dependencies(install_test qvol)
endif()

# The libraries and the tool built twice, and what the shared one offers.
if(QUORVEL_EXTRA_CHECKS)
  set(twice ${CMAKE_CURRENT_BINARY_DIR}/reproducible)
  add_test(NAME release.reproducible COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/reproducible ${twice}
                                             ${CMAKE_CXX_COMPILER})
  set_tests_properties(release.reproducible PROPERTIES FIXTURES_SETUP built_twice TIMEOUT 1200)
  add_test(NAME release.abi COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/abi
                                    ${twice}/first/build/libquorvel.so)
  set_tests_properties(release.abi PROPERTIES FIXTURES_REQUIRED built_twice SKIP_RETURN_CODE 77)
  add_test(NAME release.symbols COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/symbols ${PROJECT_BINARY_DIR})
  set_tests_properties(release.symbols PROPERTIES SKIP_RETURN_CODE 77)
endif()

# What is handed out: source tarball and Debian packages.
if(QUORVEL_DEEP_TESTS AND QUORVEL_EXTRA_CHECKS)
  foreach(part build lintian chroot)
    add_test(NAME release.packages.${part} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/packages ${part}
                                                   ${CMAKE_CURRENT_BINARY_DIR}/packages)
    set_tests_properties(release.packages.${part} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 3000
                                                             FIXTURES_REQUIRED packages)
  endforeach()
  set_tests_properties(release.packages.build PROPERTIES FIXTURES_REQUIRED ""
                                                         FIXTURES_SETUP packages)
endif()
