# Compares the checked-in page of log points with what the table gives now.
# Variables: TOOL (the program that prints the page), PAGE (the checked-in page), FRESH (a scratch file).

execute_process(COMMAND ${TOOL} OUTPUT_FILE ${FRESH} RESULT_VARIABLE printed)
if(NOT printed EQUAL 0)
  message(FATAL_ERROR "${TOOL} failed: ${printed}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${PAGE} ${FRESH} RESULT_VARIABLE differs)
if(NOT differs EQUAL 0)
  message(FATAL_ERROR
    "${PAGE} does not show the table of log points (now in ${FRESH}). "
    "Run 'make docs', read the difference and check it in.")
endif()
