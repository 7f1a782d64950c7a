# velkmsg's portable link, checked by a program linked the same way: it
# starts through the old __libc_start_main with its constructors run once,
# and the replaced and pinned glibc entries work (portable_start.cpp).
if(VLK_PORTABLE_LINK)
  add_executable(portable_start ${CMAKE_CURRENT_LIST_DIR}/portable_start.cpp)
  target_link_libraries(portable_start PRIVATE vlk vlk::link_wrappers)
  vlk_set_warnings(portable_start)
  vlk_portable_link(portable_start)
  add_test(NAME portable_start COMMAND portable_start)
endif()
