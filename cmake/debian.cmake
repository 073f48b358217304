# Debian packages by `cpack`: quorvel (the programs), libquorvel1, libquorvel-dev. scripts/package
# sets up a build for them.

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Debian packages need -DCMAKE_INSTALL_PREFIX=/usr")
endif()

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(packages tools runtime development)
set(tools_package quorvel)
set(runtime_package libquorvel${PROJECT_VERSION_MAJOR})
set(development_package libquorvel-dev)

# ---- further files of the packages ------------------------------------------------------------

# install_compressed(SOURCE NAME): into the document directory of each package, as NAME.gz
function(install_compressed source name)
  set(compressed ${PROJECT_BINARY_DIR}/documents/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/documents)
  execute_process(COMMAND gzip -9n INPUT_FILE ${source} OUTPUT_FILE ${compressed}
                          COMMAND_ERROR_IS_FATAL ANY)
  foreach(component IN LISTS packages)
    install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}_package}
            COMPONENT ${component})
  endforeach()
endfunction()

install_compressed(${packaging}/changelog changelog.Debian)
if(EXISTS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
  install_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog)
endif()
foreach(component IN LISTS packages)
  set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/${${component}_package})
  install(FILES ${packaging}/copyright DESTINATION ${documents} COMPONENT ${component})
endforeach()

# ---- cpack ------------------------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvel)
set(CPACK_PACKAGE_VENDOR "The quorvel authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The quorvel authors <quorvel@example.org>")
set(package_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
file(STRINGS ${packaging}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^quorvel \\(${package_version}\\) ")
  message(FATAL_ERROR "packaging/changelog does not begin with version ${package_version}")
endif()

# package(COMPONENT SECTION SUMMARY DESCRIPTION)
macro(package component section summary description)
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${${component}_package})
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SOURCE quorvel)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${COMPONENT}_DESCRIPTION "${summary}\n${description}")
endmacro()

package(
  tools otherosfs "FAT formatter and volume tools for NAND flash"
  "quorvel formats a NAND-flash block device or an image file as FAT16 or FAT32,
with every area aligned to the pages of the flash. qvol builds images from
directories, copies files in and out, and checks and repairs such volumes
without mounting them.")
package(
  runtime libs "FAT library for NAND flash - shared library"
  "libquorvel formats FAT16 and FAT32 volumes on NAND-flash block devices and in
image files, and reads and changes the files in them. It needs nothing but the
C library.")
package(
  development libdevel "FAT library for NAND flash - development files"
  "libquorvel formats FAT16 and FAT32 volumes on NAND-flash block devices and in
image files, and reads and changes the files in them.
.
This package holds its header for C and C++, the static library, what
pkg-config and CMake need to find it, and its documents.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${packaging}/libquorvel1/shlibs;${packaging}/libquorvel1/symbols;${packaging}/libquorvel1/triggers")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${package_version})")

include(CPack)
