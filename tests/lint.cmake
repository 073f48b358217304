# Checks of form. clang-tidy takes long: in the quick stage it checks only the sources that have changed
# since the last landed state.
set(lint ${PROJECT_SOURCE_DIR}/scripts/lint)
add_test(NAME lint.format COMMAND ${lint} format)
add_test(NAME lint.cppcheck COMMAND ${lint} cppcheck)
set_tests_properties(lint.cppcheck PROPERTIES COST 50) # not as the last one, beside an idle core
add_test(NAME lint.arrows COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/arrows ${PROJECT_BINARY_DIR})
add_test(NAME lint.words COMMAND ${lint} words)
if(full_stage)
  add_test(NAME lint.tidy COMMAND ${lint} tidy ${PROJECT_BINARY_DIR})
  add_test(NAME lint.tidy-qvol COMMAND ${lint} tidy-qvol ${PROJECT_BINARY_DIR})
  set_tests_properties(lint.tidy lint.tidy-qvol PROPERTIES TIMEOUT 1800
                                                            RESOURCE_LOCK tidy_tree)
else()
  add_test(NAME lint.tidy-changed COMMAND ${lint} tidy-changed ${PROJECT_BINARY_DIR})
  set_tests_properties(lint.tidy-changed PROPERTIES TIMEOUT 1800 SKIP_RETURN_CODE 77)
endif()
if(deep_stage)
  add_test(NAME lint.scan COMMAND ${lint} scan ${PROJECT_BINARY_DIR})
  set_tests_properties(lint.scan PROPERTIES TIMEOUT 1800)
endif()
