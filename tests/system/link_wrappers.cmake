# The wrappers' own test opts in to them as velkmsg does.
target_link_libraries(link_wrappers_test PRIVATE vlk::link_wrappers)

# The finished program must import none of the wrapped libc names and must
# export the wrappers it calls (see src/CMakeLists.txt for the list); linked
# portably, it must also start on glibc 2.7 (cmake/VlkPortableLink.cmake).
if(VLK_PORTABLE_LINK)
  set(_vlk_portable_flag --portable)
endif()
add_test(NAME velkmsg_imports
         COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_imports.sh ${_vlk_portable_flag}
                 $<TARGET_FILE:velkmsg> ${VLK_WRAPPED_SYMBOLS})
set_tests_properties(velkmsg_imports PROPERTIES ENVIRONMENT "OBJDUMP=${CMAKE_OBJDUMP}")
