// Linked as velkmsg is (vlk_portable_link): exercises the replaced and pinned
// glibc entries that a velkmsg run does not reach, after a start through the
// old __libc_start_main. Prints each failed check; exits with their count.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>

static int g_constructed = 0;
[[gnu::constructor]] static void countConstruction() {
    ++g_constructed;
}

static int failed(bool ok, const char* what) {
    if (!ok) {
        std::printf("FAIL: %s\n", what);
    }
    return ok ? 0 : 1;
}

[[gnu::noinline]] static void raise() {
    throw std::runtime_error("unwound");
}

int main() {
    int failures = failed(g_constructed == 1, "constructors ran exactly once");
    try {
        raise();
    } catch (const std::runtime_error&) {  // found through _dl_find_object, or terminate()
    }
    int value = 0;
    std::thread([&] { value = 42; }).join();
    failures += failed(value == 42, "a thread runs and is joined");
    struct stat byPath {};
    struct stat64 byDescriptor {};
    failures +=
        failed(stat("/", &byPath) == 0 && fstat64(open("/", O_RDONLY), &byDescriptor) == 0 &&
                   S_ISDIR(byPath.st_mode) && byPath.st_ino == byDescriptor.st_ino,
               "stat and fstat64 describe the root directory");
    char* aligned = new (std::align_val_t{256}) char[100];
    failures += failed(reinterpret_cast<std::uintptr_t>(aligned) % 256 == 0, "aligned new");
    operator delete[](aligned, std::align_val_t{256});
    std::uint64_t entropy[2] = {};
    failures += failed(getentropy(entropy, sizeof entropy) == 0 && (entropy[0] | entropy[1]) != 0,
                       "getentropy fills its buffer");
    return failures + failed(arc4random() != arc4random() || arc4random() != arc4random(),
                             "arc4random varies");
}
