// The flash chip of an example's hardware: two slots for firmware and a header that says which one is active.
//
// The chip is a file (or a block device), laid out as such parts usually are:
//
//   0        header copy 0   describes slot 0
//   2048     status register how far a programming that runs has come
//   4096     header copy 1   describes slot 1
//   8192     slot 0          kSlotSize bytes
//   +2 MiB   slot 1
//
// The valid header with the higher sequence number names the active firmware. An update touches only the
// other slot and, as its very last write, that slot's header; so at every moment the old or the new firmware
// is complete, wherever the power is cut. A header that was cut in the middle fails its checksum and does not
// count.
//
// The status register is there to be looked at while a programming runs, by any process; nothing depends on
// it, it is not flushed, and what a cut-off programming left in it counts no more than before it.
#ifndef EXAMPLES_FLASH_H
#define EXAMPLES_FLASH_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The system's image checksum: polynomial 0x01B23CA3, most significant bit first, initial value 0, nothing
// reflected or inverted. Continue a checksum by passing the previous one.
std::uint32_t systemCrc32(const unsigned char* data, std::size_t size, std::uint32_t previous = 0);

class SlottedFlash
{
public:
    static constexpr std::size_t kBlockSize = 4096;                // bytes written at once
    static constexpr std::size_t kSlotSize = std::size_t{2} << 20; // the largest firmware, in bytes
    static constexpr std::size_t kVersionSize = 64; // version text in the header, terminator included

    // Called after every block with the number of blocks written and their total.
    using Progress = std::function<void(std::size_t done, std::size_t total)>;

    // blockTime is what programming one block takes on a real chip; the file is faster, so program() sleeps.
    SlottedFlash(std::string path, std::chrono::milliseconds blockTime);

    // Version of the active firmware. No value: chip missing, unreadable (errno tells) or blank (errno
    // ENODATA).
    std::optional<std::string> activeVersion() const;

    // The active firmware itself, its checksum verified. No value as above, or EIO when it is damaged.
    std::optional<std::vector<unsigned char>> activeFirmware() const;

    // Writes the firmware into the inactive slot, reads it back, then makes it the active one. 0, or -1 with
    // errno set and the old firmware still active: EBUSY when another program() has the chip, EFBIG or EINVAL
    // when firmware or version does not fit, EIO when the chip did not keep what was written. An update that
    // was cut off is simply started again. Any thread; the chip is locked against other threads and
    // processes.
    int program(const std::string& version, const std::vector<unsigned char>& firmware,
                const Progress& progress) const;

    // How far the programming that runs now has come, in this process or another one. No value when none
    // runs, whatever the last one left behind. Looks at the chip without touching it, and never waits.
    struct Running {
        std::uint32_t done; // blocks
        std::uint32_t total;
    };
    std::optional<Running> running() const;

    // Makes the blank chip, as the factory delivers it. 0, or -1 with errno set, EEXIST included.
    int create() const;

private:
    int programLocked(int chip, const std::string& version, const std::vector<unsigned char>& firmware,
                      const Progress& progress) const;
    int writeSlot(int chip, unsigned slot, const std::vector<unsigned char>& firmware,
                  const Progress& progress) const;

    std::string path_;
    std::chrono::milliseconds blockTime_;
};

#endif
