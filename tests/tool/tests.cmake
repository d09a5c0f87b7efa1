# The built tool on real files, judged by coreutils.
if(TARGET blobring_tool)
  foreach(scenario round_trip names refusals faults salvage killed_import)
    add_test(NAME tool_${scenario}
             COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tool/${scenario}.sh $<TARGET_FILE:blobring_tool>)
    set_tests_properties(tool_${scenario} PROPERTIES TIMEOUT 900)
  endforeach()
endif()
