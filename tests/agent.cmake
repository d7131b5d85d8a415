# Behaviour of the agent; what these files share lies in agent_fixture.h.
foreach(name IN ITEMS lifetime_test queues_test batching_test cleaning_test host_waits_test host_words_test
    invalidation_test reader_test scan_bracket_test attacks_test identity_test withdrawal_test threads_test)
  tarn_add_test(${name})
  target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
endforeach()
