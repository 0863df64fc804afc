// Which files are given to the dynamic loader, by what their program headers say.
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <link.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "src/src/fw-update-library.h"
#include "tests/support/set-test.h"

namespace
{

using testing::IsEmpty;

constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();

LibraryPart loaded(uint64_t offset, uint64_t fileSize, uint64_t address, uint64_t memorySize)
{
    return {PT_LOAD, offset, fileSize, address, memorySize};
}

LibraryPart named(uint32_t type, uint64_t address, uint64_t fileSize)
{
    return {type, 0, fileSize, address, fileSize};
}

// ---- Whether the file has all that is loaded ----

TEST(LibraryIsWhole, UpToTheLastByte)
{
    EXPECT_TRUE(isWhole({loaded(100, 28, 0, 28)}, 128));
    EXPECT_FALSE(isWhole({loaded(100, 29, 0, 29)}, 128));
    EXPECT_TRUE(isWhole({loaded(128, 0, 0, 0)}, 128));
    EXPECT_FALSE(isWhole({loaded(129, 0, 0, 0)}, 128));
}

TEST(LibraryIsWhole, WithoutOverflow)
{
    EXPECT_FALSE(isWhole({loaded(kMost, 2, 0, 2)}, 128));
    EXPECT_FALSE(isWhole({loaded(2, kMost, 0, 2)}, 128));
}

TEST(LibraryIsWhole, WhereEveryLoadedPartIs)
{
    EXPECT_FALSE(isWhole({loaded(0, 10, 0, 10), loaded(100, 29, 0x1000, 29)}, 128));
    EXPECT_TRUE(isWhole({loaded(0, 10, 0, 10), {PT_NOTE, 100, 29, 0, 29}}, 128)); // nobody maps that
    EXPECT_TRUE(isWhole({}, 0));
}

// ---- Whether the parts fit each other ----

TEST(LibraryIsConsistent, WhenItsPartsAreInOrder)
{
    EXPECT_TRUE(isConsistent({loaded(0, 16, 0, 16), loaded(16, 16, 16, 16)}));
    EXPECT_FALSE(isConsistent({loaded(0, 16, 0, 16), loaded(16, 16, 15, 16)}));
    EXPECT_FALSE(isConsistent({loaded(16, 16, 16, 16), loaded(0, 16, 0, 16)}));
}

TEST(LibraryIsConsistent, NotWithAPartThatWrapsRound)
{
    EXPECT_FALSE(isConsistent({loaded(0, 16, kMost - 7, 16)}));
    EXPECT_TRUE(isConsistent({loaded(0, 8, kMost - 8, 8)}));
}

TEST(LibraryIsConsistent, WhateverIsBetweenThatIsNotLoaded)
{
    EXPECT_TRUE(isConsistent(
        {loaded(0, 16, 0, 16), {PT_GNU_STACK, 0, 0, 0, 0}, {PT_NULL, 9, 9, 9, 9}, loaded(16, 16, 16, 16)}));
}

class LibraryIsConsistentWith : public testing::TestWithParam<uint32_t>
{
};
INSTANTIATE_TEST_SUITE_P(Part, LibraryIsConsistentWith,
                         testing::Values(PT_DYNAMIC, PT_NOTE, PT_PHDR, PT_TLS, PT_GNU_PROPERTY));

// The loader reads these where they say, in the memory that it has mapped.
TEST_P(LibraryIsConsistentWith, WhatLiesInALoadedPart)
{
    const LibraryPart first = loaded(0, 16, 100, 16);
    const LibraryPart second = loaded(16, 16, 200, 32);
    EXPECT_TRUE(isConsistent({first, second, named(GetParam(), 100, 16)}));
    EXPECT_TRUE(
        isConsistent({first, second, named(GetParam(), 200, 32)})); // also where it is not in the file
    EXPECT_TRUE(isConsistent({first, second, named(GetParam(), 231, 1)}));
    EXPECT_FALSE(isConsistent({first, second, named(GetParam(), 99, 16)}));
    EXPECT_FALSE(isConsistent({first, second, named(GetParam(), 100, 17)}));
    EXPECT_FALSE(isConsistent({first, second, named(GetParam(), 232, 1)}));
    EXPECT_FALSE(isConsistent({first, second, named(GetParam(), kMost, 2)}));
    EXPECT_FALSE(isConsistent({first, second, named(GetParam(), 200, kMost)}));
    EXPECT_FALSE(isConsistent({named(GetParam(), 100, 1)}));
}

TEST_P(LibraryIsConsistentWith, AnythingThatHoldsNothing)
{
    EXPECT_TRUE(isConsistent({loaded(0, 16, 100, 16), named(GetParam(), 0, 0)}));
}

TEST(LibraryIsConsistent, WithPartsThatTheLoaderDoesNotRead)
{
    EXPECT_TRUE(isConsistent({loaded(0, 16, 100, 16), named(PT_GNU_EH_FRAME, 0, 16)}));
    EXPECT_TRUE(isConsistent({loaded(0, 16, 100, 16), named(PT_INTERP, 0, 16)}));
}

// ---- Files ----

constexpr const char* kPath = "/tmp/library.so";

// A library by its headers alone, which is all that is looked at.
struct Headers {
    ElfW(Ehdr) header = {};
    std::vector<ElfW(Phdr)> parts;

    Headers()
    {
        memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
        header.e_phoff = sizeof header;
        header.e_phentsize = sizeof(ElfW(Phdr));
        ElfW(Phdr) part = {};
        part.p_type = PT_LOAD;
        part.p_offset = 0;
        part.p_vaddr = 0x1000;
        part.p_filesz = 4000;
        part.p_memsz = 4000;
        parts.push_back(part);
        part.p_offset = 4000;
        part.p_vaddr = 0x2000;
        part.p_filesz = 96;
        part.p_memsz = 200;
        parts.push_back(part);
        header.e_phnum = static_cast<ElfW(Half)>(parts.size());
    }

    // Padded to that size, or cut there.
    std::string bytes(size_t size = 4096) const
    {
        std::string all(reinterpret_cast<const char*>(&header), sizeof header);
        all.resize(header.e_phoff);
        all.append(reinterpret_cast<const char*>(parts.data()), parts.size() * sizeof parts[0]);
        all.resize(size);
        return all;
    }
    void write(size_t size = 4096) const { writeFile(kPath, bytes(size)); }
};

class LibraryFile : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        remove(kPath);
    }

    const std::string endsTooSoon = std::string(kPath) + ": the file ends too soon";
    const std::string contradicts = std::string(kPath) + ": program headers contradict each other";
    Headers headers;
};

TEST_F(LibraryFile, ThatIsInOrderHasNoReason)
{
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), "");
}

TEST_F(LibraryFile, ThatIsAByteShortEndsTooSoon)
{
    headers.write(4095);
    EXPECT_EQ(whyNotMapped(kPath), endsTooSoon);
}

TEST_F(LibraryFile, WhoseLastPartContradictsIsToldSo)
{
    headers.parts.back().p_vaddr = 0x1001;
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), contradicts);
}

// Types, offsets, sizes and addresses are each taken from where they stand.
TEST_F(LibraryFile, IsReadFieldByField)
{
    headers.parts.front().p_memsz = 0x1001; // into the next part
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), contradicts);
    headers.parts.front().p_type = PT_NULL;
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), "");
    headers.parts.back().p_offset = 4001;
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), endsTooSoon);
}

// The loader says itself what is wrong with these.
TEST_F(LibraryFile, ThatIsNoLibraryHasNoReason)
{
    EXPECT_EQ(whyNotMapped(kPath), ""); // not there
    writeFile(kPath, "");
    EXPECT_EQ(whyNotMapped(kPath), "");
    headers.write(sizeof headers.header - 1);
    EXPECT_EQ(whyNotMapped(kPath), "");
    headers.write(sizeof headers.header + 2 * sizeof headers.parts[0] - 1); // a header short
    EXPECT_EQ(whyNotMapped(kPath), "");
}

TEST_F(LibraryFile, OfAnotherKindHasNoReason)
{
    headers.parts.back().p_vaddr = 0x1001; // would be one
    const Headers whole = headers;
    headers.header.e_ident[EI_MAG3] = 'G';
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), "");
    headers = whole;
    headers.header.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS32 : ELFCLASS64;
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), "");
    headers = whole;
    headers.header.e_phentsize += 1;
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), "");
    whole.write();
    EXPECT_EQ(whyNotMapped(kPath), contradicts);
}

TEST_F(LibraryFile, WhoseHeadersLieNowhereHasNoReason)
{
    headers.parts.back().p_vaddr = 0x1001;
    std::string bytes = headers.bytes();
    headers.header.e_phoff = std::numeric_limits<ElfW(Off)>::max(); // below zero: nothing can go there
    memcpy(bytes.data(), &headers.header, sizeof headers.header);
    writeFile(kPath, bytes);
    EXPECT_EQ(whyNotMapped(kPath), "");
}

TEST_F(LibraryFile, WithHeadersFarBehindIsReadThere)
{
    headers.parts.back().p_vaddr = 0x1001;
    headers.header.e_phoff = 300;
    headers.write();
    EXPECT_EQ(whyNotMapped(kPath), contradicts);
}

// ---- Opening ----

TEST_F(LibraryFile, ThatIsRefusedHereIsNotGivenToTheLoader)
{
    headers.write(4095);
    std::string why = "what was there";
    EXPECT_EQ(openLibrary(kPath, RTLD_NOW, why), nullptr);
    EXPECT_EQ(why, endsTooSoon);
}

TEST_F(LibraryFile, ThatIsAPipeIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo(kPath, 0600), 0);
    std::string why;
    EXPECT_EQ(openLibrary(kPath, RTLD_NOW, why), nullptr);
    EXPECT_EQ(why, "not a regular file");
}

TEST_F(LibraryFile, ThatTheLoaderRefusesHasItsReason)
{
    std::string why;
    EXPECT_EQ(openLibrary("/tmp/none.so", RTLD_NOW, why), nullptr);
    EXPECT_EQ(why, "/tmp/none.so: cannot open shared object file: No such file or directory");
    EXPECT_EQ(dlerror(), nullptr); // it tells it once
}

TEST_F(LibraryFile, ThatOpensHasNoReason)
{
    copyControl("tuner");
    const std::string path = std::string(set::kControls) + "/tuner.so";
    std::string why = "what was there";
    void* const library = openLibrary(path, RTLD_NOW | RTLD_LOCAL, why);
    ASSERT_NE(library, nullptr);
    EXPECT_THAT(why, IsEmpty());
    EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), library); // as it was asked for
    dlclose(library);
    dlclose(library);
}

} // namespace
