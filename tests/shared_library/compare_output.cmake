# Runs PROGRAM, which has to succeed and to print what the file EXPECTED holds, byte for byte.
execute_process(COMMAND ${PROGRAM}
  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
file(READ ${EXPECTED} expected)

if(NOT result EQUAL 0)
  message(FATAL_ERROR "ended with ${result}:\n${output}${errors}")
endif()
if(NOT errors STREQUAL "")
  message(FATAL_ERROR "should not complain:\n${errors}")
endif()
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "printed\n${output}\nbut should print\n${expected}")
endif()
