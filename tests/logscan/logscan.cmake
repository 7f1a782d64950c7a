# vlk-logscan: its unit tests reach the program's units through vlk_logscan;
# logscan_test.sh drives the program on files that vlk-logdemo writes.
foreach(logscan_unit record_line_test line_reader_test)
  target_link_libraries(${logscan_unit} PRIVATE vlk_logscan)
endforeach()

foreach(logscan_case counts damaged usage follow)
  add_test(NAME vlk_logscan_${logscan_case}
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/logscan_test.sh ${logscan_case}
            $<TARGET_FILE:vlk-logscan> $<TARGET_FILE:vlk-logdemo> ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(vlk_logscan_${logscan_case} PROPERTIES TIMEOUT 120)
endforeach()

# Two real rsyslogd on loopback forward the demo's syslog records; skipped
# (77) where no private mount namespace can be made.
add_test(NAME vlk_logscan_forward
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/forward_test.sh
          $<TARGET_FILE:vlk-logscan> $<TARGET_FILE:vlk-logdemo>)
set_tests_properties(vlk_logscan_forward PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77)
