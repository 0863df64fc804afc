#include "bench/set-room.h"

#include <boost/crc.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/mount.h>
#include <unistd.h>

#include "common/daemon/places.h"

namespace fs = std::filesystem;

namespace bench
{

using common::places::kPackages;
using common::places::kProductControls;
using common::places::kSystemImages;

int enterSet(char** argv, SetClock clock)
{
    if (fs::is_directory(kPackages) && fs::is_directory(kSystemImages)) {
        return 0;
    }
    const std::string self = fs::read_symlink("/proc/self/exe");
    std::vector<const char*> words = {VSET_PROGRAM, "run", "--temporary"};
    if (clock == SetClock::kAtPace) {
        words.insert(words.end(), {"--clock-rate", "1"});
    }
    words.insert(words.end(), {"--", self.c_str()});
    for (char** argument = argv + 1; *argument != nullptr; ++argument) {
        words.push_back(*argument);
    }
    words.push_back(nullptr);
    execv(words[0], const_cast<char**>(words.data()));
    fprintf(stderr, "%s: %s cannot be started: %s\n", argv[0], words[0], strerror(errno));
    return 1;
}

Modules::Modules(const std::string& name, int count) : directory_("/var/tmp/" + name + std::to_string(count))
{
    fs::create_directories(directory_);
    for (int i = 0; i < count; ++i) {
        names_.push_back(name + std::to_string(i));
        // A copy, because the loader takes links to one file for one library.
        fs::copy_file(PLAIN_MODULE, library(names_.back()), fs::copy_options::overwrite_existing);
    }
}

void Modules::install() const
{
    if (!fs::is_symlink(kProductControls)) {
        fs::rename(kProductControls, std::string(kProductControls) + ".empty");
    }
    fs::remove(kProductControls);
    fs::create_directory_symlink(directory_, kProductControls);
}

void Modules::giveImages(int bytes) const
{
    // The system image is read-only: a directory of our own over it.
    if (access(kSystemImages, W_OK) != 0 && mount("tmpfs", kSystemImages, "tmpfs", 0, "mode=0755") != 0) {
        throw std::runtime_error(std::string(kSystemImages) + ": " + strerror(errno));
    }
    const std::string image(static_cast<size_t>(bytes), '\x5a');
    boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
    crc.process_bytes(image.data(), image.size());
    for (const std::string& name : names_) {
        fs::create_directories(fs::path(imageOf(name)).parent_path());
        std::ofstream(imageOf(name)) << image;
        std::ofstream(informationOf(name))
            << R"({"version": "1.1", "ui_use": "select", "expected_time": 8, "crc": )" << crc.checksum()
            << "}\n";
    }
}

std::string imageOf(const std::string& name)
{
    return std::string(kSystemImages) + "/" + name + "/" + name + ".bin";
}

std::string informationOf(const std::string& name)
{
    return std::string(kSystemImages) + "/" + name + "/info.json";
}

} // namespace bench
