# The command-line program from end to end, on real files and with the real scan engine. -B: no files beside the sources.
foreach(name IN ITEMS scan cache)
  add_test(NAME tool.${name} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${Python3_EXECUTABLE} -B
    ${CMAKE_CURRENT_SOURCE_DIR}/tool_${name}_test.py $<TARGET_FILE:tarncache-tool>)
endforeach()
