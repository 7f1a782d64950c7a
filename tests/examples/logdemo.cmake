# vlk-logdemo driven end to end by logdemo_test.sh: a timed run, signals,
# the refusal of bad arguments and configurations, configuration warnings
# and --strict, and SIGTERM with a stalled standard output.
foreach(logdemo_case records signals refusals strict stalled)
  add_test(NAME vlk_logdemo_${logdemo_case}
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/logdemo_test.sh ${logdemo_case}
            $<TARGET_FILE:vlk-logdemo> ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(vlk_logdemo_${logdemo_case} PROPERTIES LABELS slow TIMEOUT 120)
endforeach()

# --version names the program and the project's version, whatever else is
# on the command line, and starts no logger.
add_test(NAME vlk_logdemo_version COMMAND vlk-logdemo --threads 2 --version)
set_tests_properties(vlk_logdemo_version PROPERTIES
  PASS_REGULAR_EXPRESSION "^vlk-logdemo ${PROJECT_VERSION}\n$")
add_test(NAME vlk_logdemo_help COMMAND vlk-logdemo --help)
set_tests_properties(vlk_logdemo_help PROPERTIES
  PASS_REGULAR_EXPRESSION "^usage: vlk-logdemo <config file>.*--help \\| --version\n")
