# The command-line program from end to end, on real files and with the real scan engine.
if(TARN_BUILD_TOOLS)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  add_test(NAME tool COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${Python3_EXECUTABLE}
    ${CMAKE_CURRENT_LIST_DIR}/tool_test.py $<TARGET_FILE:tarncache-tool>)
endif()
