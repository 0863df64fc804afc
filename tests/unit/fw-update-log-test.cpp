// The log macros: where a message goes, with which place and priority.
#include <cerrno>
#include <string>

#include "src/fw-update-log.h"
#include "tests/support/set-test.h"

using testing::ElementsAre;
using testing::SizeIs;

namespace
{

class FWUpdateLog : public testing::Test
{
protected:
    void SetUp() override { platform.reset(); }

    FakePlatform& platform = fakePlatform();
};

TEST_F(FWUpdateLog, WritesToThePlatformLogFirstAndToTheTraceRecorderSecond)
{
    FWLOGE("module %s has %d", "tuner", 3);
    const std::vector<LogRecord> records = platform.logRecords();
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].sink, LogSink::kPlatformOnly);
    EXPECT_EQ(records[1].sink, LogSink::kTraceOnly);
    EXPECT_EQ(records[0].text, "module tuner has 3");
    EXPECT_EQ(records[1].text, "module tuner has 3");
}

TEST_F(FWUpdateLog, WritesToTheSystemBufferUnderItsTag)
{
    FWLOGI("hello");
    EXPECT_EQ(platform.logRecords().at(0).logId, 2);
    EXPECT_EQ(platform.logRecords().at(0).tag, "FWUPDATE");
}

TEST_F(FWUpdateLog, PrefixesThePlatformLogWithFileFunctionAndLine)
{
    FWLOGE("hello");
    const int line = __LINE__ - 1;
    EXPECT_EQ(platform.logRecords().at(0).prefix,
              "fw-update-log-test.cpp: TestBody(" + std::to_string(line) + ") > ");
}

TEST_F(FWUpdateLog, GivesTheTraceRecorderThePlaceOfTheCall)
{
    FWLOGE("hello");
    const int line = __LINE__ - 1;
    const LogRecord record = platform.logRecords().at(1);
    EXPECT_EQ(record.file, __FILE__);
    EXPECT_EQ(record.function, "TestBody");
    EXPECT_EQ(record.line, line);
}

TEST_F(FWUpdateLog, HasAPriorityForEveryMacro)
{
    FWLOGE("e");
    FWLOGI("i");
    FWLOGD("d");
    FWLOG(FWLOG_WARNING, "w");
    EXPECT_THAT(platform.log(),
                ElementsAre(LogLine{LogSink::kBoth, 6, "e"}, LogLine{LogSink::kBoth, 4, "i"},
                            LogLine{LogSink::kBoth, 3, "d"}, LogLine{LogSink::kBoth, 5, "w"}));
}

TEST_F(FWUpdateLog, CanLeaveTheTraceRecorderOut)
{
    FWLOG_NORLOG(FWLOG_DEBUG, "quiet %d", 1);
    EXPECT_THAT(platform.log(), ElementsAre(platformDebug("quiet 1")));
}

// The fake platform changes `errno` in each of its log calls.
TEST_F(FWUpdateLog, ExpandsTheErrorTextAlikeInBothLogs)
{
    errno = ENOSPC;
    FWLOGE("cannot write: %m");
    EXPECT_THAT(platform.log(), ElementsAre(error("cannot write: No space left on device")));
}

TEST_F(FWUpdateLog, LeavesErrnoAsItWas)
{
    errno = ENOSPC;
    FWLOGE("both");
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(FWUpdateLog, LeavesErrnoAsItWasInThePlatformLogAlone)
{
    errno = EACCES;
    FWLOG_NORLOG(FWLOG_INFO, "one");
    EXPECT_EQ(errno, EACCES);
}

TEST_F(FWUpdateLog, TakesTheErrnoAsItsOwnArgumentToo)
{
    errno = EACCES;
    FWLOGE("(%d:%m)", errno);
    EXPECT_THAT(platform.log(), ElementsAre(error("(13:Permission denied)")));
}

TEST_F(FWUpdateLog, IsOneStatement)
{
    const bool never = false;
    if (never) {
        FWLOGE("never");
    } else {
        FWLOGE("always");
    }
    EXPECT_THAT(platform.log(), ElementsAre(error("always")));
}

TEST_F(FWUpdateLog, NamesAFileWithoutItsDirectories)
{
    EXPECT_STREQ(fwlogFileName("/a/b/c.cpp"), "c.cpp");
    EXPECT_STREQ(fwlogFileName("c.cpp"), "c.cpp");
    EXPECT_STREQ(fwlogFileName("a/"), "");
    EXPECT_STREQ(fwlogFileName(""), "");
}

} // namespace
