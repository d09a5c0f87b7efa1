# The built tool on real files, judged by coreutils.
if(TARGET blobring_tool)
  foreach(scenario names refusals faults salvage)
    add_test(NAME tool_${scenario}
             COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tool/${scenario}.sh $<TARGET_FILE:blobring_tool>)
    set_tests_properties(tool_${scenario} PROPERTIES TIMEOUT 900)
  endforeach()
  if(NOT CMAKE_CROSSCOMPILING)
    add_library(failing_reads MODULE ${CMAKE_CURRENT_SOURCE_DIR}/tool/failing_reads.c)
    target_compile_options(failing_reads PRIVATE -Wall -Wextra -Wshadow -Wconversion
                                                 -fvisibility=default)
    target_link_libraries(failing_reads PRIVATE ${CMAKE_DL_LIBS})
    add_test(NAME tool_salvage_failing_disk
             COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tool/salvage_failing_disk.sh $<TARGET_FILE:blobring_tool>
                     $<TARGET_FILE:failing_reads>)
    set_tests_properties(tool_salvage_failing_disk PROPERTIES TIMEOUT 300)
  endif()
endif()
