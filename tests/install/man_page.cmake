# The manual pages render without a single groff warning (-ww turns all of
# them on): an unknown macro, a bad escape or a font that does not exist.
if(VLK_INSTALL AND (VLK_BUILD_TOOLS OR VLK_BUILD_TESTS))
  find_program(VLK_GROFF groff REQUIRED)
  foreach(page ${PROJECT_BINARY_DIR}/man/velkmsg.1 ${PROJECT_SOURCE_DIR}/man/vlk-logscan.1)
    get_filename_component(name ${page} NAME_WE)
    add_test(NAME ${name}_man_page
             COMMAND sh -c "out=$(\"$0\" -man -Tutf8 -ww -z \"$1\" 2>&1) && [ -z \"$out\" ] || { echo \"$out\"; exit 1; }"
                     ${VLK_GROFF} ${page})
    set_tests_properties(${name}_man_page PROPERTIES LABELS install)
  endforeach()
endif()
