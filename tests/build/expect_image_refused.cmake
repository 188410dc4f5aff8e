# Compiles SOURCE with the driver's flags, archives it and expects the driver image check
# to refuse it: first for operator new, then (without the allocation) for the global
# constructor alone.
file(MAKE_DIRECTORY ${WORK})
function(probe_image defines expected)
  execute_process(COMMAND ${CXX} ${FLAGS} ${defines} -c ${SOURCE} -o ${WORK}/probe.o
                  RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "probe did not compile: ${err}")
  endif()
  file(REMOVE ${WORK}/probe.a)
  execute_process(COMMAND ar rcs ${WORK}/probe.a ${WORK}/probe.o)
  execute_process(COMMAND ${CHECK} ${WORK}/probe.a default RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(rc EQUAL 0)
    message(FATAL_ERROR "the image check accepted a probe that has ${expected}")
  endif()
  if(NOT err MATCHES "${expected}")
    message(FATAL_ERROR "the image check did not name ${expected}: ${err}")
  endif()
endfunction()
probe_image("" "operator new")
probe_image("-DPROBE_NO_NEW" "global constructors")
