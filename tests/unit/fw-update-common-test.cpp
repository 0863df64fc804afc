// The shared types, texts of an item, and the update semaphore.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "src/fw-update-common.h"
#include "tests/support/set-test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// ---- Callers and image sources ----

struct CallerCase {
    int32_t caller;
    const char* context;
    UPDATE_TYPE type;
};

void PrintTo(const CallerCase& one, std::ostream* out)
{
    *out << "caller " << one.caller << ", context " << (one.context != nullptr ? one.context : "null");
}

class CallerToUpdateTypeTest : public testing::TestWithParam<CallerCase>
{
};

TEST_P(CallerToUpdateTypeTest, SelectsTheImageSource)
{
    const CallerCase& one = GetParam();
    EXPECT_EQ(CallerToUpdateType(static_cast<FWUpdateCallerTypes>(one.caller), one.context), one.type);
}

INSTANTIATE_TEST_SUITE_P(
    EveryCaller, CallerToUpdateTypeTest,
    testing::Values(CallerCase{0, "", UPDATE_TYPE_USB}, CallerCase{0, "EMP", UPDATE_TYPE_USB},
                    CallerCase{0, nullptr, UPDATE_TYPE_USB}, CallerCase{1, "USB", UPDATE_TYPE_USB},
                    CallerCase{1, "USBX", UPDATE_TYPE_EMP}, CallerCase{1, "US", UPDATE_TYPE_EMP},
                    CallerCase{1, "", UPDATE_TYPE_EMP}, CallerCase{1, "usb", UPDATE_TYPE_EMP},
                    CallerCase{1, " USB", UPDATE_TYPE_EMP}, CallerCase{2, "USB", UPDATE_TYPE_EMP},
                    CallerCase{2, nullptr, UPDATE_TYPE_EMP}, CallerCase{3, "USB", UPDATE_TYPE_EMP},
                    CallerCase{4, "USB", UPDATE_TYPE_BUILTIN}, CallerCase{5, "USB", UPDATE_TYPE_SBOX},
                    CallerCase{6, nullptr, UPDATE_TYPE_BUILTIN}, CallerCase{7, "", UPDATE_TYPE_BUILTIN},
                    CallerCase{8, "USB", UPDATE_TYPE_EMP}, CallerCase{-1, nullptr, UPDATE_TYPE_EMP},
                    CallerCase{INT32_MAX, nullptr, UPDATE_TYPE_EMP},
                    CallerCase{INT32_MIN, nullptr, UPDATE_TYPE_EMP}));

TEST(CallerToUpdateType, RefusesAnUpdateByContextWithoutAContext)
{
    EXPECT_THAT([] { CallerToUpdateType(FW_CALLER_CONTEXT, nullptr); },
                testing::ThrowsMessage<std::logic_error>("an update by context needs a context"));
}

TEST(FWUpdateCommonTypes, KeepTheNumbersThatOtherProgramsAndTheStateRangesUse)
{
    EXPECT_EQ(UPDATE_TYPE_USB, 0);
    EXPECT_EQ(UPDATE_TYPE_SBOX, 3);
    EXPECT_EQ(FWSVC_INIT, 0);
    EXPECT_EQ(FWSVC_MODULES_CHECKED, 5);
    EXPECT_EQ(FWSVC_UI_SHOWN, 10);
    EXPECT_EQ(FWSVC_UI_CANCELLED, 16);
    EXPECT_EQ(FWSVC_FINALIZED, 21);
    EXPECT_EQ(sizeof(FWSVC), 4u);
    EXPECT_EQ(sizeof(UPDATE_TYPE), 4u);
    EXPECT_EQ(sizeof(FWUpdateCallerTypes), 4u);
}

// ---- Item list entry ----

// An entry is three fields of 128 bytes, one behind the other, which other programs read by offset.
std::string field(const FWUpdateItem& item, int number)
{
    return {reinterpret_cast<const char*>(&item) + 128 * number, 128};
}

std::string padded(const std::string& text)
{
    return text + std::string(128 - text.size(), '\0');
}

TEST(FWUpdateItemTest, HoldsItsThreeTextsInOrderAndNothingElse)
{
    const FWUpdateItem item("tuner", "1.2", "Tuner");
    ASSERT_EQ(sizeof item, 384u);
    EXPECT_EQ(field(item, 0), padded("tuner"));
    EXPECT_EQ(field(item, 1), padded("1.2"));
    EXPECT_EQ(field(item, 2), padded("Tuner"));
}

TEST(FWUpdateItemTest, CutsATextOf200CharactersAt127)
{
    const std::string text(200, 'x');
    const FWUpdateItem item(text.c_str(), text.c_str(), text.c_str());
    for (int number = 0; number < 3; ++number) {
        EXPECT_EQ(field(item, number), padded(std::string(127, 'x')));
    }
}

TEST(FWUpdateItemTest, KeepsATextOf127CharactersWhole)
{
    const std::string text = std::string(126, 'a') + "z";
    EXPECT_EQ(field(FWUpdateItem(text.c_str(), "", ""), 0), padded(text));
}

TEST(FWUpdateItemTest, CutsATextOf128CharactersForTheTerminator)
{
    const std::string text = std::string(127, 'a') + "z";
    EXPECT_EQ(field(FWUpdateItem("", text.c_str(), ""), 1), padded(std::string(127, 'a')));
}

TEST(FWUpdateItemTest, TakesANullTextAsAnEmptyOne)
{
    const FWUpdateItem item(nullptr, nullptr, nullptr);
    for (int number = 0; number < 3; ++number) {
        EXPECT_EQ(field(item, number), padded(""));
    }
}

TEST(FWUpdateItemTest, IsCopiedWithAllThreeTexts)
{
    const FWUpdateItem item("tuner", "1.2", "Tuner");
    const FWUpdateItem copy(item);
    EXPECT_EQ(memcmp(&copy, &item, sizeof item), 0);
}

TEST(FWUpdateItemTest, TerminatesTheCopyOfAFieldThatHasLostItsTerminator)
{
    FWUpdateItem item("tuner", "1.2", "Tuner");
    memset(item.name, 'x', sizeof item.name);
    const FWUpdateItem copy(item);
    EXPECT_EQ(field(copy, 0), padded(std::string(127, 'x')));
}

TEST(FWUpdateItemTest, LeavesNoByteOfOldMemoryBehindAShortText)
{
    alignas(FWUpdateItem) unsigned char memory[sizeof(FWUpdateItem)];
    memset(memory, 0xAA, sizeof memory);
    const auto* const item = new (memory) FWUpdateItem("a", "b", "c");
    EXPECT_EQ(field(*item, 0), padded("a"));
    EXPECT_EQ(field(*item, 1), padded("b"));
    EXPECT_EQ(field(*item, 2), padded("c"));
}

// ---- Update semaphore ----

constexpr const char* kSemaphore = "/SEM_UPDATE_CONTROL";
constexpr const char* kSemaphoreFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";

class FWUpdateSemaphore : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        removeSemaphore();
    }
    void TearDown() override
    {
        removeSemaphore();
        SetTest::TearDown();
    }
    // Also what stands in its way.
    static void removeSemaphore()
    {
        sem_unlink(kSemaphore);
        std::filesystem::remove_all(kSemaphoreFile);
    }
    static int valueOf(sem_t* semaphore)
    {
        int value = -1;
        return sem_getvalue(semaphore, &value) == 0 ? value : -1;
    }

    FWUpdateCommon& common = *FWUpdateCommon::getInstance();
};

TEST_F(FWUpdateSemaphore, IsCreatedWithTheValue1)
{
    sem_t* const semaphore = common.create_semaphore();
    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(valueOf(semaphore), 1);
    EXPECT_THAT(platform.log(), IsEmpty());
    sem_close(semaphore);
}

TEST_F(FWUpdateSemaphore, IsCreatedForItsOwnerOnly)
{
    const mode_t mask = umask(0);
    sem_t* const semaphore = common.create_semaphore();
    umask(mask);
    ASSERT_NE(semaphore, nullptr);
    struct stat status = {};
    ASSERT_EQ(stat(kSemaphoreFile, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    sem_close(semaphore);
}

// Holds the semaphore in another process while `look` runs in this one.
template <typename Look>
void whileAnotherProcessHolds(Look look)
{
    int ready[2];
    int done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        sem_t* const semaphore = sem_open(kSemaphore, O_CREAT, 0600, 1);
        char byte = 'x';
        const bool held = semaphore != SEM_FAILED && sem_wait(semaphore) == 0;
        close(done[1]);
        const bool told = held && write(ready[1], &byte, 1) == 1 && read(done[0], &byte, 1) == 0;
        _exit(told ? 0 : 1);
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    look();
    close(done[1]);
    int status = -1;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_EQ(status, 0);
    close(ready[0]);
    close(done[0]);
}

TEST_F(FWUpdateSemaphore, KeepsItsValueWhileAnotherProcessHoldsIt)
{
    whileAnotherProcessHolds([&] {
        sem_t* const semaphore = common.create_semaphore();
        ASSERT_NE(semaphore, nullptr);
        EXPECT_EQ(valueOf(semaphore), 0);
        sem_close(semaphore);
    });
}

TEST_F(FWUpdateSemaphore, OutlivesTheEndOfTheService)
{
    sem_t* const semaphore = common.create_semaphore();
    ASSERT_NE(semaphore, nullptr);
    ASSERT_EQ(sem_wait(semaphore), 0);
    EXPECT_EQ(common.destroy_semaphore(), 0);
    EXPECT_TRUE(exists(kSemaphoreFile));
    EXPECT_EQ(valueOf(semaphore), 0); // the handle of the first opening is still good, and still held
    EXPECT_THAT(platform.log(), IsEmpty());
    sem_close(semaphore);
}

TEST_F(FWUpdateSemaphore, IsMadeByDestroyingOneThatWasNeverThere)
{
    EXPECT_EQ(common.destroy_semaphore(), 0);
    EXPECT_TRUE(exists(kSemaphoreFile));
}

// Its file is the C library's own, with another layout in processes of 32 and of 64 bits: those of one set
// have to be of one kind (docs/install.md).
constexpr bool kIs32Bits = sizeof(void*) == 4;

TEST_F(FWUpdateSemaphore, IsAFileOfTheProcessorsOwnSize)
{
    sem_t* const semaphore = common.create_semaphore();
    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(std::filesystem::file_size(kSemaphoreFile), kIs32Bits ? 16u : 32u);
    sem_close(semaphore);
}

TEST_F(FWUpdateSemaphore, OfTheOtherKindOfProcessorHasAnotherValue)
{
    constexpr char kOneOf64Bits = 1;
    constexpr char kOneOf32Bits = 1 << 1; // above the bit that tells whether anybody waits
    std::string file(kIs32Bits ? 32 : 16, '\0');
    file[0] = kIs32Bits ? kOneOf64Bits : kOneOf32Bits;
    writeFile(kSemaphoreFile, file);
    sem_t* const semaphore = common.create_semaphore();
    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(valueOf(semaphore), kIs32Bits ? 0 : 2); // nobody's turn ever, or two at once
    sem_close(semaphore);
}

TEST_F(FWUpdateSemaphore, ThatCannotBeOpenedIsNullAndLogged)
{
    std::filesystem::create_directory(kSemaphoreFile);
    EXPECT_EQ(common.create_semaphore(), nullptr);
    EXPECT_THAT(platform.log(), ElementsAre(error("Parent\t: [sem_open] Failed\n")));
}

TEST_F(FWUpdateSemaphore, ThatCannotBeOpenedIsAFailedDestruction)
{
    std::filesystem::create_directory(kSemaphoreFile);
    const int result = common.destroy_semaphore();
    const int reason = errno;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reason, EINVAL);
    EXPECT_THAT(platform.log(), ElementsAre(error("Parent\t: [sem_open] Failed\n")));
}

TEST(FWUpdateCommonTest, IsOneForTheProcess)
{
    EXPECT_EQ(FWUpdateCommon::getInstance(), FWUpdateCommon::getInstance());
}

} // namespace
