# Installs the build into a scratch prefix and builds a program against it
# twice, through find_package(vlk) and through pkg-config (consumer_test.sh).
#
# The consumers get the options this tree gives every object (the sanitizer
# flags of VLK_SANITIZE): the installed library needs that run time at the
# consumer's link.
get_directory_property(_vlk_tree_compile_options DIRECTORY ${PROJECT_SOURCE_DIR} COMPILE_OPTIONS)
get_directory_property(_vlk_tree_link_options DIRECTORY ${PROJECT_SOURCE_DIR} LINK_OPTIONS)
set(_vlk_consumer_flags ${_vlk_tree_compile_options} ${_vlk_tree_link_options})
list(REMOVE_DUPLICATES _vlk_consumer_flags)
list(JOIN VLK_WRAPPED_SYMBOLS " " _vlk_wrapped)

add_test(NAME install_consumer
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/consumer_test.sh ${PROJECT_BINARY_DIR} "$<CONFIG>"
                 ${_vlk_consumer_flags})
set_tests_properties(install_consumer PROPERTIES
  LABELS "install;slow"
  TIMEOUT 300
  ENVIRONMENT "CMAKE=${CMAKE_COMMAND};CXX=${CMAKE_CXX_COMPILER};OBJDUMP=${CMAKE_OBJDUMP};WRAPPED_SYMBOLS=${_vlk_wrapped};PORTABLE=${VLK_PORTABLE_LINK}")
