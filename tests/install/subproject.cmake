# The toolkit built from source inside another project, both ways. Each run
# compiles the library once more; the sanitizer trees skip it, as the check
# is of the build's structure, which their flags do not change.
if(NOT VLK_SANITIZE AND NOT VLK_BUILD_FUZZ)
  foreach(how add_subdirectory FetchContent)
    add_test(NAME subproject_${how}
             COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/subproject_test.sh ${how} ${PROJECT_SOURCE_DIR}
                     ${PROJECT_VERSION})
    set_tests_properties(subproject_${how} PROPERTIES
      LABELS "install;slow"
      TIMEOUT 900
      ENVIRONMENT "CMAKE=${CMAKE_COMMAND};CTEST=${CMAKE_CTEST_COMMAND};CXX=${CMAKE_CXX_COMPILER}")
  endforeach()
endif()
