# Runs the host conformance suite on a host with a planted fault and passes
# only when the suite fails (exit status 1) and names the contract the fault
# breaks among its failed checks.
#
#   cmake -DPROGRAM=<suite> -DCONTRACT=<check name> [-DEMULATOR=<runner>] -P ExpectFailure.cmake
if(NOT PROGRAM OR NOT CONTRACT)
  message(FATAL_ERROR "PROGRAM and CONTRACT must be given")
endif()
execute_process(COMMAND ${EMULATOR} ${PROGRAM}
                RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
message("${output}${errors}")
if(NOT status EQUAL 1)
  message(FATAL_ERROR "the suite ended with status ${status}, not 1 (a failed check)")
endif()
string(FIND "${output}" "\nFAIL ${CONTRACT}: " line)
if(line EQUAL -1)
  message(FATAL_ERROR "the suite did not fail ${CONTRACT}, the contract the planted fault breaks")
endif()
string(REGEX MATCH "\n[0-9]+ passed, [0-9]+ failed: [^\n]*" summary "${output}")
string(FIND "${summary}" "${CONTRACT}" named)
if(named EQUAL -1)
  message(FATAL_ERROR "the summary line does not name ${CONTRACT}")
endif()
message("planted fault found: ${CONTRACT} failed")
