# Sanitizers apply to everything built in the tree, so that the library, the
# tests and the tools agree on one runtime.
if(VLK_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(VLK_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VLK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VLK_SANITIZE must be empty, 'address' or 'thread'")
endif()
