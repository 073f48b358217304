# The files that `cmake --install` installs, in the components of the Debian packages: `tools`,
# `runtime` (the shared library) and `development`.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The directory for the documents of the library. A distribution has its own.
set(QUORVEL_DEVELOPMENT_DOCDIR ${CMAKE_INSTALL_DOCDIR} CACHE STRING
    "Directory for the documents and examples of the library")
mark_as_advanced(QUORVEL_DEVELOPMENT_DOCDIR)

install(TARGETS quorvel RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tools)
if(build_qvol)
  install(TARGETS qvol RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

# ---- the libraries ----------------------------------------------------------------------------

install(
  TARGETS fat fat_shared
  EXPORT quorvelTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES fat/fat.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fat COMPONENT development)

set(cmake_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quorvel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quorvelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(EXPORT quorvelTargets NAMESPACE quorvel:: DESTINATION ${cmake_package_dir}
        COMPONENT development)
install(FILES cmake/quorvelConfig.cmake ${PROJECT_BINARY_DIR}/quorvelConfigVersion.cmake
        DESTINATION ${cmake_package_dir} COMPONENT development)

# pkg-config derives the prefix from the path of quorvel.pc, so that a moved prefix works.
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
foreach(dir LIBDIR INCLUDEDIR)
  cmake_path(IS_ABSOLUTE CMAKE_INSTALL_${dir} is_absolute)
  if(is_absolute)
    set(PC_${dir} ${CMAKE_INSTALL_${dir}})
  else()
    set(PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(cmake/quorvel.pc.in quorvel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quorvel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# ---- manual pages, completions, documents ------------------------------------------------------

# The files that match `pattern`, without those of a program that is not built.
function(companions variable pattern)
  file(GLOB found CONFIGURE_DEPENDS ${pattern})
  if(NOT build_qvol)
    list(FILTER found EXCLUDE REGEX "/_?qvol[^/]*$")
  endif()
  set(${variable} ${found} PARENT_SCOPE)
endfunction()

# Section 3 belongs to the component `development`, the other sections to `tools`. Debian packages
# contain the pages compressed.
companions(manual_pages man/*.[1-8])
foreach(page IN LISTS manual_pages)
  string(REGEX REPLACE ".*\\." "" section ${page})
  set(component tools)
  if(section EQUAL 3)
    set(component development)
  endif()
  if(QUORVEL_DEBIAN)
    cmake_path(GET page FILENAME name)
    set(compressed ${PROJECT_BINARY_DIR}/man/${name}.gz)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
    execute_process(COMMAND gzip -9n INPUT_FILE ${page} OUTPUT_FILE ${compressed}
                            COMMAND_ERROR_IS_FATAL ANY)
    set(page ${compressed})
  endif()
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()

# completions/NAME.bash for bash, completions/_NAME for zsh, which has another directory for those of a
# distribution.
set(zsh_directory zsh/site-functions)
if(QUORVEL_DEBIAN)
  set(zsh_directory zsh/vendor-completions)
endif()
companions(bash_completions completions/*.bash)
foreach(completion IN LISTS bash_completions)
  cmake_path(GET completion STEM program)
  install(FILES ${completion} RENAME ${program} COMPONENT tools
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endforeach()
companions(zsh_completions completions/_*)
install(FILES ${zsh_completions} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/${zsh_directory}
        COMPONENT tools)

foreach(directory docs examples)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${directory})
    install(DIRECTORY ${directory} DESTINATION ${QUORVEL_DEVELOPMENT_DOCDIR} COMPONENT development
            PATTERN CMakeLists.txt EXCLUDE
            PATTERN "make-*" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                         GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
