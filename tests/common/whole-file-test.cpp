// A file that is read to its end, or cannot be.
#include <gtest/gtest.h>

#include "common/files/whole-file.h"
#include "tests/support/temporary-directory.h"

namespace
{

using common::readWhole;

TEST(WholeFile, IsReadToItsLastByte)
{
    const TemporaryDirectory directory;
    for (const std::size_t size : {0, 1, 65535, 65536, 65537, 1000000}) {
        std::string bytes(size, '\0');
        for (std::size_t place = 0; place < size; ++place) {
            bytes[place] = static_cast<char>(place * 7 + place / 256);
        }
        writeBytes(directory / "file", bytes);
        EXPECT_EQ(readWhole(directory / "file"), bytes) << size;
    }
}

TEST(WholeFile, IsEmptyWhenItCannotBeOpened)
{
    EXPECT_EQ(readWhole("/no/such/file"), "");
}

// As those of a process in /proc, which may end between the open and the read.
TEST(WholeFile, IsOverWhereItCannotBeRead)
{
    EXPECT_EQ(readWhole("/proc/self/mem"), "");
    EXPECT_EQ(readWhole("/proc"), "");
}

} // namespace
