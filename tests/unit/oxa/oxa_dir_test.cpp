#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <string>
#include <sys/stat.h>

#include "oxa_dir.h"

namespace {

TEST(Normalize, Paths)
{
    const struct { const char* in; int size; const char* out; } cases[] = {
        {"a//b///c/", 512, "a/b/c/"}, {"a/x/y/../../b", 512, "a/b"},
        {"/root//x/./y/../z/", 512, "/root/x/z/"}, {"/../a/", 512, "/a/"}, {"../a/", 512, "../a/"},
        {".\\qel_net\\\\qel_log\\", 512, "qel_net/qel_log/"}, {"/", 512, "/"},
        {"/abc/def/", 6, "/abc/"},   // cut to the output buffer
    };
    for (const auto& c : cases) {
        char out[512];
        oxa_path_normalize(c.in, out, c.size);
        EXPECT_STREQ(out, c.out) << c.in;
    }
}

class DirCreateTest : public ::testing::Test
{
protected:
    std::string path(const char* rel) const { return tmp_.filePath(QString::fromUtf8(rel)).toStdString(); }
    bool isDir(const char* rel) const { return QFileInfo(tmp_.filePath(QString::fromUtf8(rel))).isDir(); }
    QTemporaryDir tmp_;
};

// The mode is the decimal literal 500 (octal 0764), not octal 0500.
TEST_F(DirCreateTest, CreatesNestedPrefixesWithMode500)
{
    const mode_t old = umask(0);
    const struct { std::string root, dir; const char* made; } cases[] = {
        {path("a/b"), "c/d", "a/b/c/d"},
        {path("root_only//x"), "", "root_only/x"},
        {"", path("dir_only/y/"), "dir_only/y"},
        {path("w\\x"), "./z/../v", "w/x/v"},
        {path("a"), "b", "a/b"},   // already there
    };
    for (const auto& c : cases) {
        EXPECT_EQ(oxa_dir_create(c.root.c_str(), c.dir.c_str()), 0) << c.made;
        EXPECT_TRUE(isDir(c.made)) << c.made;
    }
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(path("a/b/c/d").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0764u);
    EXPECT_FALSE(isDir("w/x/z"));
    EXPECT_EQ(oxa_dir_create("", ""), -1);
    EXPECT_EQ(oxa_dir_create(nullptr, nullptr), -1);
}

// strlen(root) + strlen(dir) + 3 may be 512 at most.
TEST_F(DirCreateTest, LengthLimit)
{
    std::string fits = path("fits");   // 509 characters in short components
    while (fits.size() + 1 < 509)
        fits += "/" + std::string(std::min<size_t>(100, 508 - fits.size()), 'p');
    fits.resize(509, 'q');
    EXPECT_EQ(oxa_dir_create(fits.c_str(), ""), 0);
    EXPECT_TRUE(QFileInfo(QString::fromStdString(fits)).isDir());

    EXPECT_EQ(oxa_dir_create((fits + "q").c_str(), ""), -1);
    EXPECT_EQ(oxa_dir_create(path("split").c_str(), std::string(510 - path("split").size(), 'd').c_str()), -1);
}

TEST_F(DirCreateTest, RegularFileInTheWayFails)
{
    ASSERT_TRUE(QFile(tmp_.filePath(QStringLiteral("file"))).open(QIODevice::WriteOnly));
    const std::string target = path("file/sub");
    ::testing::internal::CaptureStderr();
    EXPECT_NE(oxa_dir_create(target.c_str(), ""), 0);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("oxa_dir_create " + target + " failed\r\n"), std::string::npos) << err;
}

}  // namespace
