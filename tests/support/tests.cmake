# The simulated machine, linked where the store would otherwise get our
# stand-in for the platform.
add_library(blobring_sim OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/SimCrash.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SimDiagnostics.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SimDisk.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SimFiles.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SimMemory.cpp)
target_link_libraries(blobring_sim PUBLIC blobring_options)
