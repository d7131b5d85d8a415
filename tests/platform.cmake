# Tests of the bundled base services; they link the real libraries and replace nothing.

# name, libraries...
function(tarn_platform_test name)
  add_executable(${name} ${name}.cpp)
  target_link_libraries(${name} PRIVATE tarn_temp_install tarn_warnings tarn_settings ${ARGN} GTest::gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)
endfunction()

# The logger reads its settings once, so each case looks at a process of its own.
add_executable(platform_log_child platform_log_child.cpp)
set_target_properties(platform_log_child PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
target_link_libraries(platform_log_child PRIVATE tarn_warnings tarn_settings tarncore Threads::Threads)

tarn_platform_test(platform_log_test tarncore Threads::Threads)
target_compile_definitions(platform_log_test PRIVATE TARN_LOG_CHILD="$<TARGET_FILE:platform_log_child>")
add_dependencies(platform_log_test platform_log_child)

tarn_platform_test(platform_ini_test nubbase)
target_compile_definitions(platform_ini_test PRIVATE TARN_SHIPPED_CONFIG="${PROJECT_SOURCE_DIR}/config/tarncfg.ini")

tarn_platform_test(platform_services_test tarn_support tarncore nubbase nubcl_ev Threads::Threads ${CMAKE_DL_LIBS})
target_compile_definitions(platform_services_test PRIVATE TARN_LIBRARY="$<TARGET_FILE:tarncache>")
tarn_platform_test(fork_test tarncache)
