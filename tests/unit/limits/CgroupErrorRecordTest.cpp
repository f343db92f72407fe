// The record of a failed memory limit: what is written, what is honoured, and when it ages out.
#include "limits/CgroupErrorRecord.h"

#include "LimitsFixture.h"

namespace {

constexpr const char* kPath = "/opt/agent/home/cgroup_errors";
const Lines kNothing;
const Lines kLookedForFile = {"CToolUtil::GetApplicationDirPath()", "CFileUtil::IsFile(/opt/agent/home/cgroup_errors)"};
const Lines kRead = kLookedForFile + Lines({"CFileUtil::ReadFileLineToList(/opt/agent/home/cgroup_errors,128)"});
const Lines kRemoved = {"CFileUtil::RemoveFile(/opt/agent/home/cgroup_errors)"};

class CgroupErrorRecordTest : public LimitsFixture {
protected:
    void OnRecord(const std::string& text) { platform().files.content[kPath] = text; }
    std::string At(int code, long secondsAgo) {
        return doubles::Format("%d-%ld", code, static_cast<long>(platform().now) - secondsAgo);
    }
    bool FileIsThere() { return platform().files.content.count(kPath) != 0; }
};

struct CheckCase {
    const char* name;
    std::string text;
    bool blocks;
    bool removed;
};

}  // namespace

TEST_F(CgroupErrorRecordTest, WritesThreeCodesAsOneLineWithoutEnd) {
    for (int code : {13, 105, 119}) {
        EXPECT_TRUE(pri().WriteCgroupError(code));
        EXPECT_EQ(
            Lines({"CToolUtil::GetApplicationDirPath()", "CFileUtil::WriteNewFile(/opt/agent/home/cgroup_errors,0)"}),
            journal());
        EXPECT_EQ(std::to_string(code) + "-1700000000", platform().files.content[kPath]);
    }
}

TEST_F(CgroupErrorRecordTest, WritesNothingForAnyOtherCode) {
    for (int code : {0, 1, 2, 10, 12, 14, 104, 106, 118, 120, -13, 1300013}) {
        EXPECT_FALSE(pri().WriteCgroupError(code)) << code;
    }
    EXPECT_EQ(kNothing, journal());  // the code is looked at before anything else
    EXPECT_FALSE(FileIsThere());
}

TEST_F(CgroupErrorRecordTest, AsksForTimeOnlyForRecordedCodes) {
    platform().journalTime = true;
    EXPECT_FALSE(pri().WriteCgroupError(12));
    EXPECT_EQ(kNothing, journal());
    EXPECT_TRUE(pri().WriteCgroupError(13));
    EXPECT_EQ(Lines({"time()", "CToolUtil::GetApplicationDirPath()",
                     "CFileUtil::WriteNewFile(/opt/agent/home/cgroup_errors,0)"}),
              journal());
    platform().appDir = "/opt/agent";
    EXPECT_FALSE(pri().WriteCgroupError(13));
    EXPECT_EQ(Lines({"time()", "CToolUtil::GetApplicationDirPath()"}), journal());
}

TEST_F(CgroupErrorRecordTest, AsksForTheTimeOncePerRecordThatCounts) {
    platform().journalTime = true;
    OnRecord("105\n" + At(2, 5) + "\n" + At(13, 50000) + "\n" + At(119, 5));
    EXPECT_TRUE(pri().CheckCgroupError());
    EXPECT_EQ(kRead + Lines({"time()"}) + kRemoved + Lines({"time()"}), journal());
}

TEST_F(CgroupErrorRecordTest, ReplacesTheWholeFile) {
    OnRecord(At(13, 50000) + "\nand much else");
    EXPECT_TRUE(pri().WriteCgroupError(119));
    EXPECT_EQ("119-1700000000", platform().files.content[kPath]);
}

TEST_F(CgroupErrorRecordTest, ReportsAFailedWriteByItsResultAlone) {
    platform().files.failWrite.insert(kPath);
    EXPECT_FALSE(pri().WriteCgroupError(13));
    EXPECT_EQ(Lines({"CToolUtil::GetApplicationDirPath()", "CFileUtil::WriteNewFile(/opt/agent/home/cgroup_errors,0)"}),
              journal());
    EXPECT_FALSE(FileIsThere());
}

TEST_F(CgroupErrorRecordTest, RefusesDirectoryOfTenCharacters) {
    for (const char* shortDir : {"", "/", "/opt/agent"}) {
        platform().appDir = shortDir;
        platform().files.content[std::string(shortDir) + "/cgroup_errors"] = At(13, 0);
        EXPECT_FALSE(pri().WriteCgroupError(13)) << shortDir;
        EXPECT_FALSE(pri().CheckCgroupError()) << shortDir;
        EXPECT_EQ(Lines({"CToolUtil::GetApplicationDirPath()", "CToolUtil::GetApplicationDirPath()"}), journal());
        EXPECT_EQ(At(13, 0), platform().files.content[std::string(shortDir) + "/cgroup_errors"]);
    }
}

TEST_F(CgroupErrorRecordTest, WorksInDirectoryOfElevenCharacters) {
    platform().appDir = "/opt/agents";
    EXPECT_TRUE(pri().WriteCgroupError(105));
    EXPECT_EQ("105-1700000000", platform().files.content["/opt/agents/cgroup_errors"]);
    EXPECT_TRUE(pri().CheckCgroupError());
}

TEST_F(CgroupErrorRecordTest, AppendsTheFileNameToTheDirectoryAsItIs) {
    platform().appDir = "/opt/agent/home/";
    EXPECT_TRUE(pri().WriteCgroupError(13));
    EXPECT_EQ(1U, platform().files.content.count("/opt/agent/home//cgroup_errors"));
}

TEST_F(CgroupErrorRecordTest, FindsNothingWithoutRegularFileUnread) {
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_EQ(kLookedForFile, journal());
}

TEST_F(CgroupErrorRecordTest, TakesUnreadableOrEmptyFileForNoRecord) {
    OnRecord(At(13, 0));
    platform().files.failRead.insert(kPath);
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_EQ(kRead, journal());
    EXPECT_TRUE(FileIsThere());

    platform().files.failRead.clear();
    OnRecord("");
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_EQ(kRead, journal());
    EXPECT_TRUE(FileIsThere());
}

TEST_F(CgroupErrorRecordTest, WhatAFailedReadLeftBehindIsNoRecord) {
    OnRecord(At(13, 1));
    EXPECT_TRUE(pri().CheckCgroupError());
    platform().files.failRead.insert(kPath);
    platform().files.failedReadLeavesLines = true;
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_TRUE(FileIsThere());
}

TEST_F(CgroupErrorRecordTest, LineOfAnotherShapeTouchesNothing) {
    for (const char* line : {"", "13", "13-1-2", "-", "--"}) {
        int code = 7;
        int64_t when = 8;
        const bool two = std::string(line) == "-";
        EXPECT_EQ(two, ParseCgroupError(line, code, when)) << line;
        EXPECT_EQ(two ? 0 : 7, code) << line;
        EXPECT_EQ(two ? 0 : 8, when) << line;
    }
}

TEST_F(CgroupErrorRecordTest, AgesARecordAcross2038) {
    OnRecord("13-2147483000");
    platform().now = 2147483000L + 43199;
    EXPECT_TRUE(pri().CheckCgroupError());
    platform().now = 2147483000L + 43200;  // 32 bits would see the record in the future
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_FALSE(FileIsThere());
}

TEST_F(CgroupErrorRecordTest, JudgesARecordByItsCodeAndAge) {
    const std::vector<CheckCase> cases = {
        {"just written", At(13, 0), true, false},
        {"code 105", At(105, 10), true, false},
        {"code 119", At(119, 10), true, false},
        {"43199 s old", At(13, 43199), true, false},
        {"43200 s old", At(13, 43200), false, true},
        {"43201 s old", At(119, 43201), false, true},
        {"in the future", At(13, -100000), true, false},
        {"far in the future", "13-2147483647", true, false},
        {"not a time", "13-abc", false, true},
        {"no time", "13-", false, true},
        {"other code, recent", At(2, 0), false, false},
        {"other code, old", At(2, 90000), false, false},
        {"code 120", At(120, 0), false, false},
        {"no number", "abc-" + std::to_string(platform().now), false, false},
        {"no code", "-" + std::to_string(platform().now), false, false},
        {"one piece", "105", false, false},
        {"three pieces", "105-1-2", false, false},
        {"negative code", "-13-5", false, false},
        {"negative time", "13--5", false, false},
        {"garbage", std::string("\x01\xff\x80 %s %n -", 12), false, false},
        {"line end", At(13, 10) + "\n", true, false},
    };
    for (const CheckCase& c : cases) {
        OnRecord(c.text);
        EXPECT_EQ(c.blocks, pri().CheckCgroupError()) << c.name;
        EXPECT_EQ(c.removed ? kRead + kRemoved : kRead, journal()) << c.name;  // no log line in any case
        EXPECT_EQ(!c.removed, FileIsThere()) << c.name;
    }
}

TEST_F(CgroupErrorRecordTest, LooksAtEveryLineThatWasRead) {
    const std::vector<CheckCase> cases = {
        {"ignored lines first", "105\n105-1-2\n\n2-1\n" + At(119, 5), true, false},
        {"recent first", At(13, 5) + "\n" + At(13, 50000), true, false},  // at once: the old line is not reached
        {"old first, then recent", At(13, 50000) + "\n" + At(105, 5), true, true},
        {"old first, then other code", At(13, 50000) + "\n" + At(2, 5), false, true},
        {"nothing of ours", "2-5\n105", false, false},
    };
    for (const CheckCase& c : cases) {
        OnRecord(c.text);
        EXPECT_EQ(c.blocks, pri().CheckCgroupError()) << c.name;
        EXPECT_EQ(c.removed ? kRead + kRemoved : kRead, journal()) << c.name;
        EXPECT_EQ(!c.removed, FileIsThere()) << c.name;
    }
}

TEST_F(CgroupErrorRecordTest, SurvivesSeveralAgedLines) {
    OnRecord(At(13, 50000) + "\n" + At(105, 60000));
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_FALSE(FileIsThere());
    EXPECT_EQ(kRead + kRemoved + kRemoved, journal());  // each aged line removes; the second finds nothing left
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_EQ(kLookedForFile, journal());  // the next check is cheap
}

TEST_F(CgroupErrorRecordTest, DoesNotBlockWhenAgedFileStays) {
    OnRecord(At(13, 43200));
    platform().files.failRemove.insert(kPath);
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_EQ(kRead + kRemoved, journal());
}

TEST_F(CgroupErrorRecordTest, ReadsBackWhatItWrote) {
    ASSERT_TRUE(pri().WriteCgroupError(105));
    platform().now += 43199;
    EXPECT_TRUE(pri().CheckCgroupError());
    platform().now += 1;
    EXPECT_FALSE(pri().CheckCgroupError());
    EXPECT_FALSE(FileIsThere());
}

TEST_F(CgroupErrorRecordTest, FormatsSignedNumbersOf64Bits) {
    EXPECT_EQ("105-1731740000", FormatCgroupError(105, 1731740000));
    EXPECT_EQ("-5-2147483647", FormatCgroupError(-5, 2147483647));
    EXPECT_EQ("13-4294967396", FormatCgroupError(13, 4294967396));
    EXPECT_EQ("13-9223372036854775807", FormatCgroupError(13, INT64_MAX));
    EXPECT_EQ("13--4294967396", FormatCgroupError(13, -4294967396));
    platform().now = 4102444800;  // a year in which seconds have needed more than 32 bits for long
    EXPECT_TRUE(pri().WriteCgroupError(119));
    EXPECT_EQ("119-4102444800", platform().files.content[kPath]);
}

TEST_F(CgroupErrorRecordTest, JudgesAgesIn64Bits) {
    EXPECT_TRUE(IsRecentCgroupError(0, 2147483647));
    EXPECT_FALSE(IsRecentCgroupError(2147483647, 0));
    EXPECT_TRUE(IsRecentCgroupError(0, 2147483649));     // 32 bits would see it in the past
    EXPECT_FALSE(IsRecentCgroupError(4294967396, 100));  // 32 bits would see no age at all
    EXPECT_TRUE(IsRecentCgroupError(4102444800, 4102444800 - 43199));
    EXPECT_FALSE(IsRecentCgroupError(4102444800, 4102444800 - 43200));
}
