# vlk-logdemo driven end to end by logdemo_test.sh: a timed run, signals,
# the refusal of bad arguments and configurations, configuration warnings
# and --strict, and SIGTERM with a stalled standard output.
foreach(logdemo_case records signals refusals strict stalled)
  add_test(NAME vlk_logdemo_${logdemo_case}
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/logdemo_test.sh ${logdemo_case}
            $<TARGET_FILE:vlk-logdemo> ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(vlk_logdemo_${logdemo_case} PROPERTIES LABELS slow TIMEOUT 120)
endforeach()
