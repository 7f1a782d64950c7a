// Run-time binding of the libc and libm functions whose symbol versions move.
//
// The link step redirects every reference to memcpy, clock_gettime, glob, pow,
// log, fcntl, fcntl64 and sync_file_range in the program's own objects to the
// __wrap_ functions below, so the executable imports none of those names and
// binds to whatever version the host offers. A wrapper looks its function up
// with dlsym(RTLD_DEFAULT) on the first call and afterwards costs one indirect
// call. sync_file_range is a direct system call and looks nothing up.
//
// Callable from any thread and from static initialisers of any unit: nothing
// here depends on dynamic initialisation. Results and errno are those of the
// real function. A failed lookup is not reported: the call goes to address 0.
#pragma once

#include <glob.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>

extern "C" {

void* __wrap_memcpy(void* dst, const void* src, std::size_t n) noexcept;
int __wrap_clock_gettime(clockid_t clock, struct timespec* now) noexcept;
int __wrap_glob(const char* pattern, int flags, int (*onError)(const char* path, int error),
                glob_t* found) noexcept;
double __wrap_pow(double base, double exponent) noexcept;
double __wrap_log(double x) noexcept;
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
int __wrap_sync_file_range(int fd, off64_t offset, off64_t nbytes, unsigned int flags);

}  // extern "C"

namespace vlk::system {

// The default-version address of `name` in the process, or of `fallback` when
// `name` is absent and a fallback is given; null when neither is found.
void* findSymbol(const char* name, const char* fallback = nullptr) noexcept;

}  // namespace vlk::system
