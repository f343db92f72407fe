// Paths taken apart, and names made fit for a file.
#include "base/FilePath.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct PathCase {
    const char* path;
    const char* directory;
    const char* name;
};

TEST(FilePathTest, APathIsItsDirectoryAndItsName) {
    for (const PathCase& one :
         {PathCase{"/a/b", "/a", "b"}, PathCase{"/a", "/", "a"}, PathCase{"a", ".", "a"}, PathCase{"a/b", "a", "b"},
          PathCase{"/", "/", ""}, PathCase{"/a/", "/a", ""}, PathCase{"", ".", ""}, PathCase{"//a", "/", "a"}}) {
        EXPECT_EQ(one.directory, base::DirectoryOf(one.path)) << one.path;
        EXPECT_EQ(one.name, base::FileNameOf(one.path)) << one.path;
    }
}

TEST(FilePathTest, NamesInPathsHoldNoSurprises) {
    EXPECT_EQ("TervaneUpdate", base::FileNamePart("TervaneUpdate"));
    EXPECT_EQ("_.._.._etc_passwd", base::FileNamePart("../../etc/passwd"));
    EXPECT_EQ("_", base::FileNamePart(""));
    EXPECT_EQ("_.hidden", base::FileNamePart(".hidden"));
    EXPECT_EQ("a_b_", base::FileNamePart("a b\n"));
    EXPECT_EQ("__", base::FileNamePart("\xc3\xa4"));
    EXPECT_EQ(64U, base::FileNamePart(std::string(500, 'x')).size());
}

TEST(FilePathTest, OnlyLettersDigitsAndThreeSignsAreKept) {
    const std::string kept = "0123456789-_.abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (int code = 0; code <= 255; ++code) {
        const std::string name = {'x', static_cast<char>(code)};
        EXPECT_EQ(kept.find(name[1]) != std::string::npos ? name : "x_", base::FileNamePart(name)) << code;
    }
}

}  // namespace
