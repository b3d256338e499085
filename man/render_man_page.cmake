# Runs scdoc on INPUT to write the roff page OUTPUT, then writes OUTPUT.gz
# with gzip -9n (no name or time stamp inside, so the result is the same on
# every build). Called by the build with -DSCDOC= -DGZIP= -DINPUT= -DOUTPUT=.

execute_process(
  COMMAND ${SCDOC}
  INPUT_FILE ${INPUT}
  OUTPUT_FILE ${OUTPUT}.tmp
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  file(REMOVE ${OUTPUT}.tmp)
  message(FATAL_ERROR "scdoc failed on ${INPUT} (${status})")
endif()
file(RENAME ${OUTPUT}.tmp ${OUTPUT})

execute_process(
  COMMAND ${GZIP} -9nc ${OUTPUT}
  OUTPUT_FILE ${OUTPUT}.gz.tmp
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  file(REMOVE ${OUTPUT}.gz.tmp)
  message(FATAL_ERROR "gzip failed on ${OUTPUT} (${status})")
endif()
file(RENAME ${OUTPUT}.gz.tmp ${OUTPUT}.gz)
