// A process watched at its writes: which ones are seen, and what is on the disk when it is killed at one.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/files/temporary-directory.h"
#include "common/files/whole-file.h"
#include "vset/write-watch/write-watch.h"

namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class WriteWatchTest : public testing::Test
{
protected:
    std::string chip() const { return directory_ / "chip"; }
    std::string chipContent() const { return common::readWhole(chip()); }

    // Runs `work` in a watched process, which is killed at its write number `last`; 0: never. Gives the
    // calls.
    std::vector<std::string> watch(const std::function<void()>& work, unsigned int last = 0)
    {
        return watch(work, last, [](vset::WriteWatch& watch, const vset::HardwareWrite& write, std::size_t) {
            watch.allow(write);
        });
    }
    using Answer = std::function<void(vset::WriteWatch&, const vset::HardwareWrite&, std::size_t)>;
    std::vector<std::string> watch(const std::function<void()>& work, unsigned int last, const Answer& answer)
    {
        int sockets[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(sockets[0]);
            vset::submitToWatch(sockets[1], reads_);
            work();
            _exit(7);
        }
        close(sockets[1]);
        vset::WriteWatch watch(sockets[0]);
        close(sockets[0]);
        std::vector<std::string> calls;
        pollfd waiting{watch.descriptor(), POLLIN, 0};
        while (poll(&waiting, 1, 10000) == 1 && (waiting.revents & POLLIN) != 0) {
            const auto write = watch.next();
            if (!write) {
                continue;
            }
            if (write->call != "sync" && write->call.rfind("msync", 0) != 0) { // they name no file
                EXPECT_EQ(write->path, chip());
            }
            calls.push_back(write->call);
            if (calls.size() == last) {
                kill(child, SIGKILL);
            } else {
                answer(watch, *write, calls.size());
            }
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(last == 0 ? WEXITSTATUS(status) : WTERMSIG(status), last == 0 ? 7 : SIGKILL);
        return calls;
    }

    common::TemporaryDirectory directory_{"write-watch-", "/var/tmp"}; // files in /tmp are no hardware
    vset::Reads reads_ = vset::Reads::kPass;
};

TEST_F(WriteWatchTest, SeesEveryWayToWriteAFile)
{
    const auto calls = watch([this] {
        const int file = open(chip().c_str(), O_RDWR | O_CREAT, 0600);
        (void)!write(file, "a", 1);
        (void)!pwrite(file, "b", 1, 1);
        (void)!ftruncate(file, 10);
        fdatasync(file);
        FILE* const stream = fdopen(file, "w"); // inside the C library no symbol is called for this
        std::fputs("c", stream);
        std::fclose(stream);
    });
    EXPECT_THAT(calls, ElementsAre("write", "pwrite64", "ftruncate", "fdatasync", "write"));
}

TEST_F(WriteWatchTest, AnMsyncThatWaitsForNothingIsToldFromOneThatDoes)
{
    const auto calls = watch([this] {
        const int file = open(chip().c_str(), O_RDWR | O_CREAT, 0600);
        (void)!ftruncate(file, 10);
        void* const memory = mmap(nullptr, 10, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        msync(memory, 10, MS_ASYNC);
        msync(memory, 10, MS_SYNC);
    });
    EXPECT_THAT(calls, ElementsAre("ftruncate", vset::kMsyncWithoutWaiting, "msync"));
}

TEST_F(WriteWatchTest, ReadsAreHeldWhereThatIsAskedForAndMayFail)
{
    std::ofstream(chip()) << "abc";
    reads_ = vset::Reads::kHeld;
    const auto work = [this] {
        char byte = 0;
        const int file = open(chip().c_str(), O_RDONLY);
        const bool hasFailed = pread(file, &byte, 1, 1) < 0 && errno == EIO;
        _exit(hasFailed && read(file, &byte, 1) == 1 && byte == 'a' ? 7 : 1);
    };
    const auto calls =
        watch(work, 0, [](vset::WriteWatch& watch, const vset::HardwareWrite& write, std::size_t number) {
            EXPECT_TRUE(write.isRead);
            if (number == 1) {
                watch.refuse(write, EIO);
            } else {
                watch.allow(write);
            }
        });
    EXPECT_THAT(calls, ElementsAre("pread64", "read"));
}

// A library may send the image to a process of its own, which writes it.
TEST_F(WriteWatchTest, WhatGoesThroughANamedPipeLiesNowhere)
{
    const auto calls = watch([this] {
        const std::string pipe = directory_ / "pipe";
        mkfifo(pipe.c_str(), 0600);
        const int through = open(pipe.c_str(), O_RDWR);
        (void)!write(through, "a", 1);
        (void)!write(open(chip().c_str(), O_WRONLY | O_CREAT, 0600), "b", 1);
    });
    EXPECT_THAT(calls, ElementsAre("write"));
    EXPECT_EQ(chipContent(), "b");
}

TEST_F(WriteWatchTest, SeesRenamingAndRemovingByAnyPath)
{
    const std::string next = directory_ / "next";
    const auto calls = watch([&] {
        const auto makeNext = [&] { close(open(next.c_str(), O_WRONLY | O_CREAT, 0600)); };
        makeNext();
        rename(next.c_str(), chip().c_str());
        makeNext();
        (void)!chdir(directory_.path().c_str());
        rename("next", "./chip");
        makeNext();
        (void)!chdir("/");
        renameat(AT_FDCWD, next.c_str(), open(directory_.path().c_str(), O_RDONLY | O_DIRECTORY), "chip");
        unlink(chip().c_str());
    });
    EXPECT_THAT(calls, ElementsAre("rename", "rename", "renameat", "unlink"));
}

TEST_F(WriteWatchTest, SeesEveryFlushAndWhatNeedsNone)
{
    std::vector<bool> areLasting;
    const auto calls = watch(
        [this] {
            const int file = open(chip().c_str(), O_RDWR | O_CREAT, 0600);
            (void)!write(file, "a", 1);
            constexpr unsigned int kWholeRange =
                SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
            sync_file_range(file, 0, 0, kWholeRange); // flushes neither sizes nor what the device keeps
            fsync(file);
            syncfs(file);
            sync();
            const int lasting = open(chip().c_str(), O_RDWR | O_SYNC);
            (void)!write(lasting, "b", 1);
            char byte[] = "c";
            const iovec part{byte, 1};
            (void)!pwritev2(file, &part, 1, 0, RWF_DSYNC);
        },
        0,
        [&](vset::WriteWatch& watch, const vset::HardwareWrite& write, std::size_t) {
            areLasting.push_back(write.isLasting);
            watch.allow(write);
        });
    EXPECT_THAT(calls, ElementsAre("write", "fsync", "syncfs", "sync", "write", "pwritev2"));
    EXPECT_THAT(areLasting, ElementsAre(false, false, false, false, true, true));
}

TEST_F(WriteWatchTest, ARefusedWriteFailsAndASpoiltOneDoesNot)
{
    const auto work = [this] {
        const int file = open(chip().c_str(), O_WRONLY | O_CREAT, 0600);
        const bool isWritten = write(file, "one", 3) == 3;
        const bool isRefused = write(file, "two", 3) == -1 && errno == EIO;
        const bool isSpoilt = write(file, "333", 3) == 3 && pwrite(file, "444", 3, 6) == 3;
        (void)!write(file, isWritten && isRefused && isSpoilt ? "+" : "-", 1);
    };
    watch(work, 0, [](vset::WriteWatch& watch, const vset::HardwareWrite& write, std::size_t number) {
        if (number == 2) {
            watch.refuse(write, EIO);
        } else if (number != 3 && number != 4) {
            watch.allow(write);
        } else if (!watch.spoil(write)) {
            ADD_FAILURE() << "write " << number << " could not be spoilt";
            watch.allow(write);
        }
    });
    const std::string spoilt = {'3', static_cast<char>(~'3'), '3', '+', static_cast<char>(~'4'), '4'};
    EXPECT_EQ(chipContent(), "one" + spoilt) << "the last one of all begins where the third has ended";
}

// Whatever a library writes with: what the process sees is a success, and the positions are moved.
TEST_F(WriteWatchTest, EveryKindOfWriteCanBeSpoilt)
{
    const auto work = [this] {
        const int file = open(chip().c_str(), O_RDWR | O_CREAT, 0600);
        const int source = memfd_create("source", 0);
        (void)!write(source, "aaabbbcccddd", 12);
        char first[] = "11";
        char second[] = "2";
        const iovec parts[] = {{first, 2}, {second, 1}};
        off_t from = 3;
        bool isRight = writev(file, parts, 2) == 3 && pwritev(file, parts, 2, 3) == 3;
        lseek(file, 6, SEEK_SET);
        isRight = isRight && sendfile(file, source, &from, 3) == 3 && from == 6;
        lseek(source, 6, SEEK_SET);
        isRight = isRight && sendfile(file, source, nullptr, 3) == 3 && lseek(source, 0, SEEK_CUR) == 9;
        (void)!pwrite(file, isRight ? "+" : "-", 1, 12);
    };
    std::vector<std::optional<std::uint64_t>> positions;
    watch(work, 0, [&](vset::WriteWatch& watch, const vset::HardwareWrite& write, std::size_t number) {
        positions.push_back(write.position);
        const auto spoilt = number < 5 ? watch.spoil(write) : std::nullopt;
        if (!spoilt) {
            EXPECT_EQ(number, 5U);
            return watch.allow(write);
        }
        EXPECT_EQ(spoilt->wrong.size(), 3U);
        EXPECT_EQ(spoilt->right[0], spoilt->wrong[0]);
        EXPECT_NE(spoilt->right[1], spoilt->wrong[1]);
    });
    const auto with = [](char c) { return std::string{c, static_cast<char>(~c), c}; };
    const std::string parts = {'1', static_cast<char>(~'1'), '2'};
    EXPECT_EQ(chipContent(), parts + parts + with('b') + with('c') + "+");
    EXPECT_THAT(positions, ElementsAre(0U, 3U, 6U, 9U, 12U));
}

// The kernel takes as much as there is, or refuses all of it; who watches takes nothing.
TEST_F(WriteWatchTest, AWriteOfMoreThanAnyMemoryHoldsCannotBeSpoilt)
{
    const auto work = [this] {
        const int file = open(chip().c_str(), O_WRONLY | O_CREAT, 0600);
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        void* const two = mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        munmap(static_cast<char*>(two) + page, page);
        constexpr std::size_t kHuge = std::size_t{1} << (sizeof(std::size_t) * 8 - 2);
        const ssize_t written = write(file, two, kHuge);
        const bool isKernels = written == static_cast<ssize_t>(page) || (written == -1 && errno == EFAULT);
        (void)!pwrite(file, isKernels ? "+" : "-", 1, 0);
    };
    watch(work, 0, [](vset::WriteWatch& watch, const vset::HardwareWrite& write, std::size_t number) {
        EXPECT_EQ(number == 1 && watch.spoil(write), false);
        watch.allow(write);
    });
    EXPECT_EQ(chipContent().substr(0, 1), "+");
}

TEST_F(WriteWatchTest, AKilledProcessHasWrittenWhatCameBefore)
{
    const auto work = [this] {
        const int file = open(chip().c_str(), O_WRONLY | O_CREAT, 0600);
        for (const char* block : {"one ", "two ", "three "}) {
            (void)!write(file, block, strlen(block));
        }
    };
    watch(work, 3);
    EXPECT_EQ(chipContent(), "one two ");
    fs::remove(chip());
    watch(work, 1);
    EXPECT_EQ(chipContent(), "");
}

TEST_F(WriteWatchTest, WritesOfThreadsAndChildrenAreSeenToo)
{
    const auto calls = watch([this] {
        std::thread([this] { std::ofstream(chip()) << "by a thread"; }).join();
        const pid_t child = fork();
        if (child == 0) {
            execlp("dd", "dd", "if=/dev/zero", ("of=" + chip()).c_str(), "bs=10", "count=3", "status=none",
                   nullptr);
            _exit(127);
        }
        waitpid(child, nullptr, 0);
    });
    EXPECT_THAT(calls, ElementsAre("write", "write", "write", "write"));
}

TEST_F(WriteWatchTest, PipesNotesAndStandardStreamsAreNoHardware)
{
    const auto calls = watch([] {
        int ends[2];
        (void)!pipe(ends);
        (void)!write(ends[1], "x", 1);
        std::ofstream("/dev/null") << "x";
        FILE* const note = std::tmpfile();
        std::fputs("x", note);
        std::fclose(note);
    });
    EXPECT_THAT(calls, IsEmpty());
}

} // namespace
