# Installs the build into a scratch prefix and builds a program against it
# twice, through find_package(vlk) and through pkg-config (consumer_test.sh).
#
# The consumers get the options this tree gives every object (the sanitizer
# flags of VLK_SANITIZE): the installed library needs that run time at the
# consumer's link.
if(NOT VLK_INSTALL)
  return()
endif()
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

# The Debian package, unpacked and run (package_test.sh).
add_test(NAME install_package
         COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/package_test.sh ${PROJECT_BINARY_DIR} ${PROJECT_VERSION}
                 ${PROJECT_SOURCE_DIR}/tests/catalogue/data/golden/exact_id.out)
set_tests_properties(install_package PROPERTIES
  LABELS install
  TIMEOUT 300
  ENVIRONMENT "CPACK=${CMAKE_CPACK_COMMAND};OBJDUMP=${CMAKE_OBJDUMP};WRAPPED_SYMBOLS=${_vlk_wrapped};PORTABLE=${VLK_PORTABLE_LINK}")

# A shared library in a scratch tree (shared_test.sh); it compiles the
# library once more, so the sanitizer trees skip it as they skip the
# subproject builds.
if(NOT VLK_SANITIZE AND NOT VLK_BUILD_FUZZ)
  add_test(NAME install_shared
           COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/shared_test.sh ${PROJECT_SOURCE_DIR} ${PROJECT_VERSION}
                   ${VLK_SOVERSION} ${PROJECT_SOURCE_DIR}/tests/catalogue/data/golden/exact_id.out)
  set_tests_properties(install_shared PROPERTIES
    LABELS "install;slow"
    TIMEOUT 900
    ENVIRONMENT "CMAKE=${CMAKE_COMMAND};CXX=${CMAKE_CXX_COMPILER};OBJDUMP=${CMAKE_OBJDUMP}")
endif()
