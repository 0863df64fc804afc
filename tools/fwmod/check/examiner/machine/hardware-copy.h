// The hardware's files under a library that is running: as they were, spoilt, or taken away.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HARDWARE_COPY_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HARDWARE_COPY_H

#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fwmod::examiner
{

constexpr const char* kHardware = "/var/lib/hardware";

class HardwareCopy
{
public:
    HardwareCopy();
    void putBack() const;

private:
    bool isAsItWas(const std::filesystem::path& path) const; // but for a file's content

    std::vector<std::filesystem::path> directories_;
    std::map<std::filesystem::path, std::filesystem::path> links_;
    std::map<std::filesystem::path, mode_t> pipes_;
    std::map<std::filesystem::path, std::string> contents_;
};

// The same noise each time.
std::string noise(std::size_t size);

} // namespace fwmod::examiner

#endif
