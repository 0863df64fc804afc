// A process that does what code of others may do: to its group, to its parent, and with children of its own.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "common/process/contained-process.h"

namespace
{

using common::ContainedProcess;
using Clock = std::chrono::steady_clock;
constexpr auto kEnds = ContainedProcess::Orphaned::kEnds;
constexpr auto kGoesOn = ContainedProcess::Orphaned::kGoesOn;

bool isAlive(pid_t process)
{
    return kill(process, 0) == 0;
}

// Prints the number of a process that goes on for ever, started the given way.
void leaveBehind(bool isDaemon)
{
    int printed[2];
    if (pipe(printed) != 0) {
        std::abort();
    }
    if (fork() != 0) {
        close(printed[1]);
        char none = 0;
        (void)!read(printed[0], &none, 1); // until it has closed its end
        close(printed[0]);
        return;
    }
    if (isDaemon) {
        setsid();
        if (fork() != 0) {
            _exit(0);
        }
    }
    dprintf(STDOUT_FILENO, "%d\n", getpid());
    close(printed[1]);
    while (true) {
        pause();
    }
}

TEST(ContainedProcess, TellsHowItEndsAndWhatItPrints)
{
    ContainedProcess process(
        [] {
            std::printf("to one, ");
            std::fprintf(stderr, "to the other");
            _exit(7);
        },
        kEnds);
    const ContainedProcess::End end = process.wait();
    EXPECT_TRUE(WIFEXITED(end.status));
    EXPECT_EQ(WEXITSTATUS(end.status), 7);
    EXPECT_EQ(end.leftBehind, 0U);
    EXPECT_FALSE(end.isUnwatched);
    EXPECT_EQ(common::readToEnd(process.output()), "to one, to the other");
}

TEST(ContainedProcess, WaitsForNothingThatItLeavesBehind)
{
    for (const bool isDaemon : {false, true}) {
        const Clock::time_point start = Clock::now();
        ContainedProcess process([isDaemon] { leaveBehind(isDaemon); }, kEnds);
        const ContainedProcess::End end = process.wait();
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
        EXPECT_TRUE(WIFEXITED(end.status));
        EXPECT_EQ(end.leftBehind, 1U) << isDaemon;
        const std::string left = common::readToEnd(process.output());
        ASSERT_NE(left, "");
        EXPECT_FALSE(isAlive(std::stoi(left))) << isDaemon;
    }
}

TEST(ContainedProcess, EndsWhatACrashLeavesBehind)
{
    ContainedProcess process(
        [] {
            leaveBehind(true);
            std::abort();
        },
        kEnds);
    const ContainedProcess::End end = process.wait();
    EXPECT_TRUE(WIFSIGNALED(end.status));
    EXPECT_EQ(WTERMSIG(end.status), SIGABRT);
    EXPECT_EQ(end.leftBehind, 1U);
    EXPECT_FALSE(isAlive(std::stoi(common::readToEnd(process.output()))));
}

TEST(ContainedProcess, MayEndWhatItStartedByItself)
{
    ContainedProcess process(
        [] {
            leaveBehind(true);
            dprintf(STDOUT_FILENO, "%u", common::endLeftBehind(std::chrono::milliseconds(10)));
        },
        kEnds);
    EXPECT_EQ(process.wait().leftBehind, 0U);
    EXPECT_EQ(common::readToEnd(process.output()).back(), '1');
}

TEST(ContainedProcess, AProcessThatIsAboutToEndIsWaitedFor)
{
    ContainedProcess process(
        [] {
            if (fork() == 0) {
                usleep(300'000);
                dprintf(STDOUT_FILENO, "done");
                _exit(0);
            }
        },
        kGoesOn);
    EXPECT_EQ(process.wait().leftBehind, 0U);
    EXPECT_EQ(common::readToEnd(process.output()), "done");
}

TEST(ContainedProcess, ASignalToItsGroupEndsItAlone)
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGKILL, SIGUSR1}) {
        ContainedProcess process([signal] { kill(0, signal); }, kEnds);
        const ContainedProcess::End end = process.wait();
        ASSERT_TRUE(WIFSIGNALED(end.status)) << signal;
        EXPECT_EQ(WTERMSIG(end.status), signal);
        EXPECT_FALSE(end.isUnwatched);
    }
}

TEST(ContainedProcess, ASignalToItsParentReachesNobodyElse)
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGSTOP, SIGUSR1}) {
        ContainedProcess process([signal] { kill(getppid(), signal); }, kEnds);
        const ContainedProcess::End end = process.wait();
        EXPECT_TRUE(WIFEXITED(end.status)) << signal;
        EXPECT_FALSE(end.isUnwatched) << signal;
    }
}

TEST(ContainedProcess, KillingItsParentIsToldAndEndsIt)
{
    ContainedProcess process(
        [] {
            kill(getppid(), SIGKILL);
            sleep(30);
        },
        kEnds);
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(process.wait().isUnwatched);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    EXPECT_FALSE(isAlive(process.process()));
}

TEST(ContainedProcess, OneThatGoesOnDoesSoWithoutItsWatcher)
{
    ContainedProcess process(
        [] {
            kill(getppid(), SIGKILL);
            usleep(300'000);
            dprintf(STDOUT_FILENO, "finished");
            _exit(5);
        },
        kGoesOn);
    const ContainedProcess::End end = process.wait();
    EXPECT_TRUE(end.isUnwatched);
    ASSERT_TRUE(WIFEXITED(end.status));
    EXPECT_EQ(WEXITSTATUS(end.status), 5);
    EXPECT_EQ(common::readToEnd(process.output()), "finished");
}

// A process of ours that runs another and is killed; gives what that one had come to.
std::string outcomeAfterKill(ContainedProcess::Orphaned orphaned, const std::string& printed)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t ours = fork();
    if (ours == 0) {
        ContainedProcess process(
            [&] {
                dprintf(ends[1], "begun ");
                usleep(300'000);
                dprintf(STDOUT_FILENO, "%s", printed.c_str()); // nobody reads it any more
                dprintf(ends[1], "finished");
            },
            orphaned);
        process.wait();
        _exit(0);
    }
    close(ends[1]);
    std::string text(6, '\0');
    EXPECT_EQ(read(ends[0], text.data(), text.size()), 6);
    kill(ours, SIGKILL);
    waitpid(ours, nullptr, 0);
    text += common::readToEnd(ends[0]); // the end of the pipe: the process is no more
    close(ends[0]);
    return text;
}

TEST(ContainedProcess, EndsWithTheOneThatAskedForItOrGoesOn)
{
    EXPECT_EQ(outcomeAfterKill(kEnds, ""), "begun ");
    EXPECT_EQ(outcomeAfterKill(kGoesOn, ""), "begun finished");
}

TEST(ContainedProcess, PrintsIntoNothingWhenNobodyReadsAnyMore)
{
    EXPECT_EQ(outcomeAfterKill(kGoesOn, std::string(500'000, 'x')), "begun finished");
}

TEST(ContainedProcess, IsEndedWithItsObject)
{
    pid_t process = 0;
    {
        const ContainedProcess contained([] { sleep(30); }, kEnds);
        process = contained.process();
        EXPECT_TRUE(isAlive(process));
    }
    EXPECT_FALSE(isAlive(process));
}

TEST(ContainedProcess, HasAnEmptyInput)
{
    ContainedProcess process(
        [] {
            char byte = 0;
            _exit(read(STDIN_FILENO, &byte, 1) == 0 ? 0 : 1);
        },
        kEnds);
    EXPECT_EQ(process.wait().status, 0);
}

} // namespace
