#include <vlk/system/link_wrappers.hpp>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

// Each wrapped function has its own test, and CTest runs every test in its
// own process, so the wrapper calls at the top of a test are the first calls
// of that function in the process (memcpy excepted: the static initialiser
// below and the runtime get there first). Calls to the plain names are
// redirected to the same wrappers by the link step.

namespace {

// Volatile operands keep the compiler from folding or inlining the calls.
volatile double g_two = 2.0;
volatile double g_ten = 10.0;
volatile std::size_t g_textSize = 12;

// Runs during static initialisation, in whatever order the units come.
std::string copyBeforeMain() {
    std::string copy(g_textSize, '-');
    __wrap_memcpy(copy.data(), "before main.", g_textSize);
    return copy;
}
const std::string g_copiedBeforeMain = copyBeforeMain();

// An unlinked temporary file with 16 bytes in it, open for reading and
// writing; a second open file description of it comes through /proc.
int scratchFile() {
    std::FILE* file = std::tmpfile();
    const int fd = file != nullptr ? ::dup(::fileno(file)) : -1;
    if (file != nullptr) {
        std::fclose(file);
    }
    return fd >= 0 && ::write(fd, "0123456789abcdef", 16) == 16 ? fd : -1;
}

TEST(LinkWrappers, MemcpyWorksBeforeMainAndReturnsTheDestination) {
    EXPECT_EQ(g_copiedBeforeMain, "before main.");

    char first[16] = {};
    char later[16] = {};
    EXPECT_EQ(__wrap_memcpy(first, "hello, world", g_textSize), first);
    EXPECT_EQ(memcpy(later, "hello, world", g_textSize), later);
    EXPECT_STREQ(first, "hello, world");
    EXPECT_STREQ(later, "hello, world");
}

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer runtime comes first in the lookup order, so the binding holds
// its checking memcpy, not libc's, and an overflow through the wrapper is
// caught.
TEST(LinkWrappersDeathTest, MemcpyBindsTheSanitizerInterceptor) {
    EXPECT_DEATH(
        {
            std::vector<char> small(16);
            char source[32] = {};
            __wrap_memcpy(small.data(), source, g_textSize + 5);
        },
        "heap-buffer-overflow");
}
#endif

TEST(LinkWrappers, ClockGettimeReadsClocksAndPassesErrors) {
    // The standard library reads the same monotonic clock without the wrapper.
    auto steadyNow = [] { return std::chrono::steady_clock::now().time_since_epoch().count(); };
    auto nanoseconds = [](timespec t) { return t.tv_sec * 1'000'000'000LL + t.tv_nsec; };
    timespec first{}, later{}, wall{};
    const long long before = steadyNow();
    ASSERT_EQ(__wrap_clock_gettime(CLOCK_MONOTONIC, &first), 0);
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &later), 0);
    EXPECT_LE(before, nanoseconds(first));
    EXPECT_LE(nanoseconds(first), nanoseconds(later));
    EXPECT_LE(nanoseconds(later), steadyNow());
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &wall), 0);
    EXPECT_LE(std::abs(wall.tv_sec - ::time(nullptr)), 5);

    errno = 0;
    EXPECT_EQ(__wrap_clock_gettime(static_cast<clockid_t>(1000), &wall), -1);
    EXPECT_EQ(errno, EINVAL);
}

// The first call goes through the lookup, later ones straight to libm; both
// give libm's result and its errno.
TEST(LinkWrappers, PowAndLogGiveTheirResultsAndPassErrors) {
    EXPECT_EQ(__wrap_pow(g_two, g_ten), 1024.0);
    EXPECT_EQ(pow(g_two, -g_ten), 1.0 / 1024.0);
    double first = __wrap_log(g_two);
    EXPECT_EQ(log(g_two), first);
    EXPECT_DOUBLE_EQ(first, M_LN2);

    errno = 0;
    EXPECT_TRUE(std::isinf(pow(0.0 * g_two, -g_two)));
    EXPECT_EQ(errno, ERANGE);
    errno = 0;
    EXPECT_TRUE(std::isnan(log(-g_two)));
    EXPECT_EQ(errno, EDOM);
}

TEST(LinkWrappers, GlobListsMatchingFilesSorted) {
    std::string dir = (std::filesystem::temp_directory_path() / "vlk-wrap-XXXXXX").string();
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    for (const char* name : {"b.txt", "a.txt", "c.log"}) {
        std::ofstream(dir + "/" + name) << name;
    }
    auto run = [](auto globber, const std::string& pattern) {
        glob_t found{};
        std::vector<std::string> paths;
        int status = globber(pattern.c_str(), 0, nullptr, &found);
        for (std::size_t i = 0; status == 0 && i < found.gl_pathc; ++i) {
            paths.push_back(std::filesystem::path(found.gl_pathv[i]).filename());
        }
        globfree(&found);
        return std::pair(status, paths);
    };
    const auto first = run(__wrap_glob, dir + "/*.txt");
    EXPECT_EQ(first, std::pair(0, std::vector<std::string>{"a.txt", "b.txt"}));
    EXPECT_EQ(run(glob, dir + "/*.txt"), first);
    EXPECT_EQ(run(glob, dir + "/*.none").first, GLOB_NOMATCH);
    std::filesystem::remove_all(dir);
}

// The optional argument is an int for some commands and a pointer, read and
// written back by the kernel, for others.
TEST(LinkWrappers, FcntlPassesIntAndPointerArguments) {
    const int holder = scratchFile();
    ASSERT_GE(holder, 0);
    const int flags = __wrap_fcntl64(holder, F_GETFL);
    ASSERT_NE(flags, -1);
    EXPECT_EQ(flags & O_NONBLOCK, 0);
    ASSERT_EQ(__wrap_fcntl(holder, F_SETFL, flags | O_NONBLOCK), 0);
    EXPECT_NE(fcntl(holder, F_GETFL) & O_NONBLOCK, 0);
    const int duplicate = fcntl(holder, F_DUPFD_CLOEXEC, 100);
    EXPECT_GE(duplicate, 100);
    EXPECT_EQ(fcntl(duplicate, F_GETFD), FD_CLOEXEC);
    ::close(duplicate);
    errno = 0;
    EXPECT_EQ(__wrap_fcntl64(-1, F_GETFL), -1);
    EXPECT_EQ(errno, EBADF);

    // Open-file-description locks conflict within one process, so a second
    // description of the file sees the holder's range in full.
    const int asker = ::open(("/proc/self/fd/" + std::to_string(holder)).c_str(), O_RDWR);
    ASSERT_GE(asker, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 4;
    lock.l_len = 6;
    ASSERT_EQ(__wrap_fcntl64(holder, F_OFD_SETLK, &lock), 0);
    struct flock query {};
    query.l_type = F_RDLCK;
    query.l_whence = SEEK_SET;
    ASSERT_EQ(__wrap_fcntl(asker, F_OFD_GETLK, &query), 0);
    EXPECT_EQ(query.l_type, F_WRLCK);
    EXPECT_EQ(query.l_start, 4);
    EXPECT_EQ(query.l_len, 6);
    query.l_pid = 0;
    errno = 0;
    EXPECT_EQ(fcntl(asker, F_OFD_SETLK, &query), -1);
    EXPECT_EQ(errno, EAGAIN);
    ::close(asker);
    ::close(holder);
}

TEST(LinkWrappers, SyncFileRangeReportsKernelResult) {
    errno = 0;
    EXPECT_EQ(__wrap_sync_file_range(-1, 0, 0, SYNC_FILE_RANGE_WRITE), -1);
    EXPECT_EQ(errno, EBADF);
    const int fd = scratchFile();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(sync_file_range(fd, 0, 16, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE), 0);
    errno = 0;
    EXPECT_EQ(sync_file_range(fd, -1, 0, SYNC_FILE_RANGE_WRITE), -1);
    EXPECT_EQ(errno, EINVAL);
    ::close(fd);
}

TEST(LinkWrappers, FindSymbolTriesFallbackOnlyWhenNameIsAbsent) {
    void* fcntl64Address = dlsym(RTLD_DEFAULT, "fcntl64");
    void* fcntlAddress = dlsym(RTLD_DEFAULT, "fcntl");
    void* globAddress = dlsym(RTLD_DEFAULT, "glob");
    ASSERT_NE(fcntlAddress, nullptr);
    ASSERT_NE(globAddress, fcntlAddress);

    EXPECT_EQ(vlk::system::findSymbol("fcntl64", "fcntl"), fcntl64Address);
    EXPECT_EQ(vlk::system::findSymbol("glob", "fcntl"), globAddress);
    EXPECT_EQ(vlk::system::findSymbol("vlk_no_such_symbol", "fcntl"), fcntlAddress);
    EXPECT_EQ(vlk::system::findSymbol("vlk_no_such_symbol"), nullptr);
    EXPECT_EQ(vlk::system::findSymbol("vlk_no_such_symbol", "vlk_nor_this"), nullptr);
}

}  // namespace
