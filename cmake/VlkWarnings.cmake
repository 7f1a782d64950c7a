# Warnings for the project's own targets: vlk_set_warnings(<target>).
function(vlk_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(VLK_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
