#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <string>
#include <sys/stat.h>

#include "oxa_dir.h"

namespace {

struct NormCase
{
    const char* in;
    const char* out;
};

const NormCase kNormCases[] = {
    {"a\\b\\c", "a/b/c"},
    {"a//b///c/", "a/b/c/"},
    {"./a/./b/", "a/b/"},
    {"a/x/../b/", "a/b/"},
    {"a/x/y/../../b", "a/b"},
    {"/root//x/./y/../z/", "/root/x/z/"},
    {"/abs/path", "/abs/path"},
    {"/abs/path/", "/abs/path/"},
    {"/../a/", "/a/"},
    {"../a/", "../a/"},
    {".\\qel_net\\\\qel_log\\", "qel_net/qel_log/"},
    {"./qel_net//qel_log/", "qel_net/qel_log/"},
    {"/", "/"},
};

class NormalizeTest : public ::testing::TestWithParam<NormCase>
{
};

TEST_P(NormalizeTest, Path)
{
    char out[512];
    oxa_path_normalize(GetParam().in, out, sizeof out);
    EXPECT_STREQ(out, GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(Paths, NormalizeTest, ::testing::ValuesIn(kNormCases));

TEST(Normalize, OutputIsCutToItsBuffer)
{
    char out[6];
    oxa_path_normalize("/abc/def/", out, sizeof out);
    EXPECT_STREQ(out, "/abc/");
}

class DirCreateTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(tmp_.isValid()); }

    std::string path(const QString& rel) const { return tmp_.filePath(rel).toStdString(); }
    bool isDir(const QString& rel) const { return QFileInfo(tmp_.filePath(rel)).isDir(); }
    bool exists(const QString& rel) const { return QFileInfo::exists(tmp_.filePath(rel)); }

    QTemporaryDir tmp_;
};

TEST_F(DirCreateTest, CreatesNestedPrefixes)
{
    EXPECT_EQ(oxa_dir_create(path("a/b").c_str(), "c/d"), 0);
    EXPECT_TRUE(isDir("a/b/c/d"));

    EXPECT_EQ(oxa_dir_create(path("root_only//x").c_str(), ""), 0);
    EXPECT_TRUE(isDir("root_only/x"));

    EXPECT_EQ(oxa_dir_create("", path("dir_only/y/").c_str()), 0);
    EXPECT_TRUE(isDir("dir_only/y"));

    EXPECT_EQ(oxa_dir_create(path("w\\x").c_str(), "./z/../v"), 0);
    EXPECT_TRUE(isDir("w/x/v"));
    EXPECT_FALSE(exists("w/x/z"));

    // Already there.
    EXPECT_EQ(oxa_dir_create(path("a").c_str(), "b"), 0);
}

// The mode is the decimal literal 500 (octal 0764), not octal 0500.
TEST_F(DirCreateTest, ModeIsDecimal500)
{
    const mode_t old = umask(0);
    const int rc = oxa_dir_create(path("m").c_str(), "n");
    umask(old);
    ASSERT_EQ(rc, 0);
    struct stat st;
    ASSERT_EQ(stat(path("m/n").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0764u);
}

TEST_F(DirCreateTest, BothEmptyFails)
{
    EXPECT_EQ(oxa_dir_create("", ""), -1);
    EXPECT_EQ(oxa_dir_create(nullptr, nullptr), -1);
}

// strlen(root) + strlen(dir) + 3 may be 512 at most.
TEST_F(DirCreateTest, LengthLimit)
{
    // A root of exactly `len` characters under the temp dir, in short components.
    auto rootOfLength = [this](const char* top, size_t len) {
        std::string r = path(top);
        while (r.size() + 1 < len)
            r += "/" + std::string(std::min<size_t>(100, len - r.size() - 1), 'p');
        r.resize(len, 'q');
        return r;
    };

    const std::string fits = rootOfLength("fits", 509);
    ASSERT_EQ(fits.size(), 509u);
    EXPECT_EQ(oxa_dir_create(fits.c_str(), ""), 0);
    EXPECT_TRUE(QFileInfo(QString::fromStdString(fits)).isDir());

    const std::string tooLong = rootOfLength("long", 510);
    EXPECT_EQ(oxa_dir_create(tooLong.c_str(), ""), -1);
    EXPECT_EQ(oxa_dir_create(path("split").c_str(), std::string(510 - path("split").size(), 'd').c_str()), -1);
    EXPECT_FALSE(exists("long"));
    EXPECT_FALSE(exists("split"));
}

TEST_F(DirCreateTest, RegularFileInTheWayFails)
{
    QFile file(tmp_.filePath("file"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();

    const std::string target = path("file/sub");
    ::testing::internal::CaptureStderr();
    const int rc = oxa_dir_create(target.c_str(), "");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(rc, 0);
    EXPECT_NE(err.find("oxa_dir_create " + target + " failed\r\n"), std::string::npos) << err;
}

}  // namespace
