# Read by ctest behind the list of the discovered tests.
foreach(test IN LISTS zelvan_test_sync_service_TESTS)
  set_tests_properties("${test}" PROPERTIES RESOURCE_LOCK synchronisation_port)
endforeach()
