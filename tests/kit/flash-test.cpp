// The flash chip of the examples: at no write may a power cut leave anything but the old or the new firmware.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sdk/examples/common/flash.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{
using Bytes = std::vector<unsigned char>;

constexpr std::chrono::milliseconds kNoTime{0};

// ---- The chip's writes, seen and cut (the linker sends pwrite and fdatasync of flash.cpp here) ----

struct Write {
    off_t offset;
    Bytes bytes;
};
using Epoch = std::vector<Write>; // writes between two flushes: the chip may take them in any order

struct Observer {
    int cutAtWrite = 0;   // 0 = never
    size_t keepBytes = 0; // of the write that is cut
    int writes = 0;
    bool recording = false;
    bool spoil = false; // the chip does not keep what is written
    std::vector<Epoch> epochs{1};
} observer;

constexpr int kPowerCut = 77;
constexpr off_t kRegisterOffset = 2048; // the chip's status register

// Where a write is cut: within each field of a header, within a block, before it and after it.
constexpr size_t kKeptBytes[] = {
    0, 4, 8, 10, 12, 14, 16, 18, 20, 22, 60, 84, 86, 2000, SlottedFlash::kBlockSize};
} // namespace

extern "C" ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t offset);
extern "C" int __real_fdatasync(int fd);
extern "C" ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset);
extern "C" int __wrap_fdatasync(int fd);

ssize_t __wrap_pwrite(int fd, const void* data, size_t size, off_t offset)
{
    auto* bytes = static_cast<const unsigned char*>(data);
    if (++observer.writes == observer.cutAtWrite) {
        const size_t kept = std::min(size, observer.keepBytes);
        _exit(__real_pwrite(fd, data, kept, offset) == static_cast<ssize_t>(kept) ? kPowerCut : 1);
    }
    if (observer.recording &&
        offset != kRegisterOffset) { // nothing is made of the register, whatever is in it
        observer.epochs.back().push_back({offset, Bytes(bytes, bytes + size)});
    }
    if (observer.spoil && size == SlottedFlash::kBlockSize) {
        return __real_pwrite(fd, Bytes(size, 0xEE).data(), size, offset);
    }
    return __real_pwrite(fd, data, size, offset);
}

int __wrap_fdatasync(int fd)
{
    if (observer.recording) {
        observer.epochs.emplace_back();
    }
    return __real_fdatasync(fd);
}

namespace
{
class Flash : public testing::Test
{
protected:
    void SetUp() override
    {
        observer = Observer{};
        ASSERT_EQ(chip.create(), 0);
        ASSERT_EQ(chip.program("1.0", oldFirmware, nullptr), 0);
        ASSERT_EQ(chip.program("1.1", newFirmware, nullptr), 0); // both slots are in use, as later in life
        ASSERT_EQ(chip.program("1.0", oldFirmware, nullptr), 0);
        observer = Observer{};
    }

    static Bytes makeFirmware(size_t size, unsigned char first)
    {
        Bytes firmware(size);
        for (size_t i = 0; i < size; ++i) {
            firmware[i] = static_cast<unsigned char>(first + i * 7 + i / 251);
        }
        return firmware;
    }

    // Old or new, version and bytes together.
    void expectOldOrNew(const SlottedFlash& flash, const std::string& when)
    {
        const auto version = flash.activeVersion();
        const auto firmware = flash.activeFirmware();
        ASSERT_TRUE(version && firmware) << when;
        if (*version == "1.0") {
            EXPECT_EQ(*firmware, oldFirmware) << when;
        } else if (*version == "2.0") {
            EXPECT_EQ(*firmware, newFirmware) << when;
        } else {
            ADD_FAILURE() << "version " << *version << " " << when;
        }
    }

    TemporaryDirectory directory;
    std::string path = directory / "chip";
    SlottedFlash chip{path, kNoTime};
    Bytes oldFirmware = makeFirmware(3 * SlottedFlash::kBlockSize + 11, 1);
    Bytes newFirmware = makeFirmware(3 * SlottedFlash::kBlockSize + 100, 99);
    // The status register, the header erased, four blocks each with the register, the new header.
    const int writesOfAnUpdate = 1 + 1 + 4 * 2 + 1;
};

// 0 when the update got through, kPowerCut when it was cut.
int programInChild(const SlottedFlash& chip, const Bytes& firmware, int cutAtWrite, size_t keepBytes)
{
    const pid_t child = fork();
    if (child == 0) {
        observer = Observer{};
        observer.cutAtWrite = cutAtWrite;
        observer.keepBytes = keepBytes;
        _exit(chip.program("2.0", firmware, nullptr) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Flash, ProgrammedFirmwareBecomesActive)
{
    ASSERT_EQ(chip.program("2.0", newFirmware, nullptr), 0);
    EXPECT_EQ(chip.activeVersion(), "2.0");
    EXPECT_EQ(chip.activeFirmware(), newFirmware);
}

TEST_F(Flash, ProcessKilledAtAnyWriteLeavesOldOrNewAndTheNextUpdateSucceeds)
{
    const std::string kept = directory / "kept";
    fs::copy_file(path, kept);
    for (const size_t bytes : kKeptBytes) {
        for (int write = 1; write <= writesOfAnUpdate; ++write) {
            const std::string when =
                "cut at write " + std::to_string(write) + " after " + std::to_string(bytes) + " bytes of it";
            fs::copy_file(kept, path, fs::copy_options::overwrite_existing);
            ASSERT_EQ(programInChild(chip, newFirmware, write, bytes), kPowerCut) << when;
            expectOldOrNew(chip, when);
            ASSERT_EQ(programInChild(chip, newFirmware, 0, 0), 0) << when;
            EXPECT_EQ(chip.activeFirmware(), newFirmware) << when;
        }
    }
    fs::copy_file(kept, path, fs::copy_options::overwrite_existing);
    EXPECT_EQ(programInChild(chip, newFirmware, writesOfAnUpdate + 1, 0), 0) << "more writes than were cut";
}

// A chip behind a cache takes the writes between two flushes in any order and any part of each. Every
// combination of none, half and all of each write is tried at every flush.
TEST_F(Flash, PowerCutWithWritesStillInTheCacheLeavesOldOrNew)
{
    const std::string before = directory / "before";
    fs::copy_file(path, before);
    observer.recording = true;
    ASSERT_EQ(chip.program("2.0", newFirmware, nullptr), 0);
    observer.recording = false;

    const std::string cut = directory / "cut";
    const SlottedFlash cutChip(cut, kNoTime);
    const auto apply = [](int fd, const Write& write, size_t halves) {
        const size_t size = write.bytes.size() * halves / 2;
        ASSERT_EQ(__real_pwrite(fd, write.bytes.data(), size, write.offset), static_cast<ssize_t>(size));
    };
    int combinations = 0;
    const int durable = open(before.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(durable, 0);
    for (const Epoch& epoch : observer.epochs) {
        size_t total = 1;
        for (size_t i = 0; i < epoch.size(); ++i) {
            total *= 3;
        }
        for (size_t combination = 0; combination < total; ++combination, ++combinations) {
            fs::copy_file(before, cut, fs::copy_options::overwrite_existing);
            const int fd = open(cut.c_str(), O_RDWR | O_CLOEXEC);
            size_t rest = combination;
            for (const Write& write : epoch) {
                apply(fd, write, rest % 3);
                rest /= 3;
            }
            close(fd);
            expectOldOrNew(cutChip, "combination " + std::to_string(combination));
        }
        for (const Write& write : epoch) {
            apply(durable, write, 2);
        }
    }
    close(durable);
    EXPECT_EQ(combinations, 3 + 81 + 3 + 1);
}

TEST_F(Flash, ChipThatDoesNotKeepTheBlocksKeepsTheOldFirmware)
{
    observer.spoil = true;
    EXPECT_EQ(chip.program("2.0", newFirmware, nullptr), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(chip.activeVersion(), "1.0");
    EXPECT_EQ(chip.activeFirmware(), oldFirmware);
}

TEST_F(Flash, SecondWriterIsRefusedAtOnce)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_EQ(chip.program("2.0", newFirmware, nullptr), -1);
    EXPECT_EQ(errno, EBUSY);
    close(fd);
    EXPECT_EQ(chip.program("2.0", newFirmware, nullptr), 0);
}

TEST_F(Flash, ProgressCountsEveryBlock)
{
    std::vector<size_t> done;
    ASSERT_EQ(chip.program("2.0", newFirmware,
                           [&](size_t blocks, size_t total) {
                               EXPECT_EQ(total, 4U);
                               done.push_back(blocks);
                           }),
              0);
    EXPECT_EQ(done, (std::vector<size_t>{1, 2, 3, 4}));
}

TEST_F(Flash, AnotherProcessSeesHowFarAProgrammingIsAndNothingOnceItIsOver)
{
    EXPECT_FALSE(chip.running()) << "the last programming left its figures behind";
    std::vector<std::uint32_t> seen;
    ASSERT_EQ(chip.program("2.0", newFirmware,
                           [&](size_t, size_t total) {
                               // A descriptor of its own, as another process has one.
                               const auto running = SlottedFlash(path, kNoTime).running();
                               ASSERT_TRUE(running);
                               EXPECT_EQ(running->total, total);
                               seen.push_back(running->done);
                           }),
              0);
    EXPECT_EQ(seen, (std::vector<std::uint32_t>{1, 2, 3, 4}));
    EXPECT_FALSE(chip.running());
    ASSERT_EQ(programInChild(chip, oldFirmware, 5, 0), kPowerCut);
    EXPECT_FALSE(chip.running()) << "a killed programming does not run";
}

TEST_F(Flash, RefusesWhatDoesNotFit)
{
    EXPECT_EQ(chip.program("2.0", Bytes(SlottedFlash::kSlotSize + 1), nullptr), -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(chip.program(std::string(SlottedFlash::kVersionSize, '1'), newFirmware, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(chip.program("2.0", Bytes(SlottedFlash::kSlotSize, 5), nullptr), 0);
}

TEST_F(Flash, BlankAndMissingChipsHaveNoVersion)
{
    const SlottedFlash missing(directory / "missing", kNoTime);
    EXPECT_FALSE(missing.activeVersion());
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(missing.create(), 0);
    EXPECT_FALSE(missing.activeVersion());
    EXPECT_EQ(errno, ENODATA);
    EXPECT_EQ(missing.create(), -1) << "a chip is never blanked";
    writeBytes(directory / "short", "no chip");
    EXPECT_FALSE(SlottedFlash(directory / "short", kNoTime).activeVersion());
    EXPECT_EQ(SlottedFlash(directory / "short", kNoTime).program("2.0", newFirmware, nullptr), -1);
}
} // namespace
