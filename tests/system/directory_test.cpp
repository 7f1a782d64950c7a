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
// directory; both are undone afterwards.
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

TEST_F(Directory, PathPartsAndAbsoluteForms) {
    const char* const parts[][3] = {// path, baseName, dirname
                                    {"/a/b/", "b", "/a"}, {"a/b", "b", "a"}, {"/", "/", "/"},
                                    {"a", "a", "."},      {"", ".", "."},    {"/a", "a", "/"}};
    for (const auto& [path, base, parent] : parts) {
        EXPECT_EQ(dir::baseName(path), base) << path;
        EXPECT_EQ(dir::dirname(path), parent) << path;
    }
    EXPECT_EQ(dir::currentWorkingDirectory(), _root);
    const std::string absolutes[][2] = {
        {"/x", "/x"}, {"./x", _root + "/x"}, {"x/y", _root + "/x/y"},   {"x", "x"},
        {"", ""},     {"./", _root + "/./"}, {"../a", _root + "/../a"},
    };
    for (const auto& [path, expected] : absolutes) {
        EXPECT_EQ(dir::absolute(path), expected) << path;
    }
}

TEST_F(Directory, CreateHierarchyRefusesOddCharactersAndCreatesNothing) {
    for (const char* path : {"logs/a b", "logs/~x", "logs/$x"}) {
        int error = 0;
        EXPECT_FALSE(dir::createHierarchy(path, error)) << path;
        EXPECT_EQ(error, EINVAL) << path;
    }
    EXPECT_FALSE(fs::exists("logs"));
}

TEST_F(Directory, CreateHierarchyMakesEveryLevelAndKeepsWhatItMade) {
    int error = -1;
    for (const char* path : {"a/b/c/", "a/b/c", "d/e/f", "d/e/f/", "g//h", "", "/"}) {
        EXPECT_TRUE(dir::createHierarchy(path, error)) << path;
    }
    EXPECT_TRUE(dir::createHierarchy(_root + "/k/l_-.9", error));
    EXPECT_EQ(error, -1);  // written only on failure
    for (const char* made : {"a/b/c", "d/e/f", "g/h", "k/l_-.9"}) {
        EXPECT_TRUE(fs::is_directory(made)) << made;
    }
    EXPECT_FALSE(dir::createHierarchy("m/n/../../file/x", error));
    EXPECT_EQ(error, ENOTDIR);
    EXPECT_TRUE(fs::is_directory("m/n"));
}

TEST_F(Directory, CreateDirectoryAcceptsWhatExists) {
    int error = -1;
    EXPECT_TRUE(dir::createDirectory("file", error));
    EXPECT_TRUE(dir::createDirectory("new", error));
    EXPECT_TRUE(dir::createDirectory("new", error));
    EXPECT_TRUE(fs::is_directory("new"));
    EXPECT_EQ(error, -1);
    EXPECT_FALSE(dir::createDirectory("missing/new", error));
    EXPECT_EQ(error, ENOENT);
}

TEST_F(Directory, LinksMountPointsAndFreeSpace) {
    ASSERT_EQ(::symlink("some/target", "link"), 0);
    EXPECT_EQ(dir::resolveLink("link"), "some/target");
    EXPECT_EQ(dir::resolveLink("file"), "");
    EXPECT_EQ(dir::resolveLink("missing"), "");

    EXPECT_EQ(dir::findMountPoint("/"), "/");
    EXPECT_EQ(dir::findMountPoint("no/such"), _root + "/no/such");
    EXPECT_EQ(dir::findMountPoint("."), ".");  // stays relative, yet returns
    // The mount point is the highest parent of the directory on its device.
    const std::string mount = dir::findMountPoint(_root);
    struct stat here {
    }, atMount{}, above{};
    ASSERT_EQ(::stat(_root.c_str(), &here), 0);
    ASSERT_EQ(::stat(mount.c_str(), &atMount), 0) << mount;
    ASSERT_EQ(::stat(dir::dirname(mount).c_str(), &above), 0) << mount;
    EXPECT_EQ(_root.rfind(mount, 0), 0u) << mount;
    EXPECT_EQ(atMount.st_dev, here.st_dev);
    EXPECT_TRUE(mount == "/" || above.st_dev != here.st_dev) << mount;

    EXPECT_GT(dir::getFreeSpace(_root), 0u);
    EXPECT_EQ(dir::getFreeSpace("missing"), 0u);
}

}  // namespace
