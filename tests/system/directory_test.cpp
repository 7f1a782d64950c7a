#include <vlk/system/directory.hpp>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;
namespace dir = vlk::directory;

// Each test runs in a fresh temporary directory, `_root`, made the current
// directory and holding a regular file, "file"; both are undone afterwards.
class Directory : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "vlk_directory_XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        _root = fs::canonical(pattern).string();
        fs::current_path(_root);
        std::ofstream("file") << "x";
    }
    void TearDown() override {
        fs::current_path(_previous);
        fs::remove_all(_root);
    }

    const fs::path _previous = fs::current_path();
    std::string _root;
};

// The error is written only on failure.
TEST_F(Directory, CreateMakesEveryLevelAndRefusesOddCharacters) {
    int error = -1;
    for (const char* path : {"a/b/c/", "a/b/c", "d/e/f", "g//h", "", "/"}) {
        EXPECT_TRUE(dir::createHierarchy(path, error)) << path;
    }
    EXPECT_TRUE(dir::createHierarchy(_root + "/k/l_-.9", error));
    EXPECT_TRUE(dir::createDirectory("file", error));  // what exists is accepted
    EXPECT_TRUE(dir::createDirectory("new", error));
    EXPECT_EQ(error, -1);
    for (const char* made : {"a/b/c", "d/e/f", "g/h", "k/l_-.9", "new"}) {
        EXPECT_TRUE(fs::is_directory(made)) << made;
    }
    const std::pair<const char*, int> refusals[] = {
        {"logs/a b", EINVAL}, {"logs/~x", EINVAL}, {"logs/$x", EINVAL}, {"m/../file/x", ENOTDIR}};
    for (const auto& [path, expected] : refusals) {
        EXPECT_FALSE(dir::createHierarchy(path, error)) << path;
        EXPECT_EQ(error, expected) << path;
    }
    EXPECT_FALSE(fs::exists("logs"));  // refused before anything was made
    EXPECT_TRUE(fs::is_directory("m"));
    EXPECT_FALSE(dir::createDirectory("missing/new", error));
    EXPECT_EQ(error, ENOENT);
}

// Queries of paths and links. The mount point is the highest parent of the
// directory on its device.
TEST_F(Directory, PathPartsAbsoluteFormsLinksMountPointsAndFreeSpace) {
    // The POSIX basename, not the GNU one: a trailing slash does not count.
    EXPECT_EQ(dir::baseName("/a/b/"), "b");
    const std::string absolutes[][2] = {
        {"/x", "/x"}, {"./x", _root + "/x"}, {"x/y", _root + "/x/y"}, {"x", "x"}, {"", ""}};
    for (const auto& [path, expected] : absolutes) {
        EXPECT_EQ(dir::absolute(path), expected) << path;
    }
    ASSERT_EQ(::symlink("some/target", "link"), 0);
    EXPECT_EQ(dir::resolveLink("link"), "some/target");
    EXPECT_EQ(dir::resolveLink("file"), "");
    EXPECT_EQ(dir::findMountPoint("no/such"), _root + "/no/such");
    const std::string mount = dir::findMountPoint(_root);
    struct stat here {
    }, atMount{}, above{};
    ASSERT_EQ(::stat(_root.c_str(), &here) | ::stat(mount.c_str(), &atMount), 0) << mount;
    ASSERT_EQ(::stat(dir::dirname(mount).c_str(), &above), 0) << mount;
    EXPECT_EQ(_root.rfind(mount, 0), 0u) << mount;
    EXPECT_EQ(atMount.st_dev, here.st_dev);
    EXPECT_TRUE(mount == "/" || above.st_dev != here.st_dev) << mount;
    EXPECT_GT(dir::getFreeSpace(_root), 0u);
    EXPECT_EQ(dir::getFreeSpace("missing"), 0u);
}

}  // namespace
