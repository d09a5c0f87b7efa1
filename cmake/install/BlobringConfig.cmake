include("${CMAKE_CURRENT_LIST_DIR}/BlobringTargets.cmake")
