// What the three examples share above the flash chip: image files, versions, and the update itself.
#ifndef EXAMPLES_FIRMWARE_H
#define EXAMPLES_FIRMWARE_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "flash.h"

// Compares dotted versions by their numbers (1.10 is newer than 1.9, and 1.1 the same as 1.1.0): 1 when
// `offered` is newer than `installed`, 0 when they are the same, -1 when it is older. No value when either is
// malformed: one to four numbers of at most nine digits, separated by single dots.
std::optional<int> compareVersions(const std::string& offered, const std::string& installed);

// An image file: one line of text, then the payload, which is what the hardware gets byte for byte.
//
//   HARDWARE VERSION SIZE CRC\n      as in "tuner 1.1 524288 9f03c2d7": size of the payload in bytes,
//   decimal,
//                                    and its systemCrc32, eight hexadecimal digits
struct Image {
    std::string hardware;
    std::string version;
    std::vector<unsigned char> payload;
};

std::vector<unsigned char> formatImage(const Image& image);

// No value when the bytes are no complete, undamaged image (errno EBADMSG).
std::optional<Image> parseImage(const unsigned char* data, std::size_t size);

// Reads a whole file. No value with errno set; EFBIG when it is larger than any image can be.
std::optional<std::vector<unsigned char>> readImageFile(const std::string& path);

// The firmware of one piece of hardware, with operations in the shape of the plug-in interface: 0, or -1 with
// errno set, and nothing thrown. Any thread; progress() while an update runs, too.
class Firmware
{
public:
    // hardware names the chip (the file /var/lib/hardware/NAME) and the images that fit it. blockTime is the
    // time in which the chip programs one block of 4096 bytes.
    Firmware(const char* hardware, std::chrono::milliseconds blockTime);

    // out holds TARNWICK_CONTROL_TEXT_SIZE bytes.
    int activeVersion(char* out) const noexcept;
    int checkVersion(const char* offered, int* verdict) const noexcept;

    // EBADMSG when the file's systemCrc32 is not `checksum` (no value: not asked for), when it is no image,
    // or one for other hardware.
    int updateFromFile(const char* path, std::optional<unsigned long> checksum) noexcept;

    // The same for an image in memory; a negative length is no image.
    int updateFromMemory(const unsigned char* data, int length) noexcept;

    // Percent of the running or last update: 0 before the first, 100 once the new firmware is active. In a
    // process that has not updated: of the update that another one is running, else 0.
    int progress(unsigned int* out) const noexcept;

private:
    int update(const unsigned char* data, std::size_t size);

    std::string hardware_;
    SlottedFlash flash_;
    std::atomic<unsigned int> progress_{0};
    std::atomic<bool> isOwn_{false}; // this process has begun an update
};

#endif
