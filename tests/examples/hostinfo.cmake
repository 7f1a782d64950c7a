# vlk-hostinfo runs the real host probe and prints what it found.
add_test(NAME vlk_hostinfo_prints_the_host COMMAND vlk-hostinfo)
set_tests_properties(vlk_hostinfo_prints_the_host PROPERTIES
  PASS_REGULAR_EXPRESSION "logical processors +[1-9].*page size +[1-9][0-9]*.*Max open files"
  LABELS slow
  TIMEOUT 60)
