#include "tools/fwmod/check/examiner/hardware-copy.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <system_error>

#include "common/files/whole-file.h"
#include "tools/fwmod/check/examiner/machine.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& directory)
{
    std::vector<fs::path> all;
    std::error_code none;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory, none)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            all.push_back(entry.path());
        }
    }
    return all;
}

void overwrite(const fs::path& file, const std::string& content)
{
    std::ofstream out(file, std::ios::binary | std::ios::in);
    if (!out) {
        out.open(file, std::ios::binary);
    }
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    fs::resize_file(file, content.size());
}

HardwareCopy::HardwareCopy()
{
    for (const fs::path& file : filesIn(kHardware)) {
        contents_[file] = common::readWhole(file);
    }
}

void HardwareCopy::putBack() const
{
    for (const fs::path& file : filesIn(kHardware)) {
        if (contents_.count(file) == 0) {
            fs::remove(file);
        }
    }
    for (const auto& [file, content] : contents_) {
        if (!fs::exists(file) || common::readWhole(file) != content) {
            overwrite(file, content);
        }
    }
}

std::string noise(std::size_t size)
{
    constexpr std::size_t kBlock = 4096; // repeated: to make it of megabytes takes its time
    std::string block(std::min(size, kBlock), '\0');
    std::uint32_t state = 2463534242; // xorshift: the same noise each time
    for (char& byte : block) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state);
    }
    std::string bytes;
    bytes.reserve(size);
    while (bytes.size() < size) {
        bytes.append(block, 0, size - bytes.size());
    }
    return bytes;
}
} // namespace fwmod::examiner
