#include "firmware.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <tarnwick/control.h>
#include <thread>

namespace
{
constexpr std::size_t kLineSize = 160; // the longest first line of an image, newline included
constexpr std::size_t kImageSize = kLineSize + SlottedFlash::kSlotSize;

// The hardware starts its new firmware. It also keeps an update of a few blocks from ending within
// milliseconds, which the daemon could take for a time-out.
constexpr std::chrono::milliseconds kRestartTime{150};

using Numbers = std::array<unsigned long, 4>;

std::optional<Numbers> parseVersion(const std::string& text)
{
    Numbers numbers{};
    std::size_t at = 0;
    for (unsigned long& number : numbers) {
        const std::size_t end = std::min(text.find('.', at), text.size());
        const std::string digits = text.substr(at, end - at);
        if (digits.empty() || digits.size() > 9 ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            return std::nullopt;
        }
        number = std::stoul(digits);
        if (end == text.size()) {
            return numbers;
        }
        at = end + 1;
    }
    return std::nullopt; // a fifth number
}

int fail(int error)
{
    errno = error;
    return -1;
}

std::nullopt_t notAnImage()
{
    errno = EBADMSG;
    return std::nullopt;
}

// No exception may reach the daemon; those of this code mean that memory ran out.
template <typename Operation>
int guarded(Operation operation) noexcept
try {
    return operation();
} catch (const std::bad_alloc&) {
    return fail(ENOMEM);
} catch (...) {
    return fail(EIO);
}

// The last percent is for the header, which makes the new firmware the active one.
unsigned int percentOf(std::size_t done, std::size_t total)
{
    return static_cast<unsigned int>(done * 99 / total);
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
} // namespace

std::optional<int> compareVersions(const std::string& offered, const std::string& installed)
{
    const auto left = parseVersion(offered);
    const auto right = parseVersion(installed);
    if (!left || !right) {
        return std::nullopt;
    }
    if (*left == *right) {
        return 0;
    }
    return *left > *right ? 1 : -1;
}

namespace
{
std::string firstLineOf(const Image& image)
{
    char line[kLineSize];
    const std::uint32_t crc = systemCrc32(image.payload.data(), image.payload.size());
    std::snprintf(line, sizeof line, "%.31s %.63s %zu %08x\n", image.hardware.c_str(), image.version.c_str(),
                  image.payload.size(), static_cast<unsigned int>(crc));
    return line;
}
} // namespace

std::vector<unsigned char> formatImage(const Image& image)
{
    const std::string line = firstLineOf(image);
    std::vector<unsigned char> bytes(line.begin(), line.end());
    bytes.insert(bytes.end(), image.payload.begin(), image.payload.end());
    return bytes;
}

std::optional<Image> parseImage(const unsigned char* data, std::size_t size)
{
    const unsigned char* lineLimit = data + std::min(size, kLineSize);
    const unsigned char* lineEnd = std::find(data, lineLimit, '\n');
    if (lineEnd == lineLimit) {
        return notAnImage();
    }
    const std::string line(data, lineEnd);
    char hardware[32];
    char version[SlottedFlash::kVersionSize];
    std::size_t payloadSize = 0;
    unsigned int crc = 0;
    if (std::sscanf(line.c_str(), "%31s %63s %zu %8x", hardware, version, &payloadSize, &crc) != 4) {
        return notAnImage();
    }

    Image image{hardware, version, {lineEnd + 1, data + size}};
    // Written back, it must be the same line: one comparison for size, checksum and everything sscanf lets
    // pass.
    if (image.payload.empty() || firstLineOf(image) != line + "\n") {
        return notAnImage();
    }
    return image;
}

std::optional<std::vector<unsigned char>> readImageFile(const std::string& path)
{
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rbe"));
    if (!file) {
        return std::nullopt;
    }
    std::vector<unsigned char> bytes;
    struct stat status{};
    if (fstat(fileno(file.get()), &status) == 0) {
        bytes.reserve(std::min(static_cast<std::size_t>(status.st_size), kImageSize));
    }
    unsigned char piece[65536];
    while (const std::size_t count = std::fread(piece, 1, sizeof piece, file.get())) {
        if (bytes.size() + count > kImageSize) {
            errno = EFBIG;
            return std::nullopt;
        }
        bytes.insert(bytes.end(), piece, piece + count);
    }
    if (std::ferror(file.get()) != 0) {
        return std::nullopt;
    }
    return bytes;
}

Firmware::Firmware(const char* hardware, std::chrono::milliseconds blockTime)
    : hardware_(hardware), flash_("/var/lib/hardware/" + hardware_, blockTime)
{
}

int Firmware::activeVersion(char* out) const noexcept
{
    return guarded([&] {
        const auto version = flash_.activeVersion();
        if (!version) {
            return -1;
        }
        std::snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%s", version->c_str());
        return 0;
    });
}

int Firmware::checkVersion(const char* offered, int* verdict) const noexcept
{
    return guarded([&] {
        *verdict = TARNWICK_CONTROL_VERDICT_SAME;
        const auto installed = flash_.activeVersion();
        if (!installed) {
            return -1;
        }
        const auto order = compareVersions(offered, *installed);
        if (!order) {
            return fail(EINVAL);
        }
        *verdict = *order;
        return 0;
    });
}

int Firmware::updateFromFile(const char* path, std::optional<unsigned long> checksum) noexcept
{
    return guarded([&] {
        const auto bytes = readImageFile(path);
        if (!bytes) {
            return -1;
        }
        if (checksum && systemCrc32(bytes->data(), bytes->size()) != *checksum) {
            return fail(EBADMSG);
        }
        return update(bytes->data(), bytes->size());
    });
}

int Firmware::updateFromMemory(const unsigned char* data, int length) noexcept
{
    return guarded([&] {
        if (length < 0) {
            return fail(EBADMSG);
        }
        return update(data, static_cast<std::size_t>(length));
    });
}

int Firmware::progress(unsigned int* out) const noexcept
{
    *out = progress_;
    if (isOwn_) {
        return 0;
    }
    return guarded([&] {
        if (const auto running = flash_.running()) {
            *out = percentOf(running->done, running->total);
        }
        return 0;
    });
}

int Firmware::update(const unsigned char* data, std::size_t size)
{
    const auto image = parseImage(data, size);
    if (!image) {
        return -1;
    }
    if (image->hardware != hardware_ || !parseVersion(image->version)) {
        return fail(EBADMSG);
    }
    progress_ = 0;
    isOwn_ = true;
    const auto report = [this](std::size_t done, std::size_t total) { progress_ = percentOf(done, total); };
    if (flash_.program(image->version, image->payload, report) != 0) {
        return -1;
    }
    std::this_thread::sleep_for(kRestartTime);
    progress_ = 100;
    return 0;
}
