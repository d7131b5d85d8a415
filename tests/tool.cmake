# The command-line program from end to end, on real files and with the real scan engine.
add_test(NAME tool COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${Python3_EXECUTABLE}
  ${CMAKE_CURRENT_SOURCE_DIR}/tool_test.py $<TARGET_FILE:tarncache-tool>)
