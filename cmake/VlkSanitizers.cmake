# Sanitizers apply to everything built in the tree, so that the library, the
# tests and the tools agree on one runtime. A fuzzing tree (VLK_BUILD_FUZZ,
# see fuzz/CMakeLists.txt) runs under AddressSanitizer and UBSan as well.
if(VLK_BUILD_FUZZ AND NOT VLK_SANITIZE MATCHES "^(address)?$")
  message(FATAL_ERROR "VLK_BUILD_FUZZ runs under AddressSanitizer; VLK_SANITIZE must be empty or 'address'")
endif()

if(VLK_SANITIZE STREQUAL "address" OR VLK_BUILD_FUZZ)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(VLK_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VLK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VLK_SANITIZE must be empty, 'address' or 'thread'")
endif()
