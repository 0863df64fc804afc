// The hardware of @NAME@, and the file to make yours: support/module.c calls these four functions, one at a
// time, and does the rest. Each returns 0, or -1 with errno set; guarded() sees to it that no exception
// leaves. Until your driver is here, a file stands for the chip.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/file.h"
#include "support/hardware.h"

namespace
{
constexpr char kChip[] = HARDWARE_FILE;                    // the firmware that runs
constexpr char kNext[] = HARDWARE_FILE ".next";            // the one being written
constexpr auto kBlockTime = std::chrono::milliseconds(12); // a chip is slower than a file
} // namespace

// The version that runs now, as text. Ask the hardware itself: only that tells whether an update worked.
int hardwareVersion(char* out, std::size_t size)
{
    return guarded([&] {
        if (!std::filesystem::exists(kChip)) {
            return copyText("0.0", out, size); // as it leaves the factory
        }
        std::string name;
        std::string version;
        std::ifstream(kChip) >> name >> version;
        return copyText(version.c_str(), out, size);
    });
}

// Writes a block of the new firmware. Blocks come in order, from 0 on; 0 begins anew, whatever was there. The
// power may go during any of them: leave the firmware that runs alone.
int hardwareWrite(std::size_t offset, const unsigned char* data, std::size_t size)
{
    return guarded([&] {
        std::this_thread::sleep_for(kBlockTime);
        return writeBlock(kNext, offset, data, size);
    });
}

// Reads a block of the new firmware back, to be compared with what was written.
int hardwareRead(std::size_t offset, unsigned char* data, std::size_t size)
{
    return guarded([&] { return readBlock(kNext, offset, data, size); });
}

// The new firmware is complete and right: makes it, in one step, the one that runs.
int hardwareActivate()
{
    return guarded([&] { return replaceFile(kChip, kNext); });
}
