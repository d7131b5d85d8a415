# Behaviour of the agent; what these files share lies in agent_fixture.h.
foreach(name IN ITEMS lifetime_test database_health_test queues_test batching_test cleaning_test host_waits_test host_words_test
    invalidation_test reader_test scan_bracket_test attacks_test identity_test withdrawal_test threads_test)
  tarn_add_test(${name})
  target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
endforeach()

# Under faults: with the bundled base services, and in children of a process that does not use the library itself.
add_executable(faults_test faults_test.cpp)
target_link_libraries(faults_test PRIVATE tarn_temp_install tarncache tarncore GTest::gtest tarn_warnings tarn_settings)
set_target_properties(faults_test PROPERTIES ENABLE_EXPORTS ON RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
gtest_discover_tests(faults_test DISCOVERY_MODE PRE_TEST)
