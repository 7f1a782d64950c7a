# velkmsg is copied to whatever host shows a message, often a much older one
# than the build host. vlk_portable_link(<target>) links a program so that it
# starts on x86-64 Linux with glibc 2.7 or later:
#
# - libstdc++, libgcc, PCRE and zlib come from their static archives, so the
#   program imports from glibc alone, and does not load four more shared
#   libraries at every start;
# - src/system/portable_link.cpp binds the glibc names that got newer symbol
#   versions to their old ones (VLK_PINNED_SYMBOLS, through the wrap
#   facility), and replaces the few that have none;
# - libpthread.so.0 and libdl.so.2 are needed libraries, because before glibc
#   2.34 the pinned thread, semaphore and dlsym entries live there;
# - the program is not position-independent: the loader applies none of the
#   two thousand relative relocations of a PIE build, and the pages they
#   would write stay shared with the file: 2 to 4.5% of a `velkmsg 01-0001`
#   run in the start-up benchmark.
#   What this gives up is a random load address for the program's own code
#   (libraries, heap and stack are still placed at random), in a tool that
#   runs for a millisecond on one argument from the operator.
#
# tests/system/check_imports.sh --portable checks the result: no import above
# GLIBC_2.7, no needed library that glibc 2.7 did not have.
#
# Sanitizer builds keep ordinary dynamic linking: the sanitizer run-times are
# shared libraries that intercept libc by name and expect the shared
# libstdc++. There VLK_PORTABLE_LINK is OFF and the function does nothing.
# So it is when the toolkit is a shared library (BUILD_SHARED_LIBS): velkmsg
# then needs libvlk.so, which no older host has.
if(VLK_SANITIZE OR VLK_BUILD_FUZZ OR BUILD_SHARED_LIBS)
  set(VLK_PORTABLE_LINK OFF)
else()
  set(VLK_PORTABLE_LINK ON)
endif()

# Names that portable_link.cpp defines as __wrap_<name>. A name missing here
# stays imported at its new version (the import check fails); a name here
# without a definition leaves __wrap_<name> undefined (the link fails).
set(VLK_PINNED_SYMBOLS
  __libc_start_main
  pthread_attr_getstacksize pthread_attr_setstacksize pthread_create pthread_detach
  pthread_join pthread_key_create __pthread_key_create pthread_mutexattr_destroy
  pthread_mutexattr_init pthread_mutexattr_settype pthread_once pthread_setspecific
  pthread_setaffinity_np sem_destroy sem_init sem_post sem_timedwait sem_trywait
  dlsym stat fstat fstat64 aligned_alloc getentropy arc4random)

function(vlk_portable_link target)
  if(NOT VLK_PORTABLE_LINK)
    return()
  endif()
  # Debian's -dev packages ship the archives beside the shared libraries.
  find_library(VLK_PCRE_ARCHIVE NAMES libpcre.a REQUIRED)
  find_library(VLK_ZLIB_ARCHIVE NAMES libz.a REQUIRED)

  target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/src/system/portable_link.cpp)
  list(TRANSFORM VLK_PINNED_SYMBOLS PREPEND "LINKER:--wrap=" OUTPUT_VARIABLE _vlk_pin_options)
  # The static libstdc++, PCRE and zlib call the toolkit's libc wrappers too,
  # but come after libvlk.a on the link line: the wrappers are pulled in
  # before, whether or not the program's own code calls them.
  list(TRANSFORM VLK_WRAPPED_SYMBOLS PREPEND "LINKER:--undefined=__wrap_"
       OUTPUT_VARIABLE _vlk_keep_options)
  target_link_options(${target} PRIVATE
    -static-libstdc++ -static-libgcc -no-pie
    # Drops the shared PCRE, zlib and libm that the archives make unneeded.
    LINKER:--as-needed
    # libstdc++.a is built with a section per function: what the program
    # does not call stays out, and with it pages to map and relocate.
    LINKER:--gc-sections
    ${_vlk_pin_options} ${_vlk_keep_options})
  # The archives come before the shared libraries that vlk's interface names,
  # so they resolve every reference; --as-needed then leaves the shared ones
  # out. The two glibc libraries are needed for old hosts although nothing
  # binds to them here.
  target_link_libraries(${target} PRIVATE
    ${VLK_PCRE_ARCHIVE} ${VLK_ZLIB_ARCHIVE}
    "-Wl,--push-state,--no-as-needed" -l:libpthread.so.0 -l:libdl.so.2 "-Wl,--pop-state")
endfunction()
