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
    std::error_code gone; // with its directory, by a library that is at work
    fs::resize_file(file, content.size(), gone);
}

HardwareCopy::HardwareCopy()
{
    std::error_code none;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kHardware, none)) {
        if (entry.is_symlink()) {
            links_[entry.path()] = fs::read_symlink(entry.path());
        } else if (entry.is_directory()) {
            directories_.push_back(entry.path()); // before what is in it
        } else if (entry.is_regular_file()) {
            contents_[entry.path()] = common::readWhole(entry.path());
        }
    }
}

bool HardwareCopy::isAsItWas(const fs::path& path) const
{
    std::error_code none;
    const fs::file_status status = fs::symlink_status(path, none);
    if (fs::is_directory(status)) {
        return std::find(directories_.begin(), directories_.end(), path) != directories_.end();
    }
    const auto link = links_.find(path);
    return fs::is_symlink(status) ? link != links_.end() && fs::read_symlink(path, none) == link->second
                                  : contents_.count(path) != 0 || !fs::is_regular_file(status);
}

void HardwareCopy::putBack() const
{
    std::vector<fs::path> others;
    std::error_code none;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kHardware, none)) {
        if (!isAsItWas(entry.path())) {
            others.push_back(entry.path());
        }
    }
    for (const fs::path& other : others) {
        fs::remove_all(other, none);
    }
    for (const fs::path& directory : directories_) {
        fs::create_directory(directory, none);
    }
    for (const auto& [link, target] : links_) {
        fs::create_symlink(target, link, none);
    }
    for (const auto& [file, content] : contents_) {
        if (!fs::exists(file, none) || common::readWhole(file) != content) {
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
