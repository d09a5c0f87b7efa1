# The explorer: power cuts, faults and refused memory on the simulated machine.
add_library(blobring_explorer OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/Blobs.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FailingRun.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FaultRuns.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PowerCut.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Session.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Workload.cpp)
target_link_libraries(blobring_explorer PUBLIC blobring_options)

add_executable(power_cut_explorer ${CMAKE_CURRENT_LIST_DIR}/explorer_main.cpp)
target_link_libraries(power_cut_explorer PRIVATE blobring_options blobring_explorer blobring_sim blobring_store
                                                 blobring_md5)
add_test(NAME power_cut_explorer_brief COMMAND power_cut_explorer --states 20000 --no-faults)
set_tests_properties(power_cut_explorer_brief PROPERTIES TIMEOUT 300)

blobring_test(NAME sim_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/ExplorerTest.cpp
          ${CMAKE_CURRENT_LIST_DIR}/MutantTest.cpp
          ${CMAKE_CURRENT_LIST_DIR}/SimDiskTest.cpp
  LIBS blobring_explorer blobring_sim blobring_store blobring_md5)
