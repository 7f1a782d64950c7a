#include <vlk/system/link_wrappers.hpp>

#include <dlfcn.h>
#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdarg>

// Nothing in this unit may copy memory through memcpy, or it would reenter its
// own binding: there are no aggregate copies here, and dlsym lives in libc,
// whose internal calls the link step does not redirect.

namespace {

// The types of the real functions, as libc declares them.
using memcpy_fn = void*(void*, const void*, std::size_t) noexcept;
using clock_gettime_fn = int(clockid_t, timespec*) noexcept;
using glob_fn = int(const char*, int, int (*)(const char*, int), glob_t*) noexcept;
using pow_fn = double(double, double) noexcept;
using log_fn = double(double) noexcept;
using fcntl_fn = int(int, int, ...);
using sync_file_range_fn = int(int, off64_t, off64_t, unsigned int);

// The check is the call itself: it compiles only if the argument converts to
// Fn*, which holds a wrapper, and the libc function it stands for, to the
// type above. Overloads (::pow and ::log are overloaded in C++) resolve to the
// one of that type. The address is not compared: under the sanitizers the
// address of a libc function is not a constant expression.
template <typename Fn>
constexpr bool declaredAs(Fn*) {
    return true;
}
static_assert(declaredAs<memcpy_fn>(::memcpy) && declaredAs<memcpy_fn>(__wrap_memcpy));
static_assert(declaredAs<clock_gettime_fn>(::clock_gettime) &&
              declaredAs<clock_gettime_fn>(__wrap_clock_gettime));
static_assert(declaredAs<glob_fn>(::glob) && declaredAs<glob_fn>(__wrap_glob));
static_assert(declaredAs<pow_fn>(::pow) && declaredAs<pow_fn>(__wrap_pow));
static_assert(declaredAs<log_fn>(::log) && declaredAs<log_fn>(__wrap_log));
static_assert(declaredAs<fcntl_fn>(::fcntl) && declaredAs<fcntl_fn>(::fcntl64) &&
              declaredAs<fcntl_fn>(__wrap_fcntl) && declaredAs<fcntl_fn>(__wrap_fcntl64));
static_assert(declaredAs<sync_file_range_fn>(::sync_file_range) &&
              declaredAs<sync_file_range_fn>(__wrap_sync_file_range));

// Each binding g_X below holds the setup routine of X until the first call
// replaces it with the address found by dlsym. Relaxed loads and stores are
// enough: both values are valid call targets at every moment, and the stored
// address publishes nothing the storing thread wrote, since the function and
// the libc state behind it were set up by the dynamic loader before any thread
// could read the binding. Two first callers may race; both store the same
// address. constinit: a binding holds its setup routine from load time on, so
// static initialisers of other units may call through it in any order.

template <typename Fn>
Fn* bind(std::atomic<Fn*>& binding, const char* name, const char* fallback = nullptr) {
    Fn* real = reinterpret_cast<Fn*>(vlk::system::findSymbol(name, fallback));
    binding.store(real, std::memory_order_relaxed);
    return real;
}

void* velk_setup_memcpy(void* dst, const void* src, std::size_t n) noexcept;
constinit std::atomic<memcpy_fn*> g_memcpy{&velk_setup_memcpy};
void* velk_setup_memcpy(void* dst, const void* src, std::size_t n) noexcept {
    return bind(g_memcpy, "memcpy")(dst, src, n);
}

int velk_setup_clock_gettime(clockid_t clock, timespec* now) noexcept;
constinit std::atomic<clock_gettime_fn*> g_clock_gettime{&velk_setup_clock_gettime};
int velk_setup_clock_gettime(clockid_t clock, timespec* now) noexcept {
    return bind(g_clock_gettime, "clock_gettime")(clock, now);
}

int velk_setup_glob(const char* pattern, int flags, int (*onError)(const char*, int),
                    glob_t* found) noexcept;
constinit std::atomic<glob_fn*> g_glob{&velk_setup_glob};
int velk_setup_glob(const char* pattern, int flags, int (*onError)(const char*, int),
                    glob_t* found) noexcept {
    return bind(g_glob, "glob")(pattern, flags, onError, found);
}

double velk_setup_pow(double base, double exponent) noexcept;
constinit std::atomic<pow_fn*> g_pow{&velk_setup_pow};
double velk_setup_pow(double base, double exponent) noexcept {
    return bind(g_pow, "pow")(base, exponent);
}

double velk_setup_log(double x) noexcept;
constinit std::atomic<log_fn*> g_log{&velk_setup_log};
double velk_setup_log(double x) noexcept {
    return bind(g_log, "log")(x);
}

// One binding serves fcntl and fcntl64: on x86-64 they are the same function,
// and a libc older than fcntl64 offers it as fcntl.
int velk_setup_fcntl64(int fd, int command, ...);
constinit std::atomic<fcntl_fn*> g_fcntl64{&velk_setup_fcntl64};
int velk_setup_fcntl64(int fd, int command, ...) {
    va_list ap;
    va_start(ap, command);
    void* argument = va_arg(ap, void*);
    va_end(ap);
    return bind(g_fcntl64, "fcntl64", "fcntl")(fd, command, argument);
}

}  // namespace

namespace vlk::system {

void* findSymbol(const char* name, const char* fallback) noexcept {
    void* address = dlsym(RTLD_DEFAULT, name);
    if (address == nullptr && fallback != nullptr) {
        address = dlsym(RTLD_DEFAULT, fallback);
    }
    return address;
}

}  // namespace vlk::system

extern "C" {

void* __wrap_memcpy(void* dst, const void* src, std::size_t n) noexcept {
    return g_memcpy.load(std::memory_order_relaxed)(dst, src, n);
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) noexcept {
    return g_clock_gettime.load(std::memory_order_relaxed)(clock, now);
}

int __wrap_glob(const char* pattern, int flags, int (*onError)(const char*, int),
                glob_t* found) noexcept {
    return g_glob.load(std::memory_order_relaxed)(pattern, flags, onError, found);
}

double __wrap_pow(double base, double exponent) noexcept {
    return g_pow.load(std::memory_order_relaxed)(base, exponent);
}

double __wrap_log(double x) noexcept {
    return g_log.load(std::memory_order_relaxed)(x);
}

// fcntl's optional third argument is an int or a pointer, by command. On
// x86-64 both travel in the same 64-bit register or stack slot, so reading it
// as one pointer-sized value and passing that value on is exact for every
// command; where the command takes none, the value read is unspecified and
// ignored. libc's own fcntl reads its argument the same way, and the kernel
// truncates it to int for the commands that take an int.
int __wrap_fcntl64(int fd, int command, ...) {
    va_list ap;
    va_start(ap, command);
    void* argument = va_arg(ap, void*);
    va_end(ap);
    return g_fcntl64.load(std::memory_order_relaxed)(fd, command, argument);
}

// The same entry under the plain name: on x86-64 the two are one function.
[[gnu::alias("__wrap_fcntl64")]] int __wrap_fcntl(int fd, int command, ...);

// A direct system call, so that the program needs no libc entry of this name,
// which older libcs lack. Returns -1 with errno on failure, as libc's does.
int __wrap_sync_file_range(int fd, off64_t offset, off64_t nbytes, unsigned int flags) {
    return static_cast<int>(syscall(SYS_sync_file_range, fd, offset, nbytes, flags));
}

}  // extern "C"
