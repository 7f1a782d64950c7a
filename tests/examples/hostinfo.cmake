# vlk-hostinfo runs the real host probe and prints what it found.
add_test(NAME vlk_hostinfo_prints_the_host COMMAND vlk-hostinfo)
set_tests_properties(vlk_hostinfo_prints_the_host PROPERTIES
  PASS_REGULAR_EXPRESSION "logical processors +[1-9].*page size +[1-9][0-9]*.*Max open files"
  LABELS slow
  TIMEOUT 60)

# --version names the program and the project's version; --help prints the
# usage on standard output; any other argument is refused before the probe.
add_test(NAME vlk_hostinfo_version COMMAND vlk-hostinfo --version)
set_tests_properties(vlk_hostinfo_version PROPERTIES
  PASS_REGULAR_EXPRESSION "^vlk-hostinfo ${PROJECT_VERSION}\n$")
add_test(NAME vlk_hostinfo_help COMMAND vlk-hostinfo --help)
set_tests_properties(vlk_hostinfo_help PROPERTIES
  PASS_REGULAR_EXPRESSION "^usage: vlk-hostinfo \\[--help \\| --version\\]\n")
add_test(NAME vlk_hostinfo_refuses_arguments COMMAND vlk-hostinfo --verbose)
set_tests_properties(vlk_hostinfo_refuses_arguments PROPERTIES WILL_FAIL ON)
