# The command-line program from end to end, on real files and with the real scan engine. -B: no files beside the sources.
foreach(name IN ITEMS scan cache)
  add_test(NAME tool.${name} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${Python3_EXECUTABLE} -B
    ${CMAKE_CURRENT_SOURCE_DIR}/tool_${name}_test.py $<TARGET_FILE:tarncache-tool>)
endforeach()

# Preloaded into the program, to see what it makes of memory that it does not get and of files that change.
if(NOT TARN_SANITIZE)
  add_library(tool_preloaded MODULE tool_preloaded.c)
  target_link_libraries(tool_preloaded PRIVATE tarn_warnings tarn_settings ${CMAKE_DL_LIBS})
  set_target_properties(tool_preloaded PROPERTIES
    C_VISIBILITY_PRESET default
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  set_tests_properties(tool.scan PROPERTIES
    ENVIRONMENT TARN_TEST_PRELOADED=$<TARGET_FILE:tool_preloaded>)
endif()
