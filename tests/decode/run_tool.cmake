# Runs one row of the command-line tool's table: TOOL with ARGS (a list),
# STDIN as its input (rows separated by "/", or "<PATH" for a file), and
# checks its exit status against STATUS and its stdout and stderr together
# against EXPECT.
set(in ${WORK}.in)
if(STDIN MATCHES "^<(.*)")
  set(in ${CMAKE_MATCH_1})
else()
  string(REPLACE "/" "\n" input "${STDIN}")
  file(WRITE ${in} "${input}")
endif()
execute_process(COMMAND ${TOOL} ${ARGS} INPUT_FILE ${in}
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status STREQUAL STATUS OR NOT "${out}${err}" MATCHES "${EXPECT}")
  message(FATAL_ERROR "exit status ${status}, not ${STATUS}; output:\n${out}${err}\nnot matching: ${EXPECT}")
endif()
