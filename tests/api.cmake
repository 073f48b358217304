# The public header and the shared library in programs of several languages.

function(quorvel_api_test name source language standard)
  add_executable(${name} ${source})
  set_target_properties(
    ${name} PROPERTIES ${language}_STANDARD ${standard} ${language}_STANDARD_REQUIRED ON
                       ${language}_EXTENSIONS OFF LINKER_LANGUAGE ${language})
  target_compile_options(${name} PRIVATE -Wall -Wextra -Wpedantic -Werror ${ARGN})
  target_link_libraries(${name} PRIVATE fat_shared)
  add_test(NAME ${QUORVEL_TEST_PREFIX}${name}
           COMMAND ${name} ${CMAKE_CURRENT_BINARY_DIR}/${name}.img)
endfunction()

if(NOT QUORVEL_TESTS)
  foreach(standard 99 11 17)
    quorvel_api_test(api_c${standard} c_api_test.c C ${standard} -Wstrict-prototypes)
  endforeach()
  quorvel_api_test(api_cxx20 c_api_test.cpp CXX 20)
endif()

# Programs for another machine, run under the emulator, write the same images.
add_executable(image_writer image_writer.cpp)
target_link_libraries(image_writer PRIVATE fat quorvel_compile)
if(CMAKE_CROSSCOMPILING)
  add_test(NAME ${QUORVEL_TEST_PREFIX}images
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/same_images ${CMAKE_CURRENT_BINARY_DIR}/same_images
                   ${QUORVEL_NATIVE_BUILD} ${CMAKE_BINARY_DIR} ${CMAKE_CROSSCOMPILING_EMULATOR})
endif()
