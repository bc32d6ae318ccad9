# cmake -DTOOL=path -DARGS="a;b" -DOUT=file -P docs.cmake
# Writes what the tool prints for ARGS to OUT: its manual page or its bash
# completion (tools/common/cli_docs.h).
# A sanitizer build's leak check has no business in a build step.
set(ENV{ASAN_OPTIONS} "detect_leaks=0")
execute_process(COMMAND ${TOOL} ${ARGS} OUTPUT_FILE ${OUT}.tmp RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  file(REMOVE ${OUT}.tmp)
  message(FATAL_ERROR "${TOOL} ${ARGS}: exit ${rc}")
endif()
file(RENAME ${OUT}.tmp ${OUT})
