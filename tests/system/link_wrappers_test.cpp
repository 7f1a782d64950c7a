#include <vlk/system/link_wrappers.hpp>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// CTest runs every test in its own process, so the wrapper calls at the top
// of a test are the first calls of that function in the process (memcpy
// excepted: the static initialiser below gets there first). Calls to the
// plain names are redirected to the same wrappers by the link step.

namespace {

// Volatile operands keep the compiler from folding or inlining the calls.
volatile double g_two = 2.0;
volatile std::size_t g_textSize = 12;

std::string copyBeforeMain() {
    std::string copy(g_textSize, '-');
    __wrap_memcpy(copy.data(), "before main.", g_textSize);
    return copy;
}
const std::string g_copiedBeforeMain = copyBeforeMain();

TEST(LinkWrappers, MemcpyWorksBeforeMainAndReturnsTheDestination) {
    EXPECT_EQ(g_copiedBeforeMain, "before main.");
    char copy[16] = {};
    EXPECT_EQ(memcpy(copy, "hello, world", g_textSize), copy);
    EXPECT_STREQ(copy, "hello, world");
}

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer runtime comes first in the lookup order, so the binding holds
// its checking memcpy, not libc's.
TEST(LinkWrappersDeathTest, MemcpyBindsTheSanitizerInterceptor) {
    std::vector<char> small(16);
    char source[32] = {};
    EXPECT_DEATH(__wrap_memcpy(small.data(), source, g_textSize + 5), "heap-buffer-overflow");
}
#endif

// Each wrapper gives libc's result and errno, on the first (looked-up) call
// and later ones.
TEST(LinkWrappers, ResultsAndErrorsPassThrough) {
    timespec now{};
    EXPECT_EQ(__wrap_clock_gettime(CLOCK_REALTIME, &now), 0);
    EXPECT_LE(std::abs(now.tv_sec - ::time(nullptr)), 5);
    EXPECT_EQ(__wrap_pow(g_two, 10.0), 1024.0);
    EXPECT_DOUBLE_EQ(__wrap_log(g_two), M_LN2);
    std::FILE* file = std::tmpfile();
    const int fd = ::fileno(file);
    const int flags = __wrap_fcntl64(fd, F_GETFL);
    ASSERT_EQ(__wrap_fcntl(fd, F_SETFL, flags | O_NONBLOCK), 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(__wrap_sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE), 0);
    glob_t found{};
    ASSERT_EQ(__wrap_glob("/et[c]", 0, nullptr, &found), 0);
    EXPECT_EQ(found.gl_pathc == 1 ? std::string(found.gl_pathv[0]) : "", "/etc");
    globfree(&found);
    EXPECT_EQ(glob("/no/such/*", 0, nullptr, &found), GLOB_NOMATCH);

    const struct {
        const char* call;
        std::function<bool()> fails;
        int error;
    } failures[] = {
        {"clock_gettime", [&] { return clock_gettime(clockid_t(1000), &now) == -1; }, EINVAL},
        {"pow", [] { return std::isinf(pow(0.0 * g_two, -g_two)); }, ERANGE},
        {"log", [] { return std::isnan(log(-g_two)); }, EDOM},
        {"fcntl", [] { return fcntl(-1, F_GETFL) == -1; }, EBADF},
        {"sync_file_range", [&] { return sync_file_range(fd, -1, 0, 0) == -1; }, EINVAL},
    };
    for (const auto& f : failures) {
        errno = 0;
        EXPECT_TRUE(f.fails()) << f.call;
        EXPECT_EQ(errno, f.error) << f.call;
    }
    std::fclose(file);
}

TEST(LinkWrappers, FindSymbolTriesFallbackOnlyWhenNameIsAbsent) {
    void* fcntlAddress = dlsym(RTLD_DEFAULT, "fcntl");
    ASSERT_NE(fcntlAddress, nullptr);
    EXPECT_EQ(vlk::system::findSymbol("glob", "fcntl"), dlsym(RTLD_DEFAULT, "glob"));
    EXPECT_EQ(vlk::system::findSymbol("vlk_no_such_symbol", "fcntl"), fcntlAddress);
    EXPECT_EQ(vlk::system::findSymbol("vlk_no_such_symbol", "vlk_nor_this"), nullptr);
}

}  // namespace
