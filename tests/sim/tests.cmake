# The explorer: power cuts, failing calls and refused memory on the simulated
# machine. ctest runs a little of it; scripts/prove runs the rest.
add_executable(power_cut_explorer
  ${CMAKE_CURRENT_LIST_DIR}/PowerCut.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Run.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Session.cpp
  ${CMAKE_CURRENT_LIST_DIR}/explorer_main.cpp)
target_link_libraries(power_cut_explorer PRIVATE blobring_options blobring_sim blobring_store blobring_md5)
add_test(NAME explorer_brief COMMAND power_cut_explorer BRIEF)
set_tests_properties(explorer_brief PROPERTIES TIMEOUT 600)

blobring_test(NAME sim_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/SimDiskTest.cpp LIBS blobring_sim)
