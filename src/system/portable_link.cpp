// What a program linked by vlk_portable_link (cmake/VlkPortableLink.cmake)
// needs to start on x86-64 Linux with glibc 2.7 or later.
//
// A program linked here imports each glibc symbol at its default version on
// this host, and the loader of an older glibc refuses to start a program that
// asks for a version it lacks. The program links libstdc++, libgcc, PCRE and
// zlib statically, so what it imports comes from glibc alone; what remains of
// a newer version is handled below in one of three ways:
//
// - Pinned: glibc still exports the name at the version it had in 2.7 or
//   before, with the same behaviour. The link step redirects every reference
//   to __wrap_<name>, a tail jump to <name>@<old version>. A jump passes the
//   argument registers, the stack and the result through untouched, so one
//   form of thunk serves every signature.
// - Replaced: the name has no old version, and the program defines its own,
//   built from calls that are old enough.
// - Start-up: __libc_start_main, called from crt1.o, see below.
//
// Each entry says why the old version or the replacement is safe.
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

// Binds every reference to `name` to name@version. The symbol vlk_pinned_<name>
// is renamed by .symver to the versioned import.
// clang-format off
#define VLK_PIN(name, version)                                      \
    __asm__(".symver vlk_pinned_" #name ", " #name "@" version "\n" \
            ".pushsection .text\n"                                  \
            ".globl __wrap_" #name "\n"                             \
            ".type __wrap_" #name ", @function\n"                   \
            "__wrap_" #name ":\n"                                   \
            "\tjmp vlk_pinned_" #name "@PLT\n"                      \
            ".size __wrap_" #name ", . - __wrap_" #name "\n"        \
            ".popsection\n")
// clang-format on

// Threads and semaphores moved from libpthread.so.0 into libc.so.6 in glibc
// 2.34, which gave them new default versions and kept the old ones as the
// same functions. Before 2.34 they are found in libpthread.so.0, which the
// program therefore names as needed (it is an empty stub from 2.34 on).
// x86-64 started at GLIBC_2.2.5, so these have had one behaviour under that
// version all along; pthread_setaffinity_np came in 2.3.4 with its present
// signature (the cpuset size argument).
VLK_PIN(pthread_attr_getstacksize, "GLIBC_2.2.5");
VLK_PIN(pthread_attr_setstacksize, "GLIBC_2.2.5");
VLK_PIN(pthread_create, "GLIBC_2.2.5");
VLK_PIN(pthread_detach, "GLIBC_2.2.5");
VLK_PIN(pthread_join, "GLIBC_2.2.5");
VLK_PIN(pthread_key_create, "GLIBC_2.2.5");
VLK_PIN(__pthread_key_create, "GLIBC_2.2.5");
VLK_PIN(pthread_mutexattr_destroy, "GLIBC_2.2.5");
VLK_PIN(pthread_mutexattr_init, "GLIBC_2.2.5");
VLK_PIN(pthread_mutexattr_settype, "GLIBC_2.2.5");
VLK_PIN(pthread_once, "GLIBC_2.2.5");
VLK_PIN(pthread_setspecific, "GLIBC_2.2.5");
VLK_PIN(pthread_setaffinity_np, "GLIBC_2.3.4");
VLK_PIN(sem_destroy, "GLIBC_2.2.5");
VLK_PIN(sem_init, "GLIBC_2.2.5");
VLK_PIN(sem_post, "GLIBC_2.2.5");
VLK_PIN(sem_timedwait, "GLIBC_2.2.5");
VLK_PIN(sem_trywait, "GLIBC_2.2.5");

// dlsym moved from libdl.so.2 into libc.so.6 in 2.34 in the same way; the
// program names libdl.so.2 as needed for the hosts before that.
VLK_PIN(dlsym, "GLIBC_2.2.5");

extern "C" {

// stat, fstat and fstat64 became functions of their own in glibc 2.33. Before, the
// headers turned each call into __xstat or __fxstat64 with the structure's
// version as first argument, and those entries are still exported at their
// first version. Version 1 is x86-64's one struct stat, the kernel's, which
// is what <sys/stat.h> declares here.
int vlk_pinned___xstat(int layout, const char* path, struct stat* buffer) noexcept;
int vlk_pinned___fxstat(int layout, int fd, struct stat* buffer) noexcept;
int vlk_pinned___fxstat64(int layout, int fd, struct stat64* buffer) noexcept;
__asm__(".symver vlk_pinned___xstat, __xstat@GLIBC_2.2.5");
__asm__(".symver vlk_pinned___fxstat, __fxstat@GLIBC_2.2.5");
__asm__(".symver vlk_pinned___fxstat64, __fxstat64@GLIBC_2.2.5");
constexpr int stat_layout_linux = 1;

int __wrap_stat(const char* path, struct stat* buffer) noexcept {
    return vlk_pinned___xstat(stat_layout_linux, path, buffer);
}

int __wrap_fstat(int fd, struct stat* buffer) noexcept {
    return vlk_pinned___fxstat(stat_layout_linux, fd, buffer);
}

int __wrap_fstat64(int fd, struct stat64* buffer) noexcept {
    return vlk_pinned___fxstat64(stat_layout_linux, fd, buffer);
}

// libstdc++'s aligned operator new calls aligned_alloc (GLIBC_2.16).
// posix_memalign (GLIBC_2.2.5) gives the same kind of block, released with
// free; it wants an alignment of at least a pointer, and a stricter
// alignment than asked for is still a correct answer.
void* __wrap_aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    void* block = nullptr;
    if (alignment < sizeof(void*)) {
        alignment = sizeof(void*);
    }
    return posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}

// std::random_device (libstdc++) can draw from getentropy (GLIBC_2.25) and
// arc4random (GLIBC_2.36), which have no older versions. Both are the
// kernel's getrandom system call underneath, made here directly as the link
// wrappers make sync_file_range. On a kernel without it, getentropy fails with
// ENOSYS, as glibc's does, and arc4random ends the process, as glibc's does
// when it cannot get entropy.
int __wrap_getentropy(void* buffer, std::size_t length) noexcept {
    if (length > 256) {
        errno = EIO;
        return -1;
    }
    auto* next = static_cast<unsigned char*>(buffer);
    while (length > 0) {
        const long got = syscall(SYS_getrandom, next, length, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        next += got;
        length -= static_cast<std::size_t>(got);
    }
    return 0;
}

std::uint32_t __wrap_arc4random() noexcept {
    std::uint32_t value;
    if (__wrap_getentropy(&value, sizeof value) != 0) {
        abort();
    }
    return value;
}

// libstdc++ reads this byte to skip atomic operations while the process has
// one thread; glibc exports it from 2.32 on, with no older version. The
// program's own copy, which the static libstdc++ binds to, says "not single
// threaded" for good. That is the answer glibc gives once a thread has been
// made, and it is correct at any thread count: libstdc++ always takes the
// atomic path, and only loses a shortcut. Hidden, so that it does not
// interpose glibc's copy for the shared libraries, which keep theirs.
[[gnu::visibility("hidden")]] char __libc_single_threaded = 0;

// libgcc's unwinder (GCC 12, glibc 2.35 or later at build time) finds the
// unwind tables of a code address through _dl_find_object, which older
// loaders do not have, and has no other way left when the call fails. This
// one answers from dl_iterate_phdr (GLIBC_2.2.5): the loaded object whose
// segments hold the address, and its PT_GNU_EH_FRAME segment. It is used on
// every host, so the path that old hosts take is the one tested here. Hidden:
// the loader's own copy stays what the shared libraries find.
[[gnu::visibility("hidden")]] int _dl_find_object(void* address, dl_find_object* result) noexcept {
    struct search {
        std::uintptr_t address;
        dl_find_object* result;
        bool found;
    } wanted{reinterpret_cast<std::uintptr_t>(address), result, false};
    dl_iterate_phdr(
        [](dl_phdr_info* object, std::size_t, void* data) -> int {
            auto& wanted = *static_cast<search*>(data);
            std::uintptr_t start = UINTPTR_MAX;
            std::uintptr_t end = 0;
            void* frames = nullptr;
            bool holds = false;
            for (ElfW(Half) i = 0; i < object->dlpi_phnum; ++i) {
                const ElfW(Phdr)& segment = object->dlpi_phdr[i];
                const std::uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
                if (segment.p_type == PT_LOAD) {
                    start = begin < start ? begin : start;
                    end = begin + segment.p_memsz > end ? begin + segment.p_memsz : end;
                    holds = holds ||
                            (wanted.address >= begin && wanted.address - begin < segment.p_memsz);
                } else if (segment.p_type == PT_GNU_EH_FRAME) {
                    frames = reinterpret_cast<void*>(begin);
                }
            }
            if (!holds) {
                return 0;
            }
            *wanted.result = dl_find_object{};
            wanted.result->dlfo_map_start = reinterpret_cast<void*>(start);
            wanted.result->dlfo_map_end = reinterpret_cast<void*>(end);
            wanted.result->dlfo_eh_frame = frames;
            wanted.found = true;
            return 1;
        },
        &wanted);
    return wanted.found ? 0 : -1;
}

// Program start. crt1.o of glibc 2.34 and later calls __libc_start_main with
// a null `init` and leaves the program's constructors to libc, which runs
// them only at the 2.34 version of the entry; an older libc given a null
// `init` runs none, and the catalogue would stand empty. So the reference is
// bound to __libc_start_main@GLIBC_2.2.5 and given what old start-up code
// gave it: a function that runs _init and then the init array, in order.
// (Dynamic loaders of every version run the preinit array themselves.) Given
// an `init`, every libc version, this one included, calls it in place of its
// own constructor pass, so constructors run exactly once on any host.
// `fini` stays null: the loader runs the program's fini array and _fini at
// exit on every version.
using main_function = int(int, char**, char**);
using init_function = void(int, char**, char**);
int vlk_pinned___libc_start_main(main_function* main, int argc, char** argv, init_function* init,
                                 void (*fini)(), void (*loaderFini)(), void* stackEnd);
__asm__(".symver vlk_pinned___libc_start_main, __libc_start_main@GLIBC_2.2.5");

[[gnu::visibility("hidden")]] void _init();
[[gnu::visibility("hidden")]] extern init_function* const __init_array_start[];
[[gnu::visibility("hidden")]] extern init_function* const __init_array_end[];

}  // extern "C"

namespace {

void runConstructors(int argc, char** argv, char** environment) {
    _init();
    for (init_function* const* f = __init_array_start; f != __init_array_end; ++f) {
        (*f)(argc, argv, environment);
    }
}

}  // namespace

extern "C" int __wrap___libc_start_main(main_function* main, int argc, char** argv,
                                        init_function* init, void (*fini)(), void (*loaderFini)(),
                                        void* stackEnd) {
    return vlk_pinned___libc_start_main(main, argc, argv, init != nullptr ? init : runConstructors,
                                        fini, loaderFini, stackEnd);
}
