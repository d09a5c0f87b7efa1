# A store that every host must write alike; scripts/cross-test compares.
add_executable(exchange ${CMAKE_CURRENT_LIST_DIR}/exchange.cpp)
target_link_libraries(exchange PRIVATE blobring_options blobring)
set(exchange_store ${CMAKE_CURRENT_BINARY_DIR}/exchange_store)
add_test(NAME exchange_write COMMAND exchange write ${exchange_store})
add_test(NAME exchange_check COMMAND exchange check ${exchange_store})
set_tests_properties(exchange_write PROPERTIES FIXTURES_SETUP exchange_store)
set_tests_properties(exchange_check PROPERTIES FIXTURES_REQUIRED exchange_store)
