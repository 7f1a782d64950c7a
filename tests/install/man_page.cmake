# The manual page renders without a single groff warning (-ww turns all of
# them on): an unknown macro, a bad escape or a font that does not exist.
if(VLK_INSTALL AND (VLK_BUILD_TOOLS OR VLK_BUILD_TESTS))
  find_program(VLK_GROFF groff REQUIRED)
  add_test(NAME velkmsg_man_page
           COMMAND sh -c "out=$(\"$0\" -man -Tutf8 -ww -z \"$1\" 2>&1) && [ -z \"$out\" ] || { echo \"$out\"; exit 1; }"
                   ${VLK_GROFF} ${PROJECT_BINARY_DIR}/man/velkmsg.1)
  set_tests_properties(velkmsg_man_page PROPERTIES LABELS install)
endif()
