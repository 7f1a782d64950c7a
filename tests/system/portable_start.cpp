// Linked as velkmsg is (vlk_portable_link): exercises the replaced and pinned
// glibc entries that a velkmsg run does not reach, after a start through the
// old __libc_start_main. Prints each failed check; exits with their count.
#include <dlfcn.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

int g_constructed = 0;
struct counted {
    counted() { ++g_constructed; }
} g_counted;

int g_failures = 0;
void check(bool ok, const char* what) {
    if (!ok) {
        std::printf("FAIL: %s\n", what);
        ++g_failures;
    }
}

[[gnu::noinline]] void raise() {
    throw std::runtime_error("unwound");
}

}  // namespace

int main() {
    check(g_constructed == 1, "static constructors ran exactly once");
    std::string caught;
    try {
        raise();
    } catch (const std::runtime_error& e) {
        caught = e.what();
    }
    check(caught == "unwound", "an exception is caught (unwind tables found)");
    int value = 0;
    std::thread([&] { value = 42; }).join();
    check(value == 42, "a thread runs and is joined");
    sem_t posted;
    timespec deadline{std::time(nullptr) + 10, 0};
    check(sem_init(&posted, 0, 0) == 0 && sem_post(&posted) == 0 &&
              sem_timedwait(&posted, &deadline) == 0 && sem_destroy(&posted) == 0,
          "a semaphore is posted and taken");
    struct stat byPath {};
    struct stat64 byDescriptor {};
    const int root = open("/", O_RDONLY);
    check(stat("/", &byPath) == 0 && fstat64(root, &byDescriptor) == 0 && S_ISDIR(byPath.st_mode) &&
              byPath.st_ino == byDescriptor.st_ino,
          "stat and fstat64 describe the root directory");
    char* aligned = new (std::align_val_t{256}) char[100];
    check(reinterpret_cast<std::uintptr_t>(aligned) % 256 == 0, "aligned new");
    operator delete[](aligned, std::align_val_t{256});
    std::uint64_t entropy[2] = {};
    check(getentropy(entropy, sizeof entropy) == 0 && (entropy[0] | entropy[1]) != 0,
          "getentropy fills its buffer");
    check(arc4random() != arc4random() || arc4random() != arc4random(), "arc4random varies");
    check(dlsym(RTLD_DEFAULT, "getpid") != nullptr, "dlsym finds a libc function");
    return g_failures;
}
