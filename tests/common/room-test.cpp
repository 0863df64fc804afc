// A program that is given less than it needs.
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/errors.h"
#include "common/process/room.h"

namespace
{

using testing::HasSubstr;

// What requireRoom() says in a process with that limit, "" when it is content.
std::string complaintWith(decltype(RLIMIT_NOFILE) resource, rlimit limit, uid_t user = 0)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        setrlimit(resource, &limit);
        std::string said;
        if (user != 0 && setuid(user) != 0) {
            said = "cannot be another user";
        }
        try {
            common::requireRoom();
        } catch (const common::Failure& failure) {
            said += failure.what();
        }
        rlimit descriptors = {};
        getrlimit(RLIMIT_NOFILE, &descriptors);
        said += descriptors.rlim_cur < 64 && said.empty() ? "the limit is not raised" : "";
        const ssize_t written = write(ends[1], said.data(), said.size());
        _exit(written == static_cast<ssize_t>(said.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string said(1000, '\0');
    const ssize_t count = read(ends[0], said.data(), said.size());
    said.resize(count > 0 ? static_cast<size_t>(count) : 0);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return said;
}

TEST(Room, OrdinaryLimitsAreEnough)
{
    EXPECT_EQ(complaintWith(RLIMIT_NOFILE, {1024, 4096}), "");
    EXPECT_EQ(complaintWith(RLIMIT_AS, {RLIM_INFINITY, RLIM_INFINITY}), "");
}

TEST(Room, ALowLimitOfDescriptorsIsRaisedWhereItMayBe)
{
    EXPECT_EQ(complaintWith(RLIMIT_NOFILE, {8, 4096}), "");
    EXPECT_EQ(complaintWith(RLIMIT_NOFILE, {8, 8}),
              "a process may open only 8 files here: raise the limit (ulimit "
              "-n 64), and try again");
}

TEST(Room, TooLittleMemoryIsTold)
{
    const rlim_t little = rlim_t{50} << 20;
    EXPECT_THAT(complaintWith(RLIMIT_AS, {little, little}),
                HasSubstr("only 51200 KiB of memory here: raise"));
}

TEST(Room, TooLittleStackIsTold)
{
    EXPECT_EQ(complaintWith(RLIMIT_STACK, {64 << 10, 64 << 10}),
              "a thread may have only 64 KiB of stack here: raise the limit (ulimit -s 512), and try again");
}

// It says nothing of the limits.
TEST(Room, AKilledTrialIsNotBlamedOnALimit)
{
    static bool isKilled = true;
    pthread_atfork(nullptr, nullptr, [] { isKilled ? std::raise(SIGKILL) : 0; });
    EXPECT_NO_THROW(common::requireRoom());
    isKilled = false;
}

TEST(Room, TooFewProcessesAreTold)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "takes a user of whom nothing runs";
    }
    constexpr uid_t kNobodys = 54321;
    for (const rlim_t few : {1, 3}) {
        EXPECT_THAT(complaintWith(RLIMIT_NPROC, {few, few}, kNobodys),
                    HasSubstr("cannot start a process or a thread here (Resource temporarily unavailable)"));
    }
    EXPECT_EQ(complaintWith(RLIMIT_NPROC, {20, 20}, kNobodys), "");
}

} // namespace
