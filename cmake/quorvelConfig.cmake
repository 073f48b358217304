# The CMake package of libquorvel: quorvel::fat (static) and quorvel::fat_shared. Both need only the C
# library.

include(${CMAKE_CURRENT_LIST_DIR}/quorvelTargets.cmake)

# The static library is written in C++ but does not need the C++ run-time library. So C is its link
# language, and projects without C++ can use it.
get_target_property(quorvel_configurations quorvel::fat IMPORTED_CONFIGURATIONS)
foreach(quorvel_configuration IN LISTS quorvel_configurations)
  set_target_properties(quorvel::fat PROPERTIES
                        IMPORTED_LINK_INTERFACE_LANGUAGES_${quorvel_configuration} C)
endforeach()
unset(quorvel_configuration)
unset(quorvel_configurations)
