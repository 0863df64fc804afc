// The two logs in one file: whole lines, from many writers, whatever happens to these.

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "norlog.h"
#include "tests/vset/platform/platform-test.h"
#include "trace_logger.h"
#include "vset/client/platform-log.h"

using testing::Ge;
using testing::IsEmpty;

namespace
{

class PlatformLog : public PlatformTest
{
protected:
    static std::vector<vset::LogRecord> records()
    {
        std::vector<vset::LogRecord> all;
        vset::LogReader reader(vset::kLogFile);
        while (auto record = reader.next()) {
            all.push_back(*record);
        }
        return all;
    }

    // Of lines that end: a kill in the middle of the last write cuts it.
    static size_t lineCount()
    {
        std::ifstream file(vset::kLogFile);
        std::string line;
        size_t count = 0;
        while (std::getline(file, line) && !file.eof()) {
            ++count;
        }
        return count;
    }
};

// How often the log has been opened since this was made.
class OpenWatch
{
public:
    OpenWatch() : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        inotify_add_watch(events_, vset::kLogFile, IN_OPEN);
    }
    ~OpenWatch() { close(events_); }
    OpenWatch(const OpenWatch&) = delete;
    OpenWatch& operator=(const OpenWatch&) = delete;

    int count() const
    {
        int opened = 0;
        alignas(inotify_event) char block[4096];
        for (ssize_t size = 0; (size = read(events_, block, sizeof block)) > 0;) {
            opened += static_cast<int>(size / static_cast<ssize_t>(sizeof(inotify_event)));
        }
        return opened;
    }

private:
    int events_;
};

} // namespace

TEST_F(PlatformLog, ARecordOfThePlatformLogTellsWhoWroteIt)
{
    prctl(PR_SET_NAME, "writer");
    EXPECT_EQ(__norlog_print(2, 5, "FWUPDATE", "%s: %s(%d) > %s %d", "file.cpp", "function", 12, "text", -7),
              0);
    ASSERT_EQ(records().size(), 1U);
    const vset::LogRecord record = records()[0];
    EXPECT_EQ(record.buffer, vset::LogBuffer::System);
    EXPECT_EQ(record.priority, 5);
    EXPECT_EQ(record.tag, "FWUPDATE");
    EXPECT_EQ(record.process, getpid());
    EXPECT_EQ(record.thread, gettid());
    EXPECT_EQ(record.threadName, "writer");
    EXPECT_EQ(record.file, "file.cpp");
    EXPECT_EQ(record.function, "function");
    EXPECT_EQ(record.line, 12);
    EXPECT_EQ(record.message, "text -7");
    EXPECT_EQ(record.text, "file.cpp: function(12) > text -7");
}

TEST_F(PlatformLog, ARecordOfTheRecorderTellsWhereItWasMade)
{
    TraceLogger::record(3, "dir/file.cpp", "function", 12, "%s", "text\n");
    const vset::LogRecord record = records().at(0);
    EXPECT_EQ(record.buffer, vset::LogBuffer::Trace);
    EXPECT_EQ(record.priority, 3);
    EXPECT_EQ(record.file, "dir/file.cpp");
    EXPECT_EQ(record.function, "function");
    EXPECT_EQ(record.line, 12);
    EXPECT_EQ(record.message, "text\n");
}

TEST_F(PlatformLog, ErrnoIsPrintedAndKept)
{
    errno = ENOSPC;
    __norlog_print(2, 6, "T", "%m");
    EXPECT_EQ(errno, ENOSPC);
    TraceLogger::record(6, "f", "f", 1, "%s %m", std::string(2000, 'x').c_str());
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(records().at(0).message, "No space left on device");
    EXPECT_EQ(records().at(1).message, std::string(2000, 'x') + " No space left on device");
}

TEST_F(PlatformLog, AnyTextComesBackAsItWasAndOnOneLine)
{
    std::string text = "tab\tline\nreturn\rbackslash\\n quote\" ";
    for (int byte = 1; byte < 256; ++byte) {
        text += static_cast<char>(byte);
    }
    __norlog_print(2, 6, "tag\twith\ttabs", "%s", text.c_str());
    EXPECT_EQ(lineCount(), 1U);
    EXPECT_EQ(records().at(0).message, text);
    EXPECT_EQ(records().at(0).tag, "tag\twith\ttabs");
}

TEST_F(PlatformLog, AVeryLongRecordIsKeptWhole)
{
    const std::string text(1 << 20, 'l');
    EXPECT_EQ(__norlog_print(2, 6, nullptr, "%s", text.c_str()), 0);
    EXPECT_EQ(records().at(0).message, text);
}

TEST_F(PlatformLog, EveryRecordOfAKilledProgramIsThereAndWhole)
{
    Child child("log-for-ever");
    int last = -1;
    while (last < 200) {
        last = std::stoi(child.readLine());
    }
    child.kill(SIGKILL);
    child.wait();
    const auto all = records();
    EXPECT_EQ(all.size(), lineCount());
    std::map<std::string, int> seen;
    for (const vset::LogRecord& record : all) {
        ++seen[record.message];
    }
    for (int number = 0; number <= last; ++number) {
        ASSERT_EQ(seen["record " + std::to_string(number) + " of the platform log"], 1);
        ASSERT_EQ(seen["record " + std::to_string(number) + " of the recorder"], 1);
    }
}

TEST_F(PlatformLog, WritersOfSeveralProgramsNeverMix)
{
    constexpr size_t kProcesses = 4;
    constexpr size_t kRecords = 2 * 300;
    std::vector<std::unique_ptr<Child>> children;
    for (size_t number = 0; number < kProcesses; ++number) {
        children.push_back(std::make_unique<Child>("log-much"));
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->wait(), 0);
    }
    const auto all = records();
    EXPECT_EQ(all.size(), kProcesses * kRecords);
    EXPECT_EQ(lineCount(), kProcesses * kRecords);
    std::map<int, int> nextOfThread;
    for (const vset::LogRecord& record : all) {
        const int number = nextOfThread[record.thread]++;
        const std::string writer = record.message.substr(0, 1);
        const std::string body(static_cast<size_t>(number % 7 * 1500), writer == "0" ? 'a' : 'b');
        ASSERT_EQ(record.message, writer + " " + std::to_string(number) + " " + body + ".");
    }
}

TEST_F(PlatformLog, ALogThatWasMovedAwayIsBegunAnewAndFollowed)
{
    std::vector<std::string> followed;
    std::promise<void> begun;
    std::thread reader([&] {
        vset::LogReader log(vset::kLogFile);
        log.follow([&](const vset::LogRecord& record) {
            if (followed.empty()) {
                begun.set_value();
            }
            followed.push_back(record.message);
            return record.message != "after";
        });
    });
    __norlog_print(2, 6, "T", "before");
    begun.get_future().wait();
    ASSERT_EQ(rename(vset::kLogFile, "/var/log/platform.log.1"), 0);
    __norlog_print(2, 6, "T", "after");
    reader.join();
    EXPECT_THAT(followed, testing::ElementsAre("before", "after"));
}

TEST_F(PlatformLog, TheFileIsOpenedOnceForManyRecords)
{
    __norlog_print(2, 6, "T", "first");
    const OpenWatch watch;
    for (int number = 0; number < 100; ++number) {
        __norlog_print(2, 6, "T", "%d", number);
        TraceLogger::record(4, "f", "f", 1, "%d", number);
    }
    EXPECT_EQ(watch.count(), 0);
    EXPECT_EQ(lineCount(), 201U);
}

TEST_F(PlatformLog, TheNextRecordAfterARemovalIsInTheNewFile)
{
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(__norlog_print(2, 6, "T", "before"), 0);
        ASSERT_EQ(unlink(vset::kLogFile), 0);
        ASSERT_EQ(__norlog_print(2, 6, "T", "after"), 0);
        ASSERT_EQ(lineCount(), 1U);
    }
}

TEST_F(PlatformLog, NoRecordOfSeveralWritersIsLostWhenTheLogIsMovedAgainAndAgain)
{
    constexpr int kWriters = 3;
    constexpr int kRecords = 1000;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([writer] {
            for (int number = 0; number < kRecords; ++number) {
                __norlog_print(2, 6, "T", "%d/%d", writer, number);
            }
        });
    }
    std::vector<std::string> moved;
    for (int number = 0; number < 50; ++number) {
        const std::string away = std::string(vset::kLogFile) + "." + std::to_string(number);
        if (rename(vset::kLogFile, away.c_str()) == 0) {
            moved.push_back(away);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    __norlog_print(2, 6, "T", "last");
    if (std::filesystem::exists(vset::kLogFile)) { // else the one that was moved last has got it
        moved.emplace_back(vset::kLogFile);
    }
    std::map<std::string, int> seen;
    for (const std::string& path : moved) {
        vset::LogReader reader(path);
        while (const auto record = reader.next()) {
            ++seen[record->message];
        }
    }
    EXPECT_EQ(seen.size(), size_t{kWriters} * kRecords + 1);
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](const auto& entry) { return entry.second == 1; }));
}

TEST_F(PlatformLog, AForkedProcessAndItsThreadsTellTheirOwnNumbers)
{
    __norlog_print(2, 6, "T", "parent");
    const pid_t child = fork();
    if (child == 0) {
        __norlog_print(2, 6, "T", "child");
        std::thread([] { __norlog_print(2, 6, "T", "thread %d", gettid()); }).join();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    std::thread([] { __norlog_print(2, 6, "T", "thread %d", gettid()); }).join();
    const auto all = records();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(all[0].process, getpid());
    EXPECT_EQ(all[1].process, child);
    EXPECT_EQ(all[1].thread, child);
    EXPECT_EQ(all[2].process, child);
    EXPECT_EQ(all[2].message, "thread " + std::to_string(all[2].thread));
    EXPECT_EQ(all[3].process, getpid());
    EXPECT_EQ(all[3].message, "thread " + std::to_string(all[3].thread));
}

TEST_F(PlatformLog, AProgramThatClosesEveryFileStillLogsAndIntoTheLogOnly)
{
    Child child("log-after-closing");
    EXPECT_EQ(child.wait(), 0);
    const auto all = records();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1].message, "after");
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/opened-after-closing"));
}

TEST_F(PlatformLog, TheLogIsNeverOneOfTheStandardStreams)
{
    Child child("log-without-streams");
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(records().size(), 1U);
}

TEST_F(PlatformLog, WhatIsNoRecordIsSkipped)
{
    EXPECT_FALSE(vset::parseLogLine("").has_value());
    EXPECT_FALSE(vset::parseLogLine("half a line").has_value());
    EXPECT_FALSE(vset::parseLogLine("\t\t\t\t\t\t\t\t\t\t").has_value());
    EXPECT_THAT(vset::parseLogLine("t\t2\t6\tT\t1\t1\tn\t\t\t\t").value().message, IsEmpty());
    EXPECT_EQ(vset::parseLogLine("t\t2\t6\tT\t1\t1\tn\t\t\t\ttrailing\\").value().message, "trailing\\");
}
