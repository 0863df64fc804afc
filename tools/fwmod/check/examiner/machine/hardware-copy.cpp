#include "tools/fwmod/check/examiner/machine/hardware-copy.h"

#include <algorithm>
#include <cstdint>
#include <sys/stat.h>
#include <system_error>

#include "tools/fwmod/check/examiner/machine/plain-files.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

HardwareCopy::HardwareCopy()
{
    std::error_code gone;
    for (const fs::path& path : everythingBelow(kHardware)) {
        const fs::file_status status = fs::symlink_status(path, gone);
        if (fs::is_symlink(status)) {
            links_[path] = fs::read_symlink(path, gone);
        } else if (fs::is_directory(status)) {
            directories_.push_back(path); // before what is in it
        } else if (fs::is_fifo(status)) {
            pipes_[path] = static_cast<mode_t>(status.permissions());
        } else if (fs::is_regular_file(status)) {
            contents_[path] = contentOf(path);
        }
    }
}

bool HardwareCopy::isAsItWas(const fs::path& path) const
{
    std::error_code none;
    switch (fs::symlink_status(path, none).type()) {
    case fs::file_type::directory:
        return std::find(directories_.begin(), directories_.end(), path) != directories_.end();
    case fs::file_type::symlink: {
        const auto link = links_.find(path);
        return link != links_.end() && fs::read_symlink(path, none) == link->second;
    }
    case fs::file_type::fifo:
        return pipes_.count(path) != 0;
    case fs::file_type::regular:
        return contents_.count(path) != 0;
    default:
        return contents_.count(path) == 0; // a socket, which may be in use, or gone
    }
}

void HardwareCopy::putBack() const
{
    std::error_code none;
    for (const fs::path& path : everythingBelow(kHardware)) {
        if (!isAsItWas(path)) {
            fs::remove_all(path, none);
        }
    }
    for (const fs::path& directory : directories_) {
        fs::create_directory(directory, none);
    }
    for (const auto& [link, target] : links_) {
        fs::create_symlink(target, link, none);
    }
    for (const auto& [pipe, mode] : pipes_) {
        mkfifo(pipe.c_str(), mode); // fails for one that is there still
    }
    for (const auto& [file, content] : contents_) {
        if (!fs::exists(file, none) || contentOf(file) != content) {
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
