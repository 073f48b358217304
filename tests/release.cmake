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
