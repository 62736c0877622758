# Compiles SOURCE with COMPILER and FLAGS (separated by commas). With an empty EXPECTED it has to
# succeed without a message; otherwise it has to fail with EXPECTED among the compiler's messages.
string(REPLACE "," ";" flags "${FLAGS}")
execute_process(COMMAND ${COMPILER} ${flags} ${SOURCE}
  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)

if(EXPECTED STREQUAL "")
  if(NOT result EQUAL 0 OR NOT output STREQUAL "")
    message(FATAL_ERROR "should compile without a message:\n${output}")
  endif()
  return()
endif()

if(result EQUAL 0)
  message(FATAL_ERROR "compiled, but should be refused with: ${EXPECTED}")
endif()
string(FIND "${output}" "${EXPECTED}" position)
if(position EQUAL -1)
  message(FATAL_ERROR "refused, but not with: ${EXPECTED}\n${output}")
endif()
