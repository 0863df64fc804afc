#include "flash.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace
{
constexpr unsigned kSlots = 2;
constexpr char kMagic[8] = {'F', 'L', 'A', 'S', 'H', 'H', 'D', '1'};

// As it lies on the chip, in the byte order of the machine: a chip never changes machines.
struct Header {
    char magic[8];
    std::uint32_t sequence;
    std::uint32_t size; // of the firmware, in bytes
    std::uint32_t crc;  // of the firmware
    char version[SlottedFlash::kVersionSize];
    std::uint32_t headerCrc; // of everything above
};
static_assert(sizeof(Header) == 88, "the layout on the chip has no gaps");

constexpr char kRegisterMagic[8] = {'F', 'L', 'A', 'S', 'H', 'S', 'R', '1'};
constexpr off_t kRegisterOffset = 2048;

struct StatusRegister {
    char magic[8];
    std::uint32_t done; // blocks
    std::uint32_t total;
};
static_assert(sizeof(Header) <= kRegisterOffset &&
                  kRegisterOffset + sizeof(StatusRegister) <= SlottedFlash::kBlockSize,
              "the register lies in the page of the first header, behind it");

class Descriptor
{
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor()
    {
        const int kept = errno; // close() must not hide why the caller gives up
        if (fd_ >= 0) {
            close(fd_);
        }
        errno = kept;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return fd_; }

private:
    int fd_;
};

int fail(int error)
{
    errno = error;
    return -1;
}

off_t headerOffset(unsigned slot)
{
    return static_cast<off_t>(slot * SlottedFlash::kBlockSize);
}

off_t slotOffset(unsigned slot)
{
    return static_cast<off_t>(kSlots * SlottedFlash::kBlockSize + slot * SlottedFlash::kSlotSize);
}

int writeAt(int chip, const void* data, std::size_t size, off_t offset)
{
    auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const ssize_t written = pwrite(chip, bytes, size, offset);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return written == 0 ? fail(EIO) : -1;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
        offset += written;
    }
    return 0;
}

int readAt(int chip, void* data, std::size_t size, off_t offset)
{
    auto* bytes = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t got = pread(chip, bytes, size, offset);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0 ? fail(EIO) : -1;
        }
        bytes += got;
        size -= static_cast<std::size_t>(got);
        offset += got;
    }
    return 0;
}

std::uint32_t headerCrc(const Header& header)
{
    return systemCrc32(reinterpret_cast<const unsigned char*>(&header), offsetof(Header, headerCrc));
}

bool isValid(const Header& header)
{
    return std::memcmp(header.magic, kMagic, sizeof kMagic) == 0 && header.headerCrc == headerCrc(header) &&
           header.size <= SlottedFlash::kSlotSize && header.version[sizeof header.version - 1] == '\0';
}

struct Active {
    unsigned slot;
    Header header;
};

// The newer of the valid headers. The difference is taken as signed, so that the sequence number may wrap.
std::optional<Active> findActive(int chip)
{
    std::optional<Active> active;
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        Header header{};
        if (readAt(chip, &header, sizeof header, headerOffset(slot)) != 0) {
            return std::nullopt;
        }
        if (!isValid(header)) {
            continue;
        }
        if (!active || static_cast<std::int32_t>(header.sequence - active->header.sequence) > 0) {
            active = Active{slot, header};
        }
    }
    if (!active) {
        errno = ENODATA;
    }
    return active;
}

std::optional<std::vector<unsigned char>> readSlot(int chip, unsigned slot, std::size_t size,
                                                   std::uint32_t crc)
{
    std::vector<unsigned char> firmware(size);
    if (readAt(chip, firmware.data(), size, slotOffset(slot)) != 0) {
        return std::nullopt;
    }
    if (systemCrc32(firmware.data(), size) != crc) {
        errno = EIO;
        return std::nullopt;
    }
    return firmware;
}

// Whether the slot holds what has this checksum: read in pieces, as nobody wants it whole.
bool isSlotSound(int chip, unsigned slot, std::size_t size, std::uint32_t crc)
{
    std::array<unsigned char, 8 * SlottedFlash::kBlockSize> piece; // not cleared: all that counts is read
    std::uint32_t seen = 0;
    for (std::size_t at = 0; at < size; at += piece.size()) {
        const std::size_t length = std::min(piece.size(), size - at);
        if (readAt(chip, piece.data(), length, slotOffset(slot) + static_cast<off_t>(at)) != 0) {
            return false;
        }
        seen = systemCrc32(piece.data(), length, seen);
    }
    if (seen != crc) {
        errno = EIO;
        return false;
    }
    return true;
}

std::size_t blocksOf(const std::vector<unsigned char>& firmware)
{
    return (firmware.size() + SlottedFlash::kBlockSize - 1) / SlottedFlash::kBlockSize;
}

Header makeHeader(std::uint32_t sequence, const std::string& version,
                  const std::vector<unsigned char>& firmware)
{
    Header header{};
    std::memcpy(header.magic, kMagic, sizeof kMagic);
    header.sequence = sequence;
    header.size = static_cast<std::uint32_t>(firmware.size());
    header.crc = systemCrc32(firmware.data(), firmware.size());
    version.copy(header.version, sizeof header.version - 1);
    header.headerCrc = headerCrc(header);
    return header;
}

// The lock on the register says that a programming runs. It belongs to the open file, so it is gone with its
// owner, however that ends; and a reader can ask for it without holding it for a moment, which could refuse a
// programming.
struct flock registerLock(short type)
{
    struct flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = kRegisterOffset;
    lock.l_len = sizeof(StatusRegister);
    return lock;
}

// Without success the programming goes on: it is only not seen.
void writeRegister(int chip, std::size_t done, std::size_t total)
{
    StatusRegister status{};
    std::memcpy(status.magic, kRegisterMagic, sizeof kRegisterMagic);
    status.done = static_cast<std::uint32_t>(done);
    status.total = static_cast<std::uint32_t>(total);
    writeAt(chip, &status, sizeof status, kRegisterOffset);
}

void announce(int chip, std::size_t total)
{
    writeRegister(chip, 0, total);
    struct flock lock = registerLock(F_WRLCK);
    fcntl(chip, F_OFD_SETLK, &lock);
}

int writeHeader(int chip, unsigned slot, const Header& header)
{
    if (writeAt(chip, &header, sizeof header, headerOffset(slot)) != 0) {
        return -1;
    }
    return fdatasync(chip);
}
} // namespace

// Eight bytes at a time, each with a table for its distance from the end of the eight: images are long.
std::uint32_t systemCrc32(const unsigned char* data, std::size_t size, std::uint32_t previous)
{
    constexpr std::size_t kStep = 8;
    static const auto tables = [] {
        std::array<std::array<std::uint32_t, 256>, kStep> remainders{};
        for (std::uint32_t byte = 0; byte < 256; ++byte) {
            std::uint32_t rest = byte << 24;
            for (int bit = 0; bit < 8; ++bit) {
                rest = (rest & 0x80000000U) != 0 ? (rest << 1) ^ 0x01B23CA3U : rest << 1;
            }
            remainders[0][byte] = rest;
        }
        for (std::size_t distance = 1; distance < kStep; ++distance) {
            for (std::size_t byte = 0; byte < 256; ++byte) {
                const std::uint32_t nearer = remainders[distance - 1][byte];
                remainders[distance][byte] = (nearer << 8) ^ remainders[0][nearer >> 24];
            }
        }
        return remainders;
    }();
    for (; size >= kStep; size -= kStep, data += kStep) {
        previous ^= std::uint32_t{data[0]} << 24 | std::uint32_t{data[1]} << 16 |
                    std::uint32_t{data[2]} << 8 | std::uint32_t{data[3]};
        previous = tables[7][previous >> 24] ^ tables[6][previous >> 16 & 0xFFU] ^
                   tables[5][previous >> 8 & 0xFFU] ^ tables[4][previous & 0xFFU] ^ tables[3][data[4]] ^
                   tables[2][data[5]] ^ tables[1][data[6]] ^ tables[0][data[7]];
    }
    for (; size > 0; --size, ++data) {
        previous = (previous << 8) ^ tables[0][(previous >> 24) ^ *data];
    }
    return previous;
}

SlottedFlash::SlottedFlash(std::string path, std::chrono::milliseconds blockTime)
    : path_(std::move(path)), blockTime_(blockTime)
{
}

std::optional<std::string> SlottedFlash::activeVersion() const
{
    const Descriptor chip(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (chip < 0) {
        return std::nullopt;
    }
    const auto active = findActive(chip);
    if (!active) {
        return std::nullopt;
    }
    return std::string(active->header.version);
}

std::optional<std::vector<unsigned char>> SlottedFlash::activeFirmware() const
{
    const Descriptor chip(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (chip < 0) {
        return std::nullopt;
    }
    const auto active = findActive(chip);
    if (!active) {
        return std::nullopt;
    }
    return readSlot(chip, active->slot, active->header.size, active->header.crc);
}

int SlottedFlash::program(const std::string& version, const std::vector<unsigned char>& firmware,
                          const Progress& progress) const
{
    if (firmware.size() > kSlotSize) {
        return fail(EFBIG);
    }
    if (version.empty() || version.size() >= kVersionSize) {
        return fail(EINVAL);
    }
    const Descriptor chip(open(path_.c_str(), O_RDWR | O_CLOEXEC));
    if (chip < 0) {
        return -1;
    }
    // The lock goes with the descriptor, so a killed process leaves none behind. Not waiting: a caller that
    // was given up on may still be writing, and queueing behind it would only hide that.
    if (flock(chip, LOCK_EX | LOCK_NB) != 0) {
        return fail(errno == EWOULDBLOCK ? EBUSY : errno);
    }
    return programLocked(chip, version, firmware, progress);
}

int SlottedFlash::programLocked(int chip, const std::string& version,
                                const std::vector<unsigned char>& firmware, const Progress& progress) const
{
    const auto active = findActive(chip);
    if (!active && errno != ENODATA) {
        return -1;
    }
    const unsigned slot = active ? 1 - active->slot : 0;
    const std::uint32_t sequence = active ? active->header.sequence + 1 : 1;
    announce(chip, blocksOf(firmware));

    // The slot's old header goes first, for good: were the active header ever lost, a half-written slot must
    // not pass for firmware.
    if (writeHeader(chip, slot, Header{}) != 0 || writeSlot(chip, slot, firmware, progress) != 0) {
        return -1;
    }
    const Header header = makeHeader(sequence, version, firmware);
    if (!isSlotSound(chip, slot, firmware.size(), header.crc)) {
        return -1;
    }
    return writeHeader(chip, slot, header);
}

int SlottedFlash::writeSlot(int chip, unsigned slot, const std::vector<unsigned char>& firmware,
                            const Progress& progress) const
{
    const std::size_t total = blocksOf(firmware);
    for (std::size_t block = 0; block < total; ++block) {
        const std::size_t offset = block * kBlockSize;
        const std::size_t size = std::min(kBlockSize, firmware.size() - offset);
        if (writeAt(chip, firmware.data() + offset, size, slotOffset(slot) + static_cast<off_t>(offset)) !=
            0) {
            return -1;
        }
        std::this_thread::sleep_for(blockTime_);
        writeRegister(chip, block + 1, total);
        if (progress) {
            progress(block + 1, total);
        }
    }
    return fdatasync(chip); // before the header that vouches for these blocks
}

std::optional<SlottedFlash::Running> SlottedFlash::running() const
{
    const Descriptor chip(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct flock lock = registerLock(F_RDLCK);
    if (chip < 0 || fcntl(chip, F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return std::nullopt;
    }
    StatusRegister status{};
    const bool isRead = readAt(chip, &status, sizeof status, kRegisterOffset) == 0 &&
                        std::memcmp(status.magic, kRegisterMagic, sizeof kRegisterMagic) == 0;
    if (!isRead || status.total == 0 || status.done > status.total) {
        return std::nullopt;
    }
    return Running{status.done, status.total};
}

int SlottedFlash::create() const
{
    const Descriptor chip(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (chip < 0) {
        return -1;
    }
    return ftruncate(chip, slotOffset(kSlots));
}
