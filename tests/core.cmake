# Tests of util/, tables/ and interface/.
foreach(name IN ITEMS cachetable_bulk dbconfig entry_points identity_hash medium tables walk)
  tarn_add_test(${name}_test)
endforeach()
target_link_libraries(identity_hash_test PRIVATE ZLIB::ZLIB) # a CRC-32 that is not the library's own
# Not exported, so the test has them of its own.
target_sources(medium_test PRIVATE ${PROJECT_SOURCE_DIR}/util/medium.cpp ${PROJECT_SOURCE_DIR}/util/file_system_kind.cpp)
target_link_libraries(medium_test PRIVATE tarn_support)

# The public header as a C program sees it, on an installation folder of its own.
set(root ${CMAKE_BINARY_DIR}/tests/c_header)
file(MAKE_DIRECTORY ${root}/lib ${root}/engine/cache)
file(WRITE ${root}/config/tarncfg.ini "[cacheeng]\n")
add_executable(c_header_test c_header_test.c)
target_link_libraries(c_header_test PRIVATE tarncache tarn_warnings tarn_settings)
set_target_properties(c_header_test PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
add_test(NAME CHeader.CompilesAndWorksAsC COMMAND c_header_test)
set_tests_properties(CHeader.CompilesAndWorksAsC PROPERTIES ENVIRONMENT TARN_INSTALL_DIR=${root}/lib)
