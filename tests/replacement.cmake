# One base service replaced by another shared object of the same name, at load time.
add_library(replaced_tarncore SHARED replacement/tarncore.c)
set_target_properties(replaced_tarncore PROPERTIES OUTPUT_NAME tarncore SOVERSION 1
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/replacement)
target_link_libraries(replaced_tarncore PRIVATE tarn_warnings tarn_settings)
add_executable(replacement_host replacement/host.c)
set_target_properties(replacement_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
target_link_libraries(replacement_host PRIVATE tarncache tarn_warnings tarn_settings)
add_test(NAME Replacement.AnotherLibtarncoreServesTheCache
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/replacement/run.sh $<TARGET_FILE:replacement_host>
    $<TARGET_FILE_DIR:replaced_tarncore>)
