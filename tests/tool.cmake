# The command-line program from end to end, on real files and with the real scan engine. -B: no files beside the sources.
foreach(name IN ITEMS scan cache)
  add_test(NAME tool.${name} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${Python3_EXECUTABLE} -B
    ${CMAKE_CURRENT_SOURCE_DIR}/tool_${name}_test.py $<TARGET_FILE:tarncache-tool>)
endforeach()

# Preloaded into the program, to see what it makes of memory that it does not get.
if(NOT TARN_SANITIZE)
  add_library(tool_refusing_memory MODULE tool_refusing_memory.c)
  target_link_libraries(tool_refusing_memory PRIVATE tarn_warnings tarn_settings ${CMAKE_DL_LIBS})
  set_target_properties(tool_refusing_memory PROPERTIES
    C_VISIBILITY_PRESET default
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  set_tests_properties(tool.scan PROPERTIES
    ENVIRONMENT TARN_TEST_REFUSING_MEMORY=$<TARGET_FILE:tool_refusing_memory>)
endif()
