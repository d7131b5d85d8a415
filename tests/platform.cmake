# Tests of the bundled base services; they link the real libraries and replace nothing.
find_package(GTest REQUIRED)
include(GoogleTest)

set(TARN_PLATFORM_TEST_DIR ${CMAKE_CURRENT_LIST_DIR})

# name, libraries...
function(tarn_platform_test name)
  add_executable(${name} ${TARN_PLATFORM_TEST_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE tarn_warnings tarn_settings ${ARGN} GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)
endfunction()

if(TARN_BUNDLED_PLATFORM)
  find_package(Threads REQUIRED)

  # The logger reads its settings once, so each case looks at a process of its own.
  add_executable(platform_log_child ${TARN_PLATFORM_TEST_DIR}/platform_log_child.cpp)
  target_link_libraries(platform_log_child PRIVATE tarn_warnings tarn_settings tarncore Threads::Threads)

  tarn_platform_test(platform_log_test tarncore Threads::Threads)
  target_compile_definitions(platform_log_test PRIVATE TARN_LOG_CHILD="$<TARGET_FILE:platform_log_child>")
  add_dependencies(platform_log_test platform_log_child)

  tarn_platform_test(platform_ini_test nubbase)
  target_compile_definitions(platform_ini_test PRIVATE TARN_SHIPPED_CONFIG="${PROJECT_SOURCE_DIR}/config/tarncfg.ini")

  tarn_platform_test(platform_services_test tarncore nubbase nubcl_ev Threads::Threads)
endif()
