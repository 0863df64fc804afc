#include "tools/fwmod/images/package.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <numeric>

#include "common/daemon/limits.h"
#include "common/process/interruption.h"
#include "common/terminal/visible-text.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
// What `action` returns; what it finds damaged is told with the package's path.
template <typename Action>
auto reading(const fs::path& package, const Action& action)
{
    try {
        return action();
    } catch (const common::Failure& error) {
        throw Damaged(kPackageKind, common::shown(package) + " " + error.what() +
                                        ": make it anew (fwmod package), or copy it again");
    }
}
} // namespace

Package::Package(fs::path path) : path_(std::move(path))
{
    reading(path_, [this] {
        image_ = std::make_unique<common::PackageImage>(path_);
        entries_ = image_->list();
    });
}

bool Package::hasFile(const std::string& name)
{
    return image_->contains(name);
}

Package::Source Package::open(const std::string& name)
{
    const Source source = image_->open(name);
    if (!source) {
        return nullptr;
    }
    return [this, source](char* buffer, std::size_t size) {
        return reading(path_, [&] { return source(buffer, size); });
    };
}

// ---- Unpacking ----

namespace
{
void requireRoom(const std::vector<Package::Entry>& entries, const fs::path& package,
                 const fs::path& directory)
{
    const auto add = [](std::uint64_t sum, const Package::Entry& entry) { return sum + entry.size; };
    const std::uint64_t needed = std::accumulate(entries.begin(), entries.end(), std::uint64_t{0}, add);
    std::error_code unknown;
    const fs::space_info room = fs::space(directory, unknown);
    if (!unknown && room.available < needed) {
        throw common::Failure(common::shown(package) + " unpacks to " + std::to_string(needed >> 20) +
                              " MB, and " + std::to_string(room.available >> 20) + " MB are left in " +
                              common::shown(directory) + ": make room, or set TMPDIR to another directory");
    }
}

// So that it is not unpacked first, which may take minutes.
void refuseLongInformation(const std::vector<Package::Entry>& entries, const fs::path& package)
{
    for (const Package::Entry& entry : entries) {
        if (entry.path == "info.json" && entry.size > common::kMostInformation) {
            throw common::Failure("the daemon would refuse the image:\ninfo.json in " +
                                  common::shown(package) + " is longer than " +
                                  std::to_string(common::kMostInformation) + " bytes");
        }
    }
}

// Blocks of zeros stay holes.
void writeFile(const Package::Source& source, std::uint64_t size, const fs::path& to)
{
    std::ofstream out(to, std::ios::binary);
    std::vector<char> chunk(65536);
    errno = 0;
    while (const std::size_t count = source(chunk.data(), chunk.size())) {
        common::InterruptionWatch::check();
        const auto length = static_cast<std::ptrdiff_t>(count);
        const bool isHole = std::all_of(chunk.begin(), chunk.begin() + length, [](char c) { return c == 0; });
        if (isHole) {
            out.seekp(length, std::ios::cur);
        } else {
            out.write(chunk.data(), length);
        }
    }
    out.close();
    std::error_code error(errno, std::generic_category());
    if (out) {
        fs::resize_file(to, size, error); // a hole at the end
    }
    if (!out || error) {
        throw common::Failure("cannot write " + common::shown(to) + ": " + error.message());
    }
}

// Nothing is written through a link: every name is new, or the package names a thing twice.
void unpack(Package& package, const Package::Entry& entry, const fs::path& to)
{
    using Kind = Package::Entry::Kind;
    if (fs::exists(fs::symlink_status(to))) {
        throw common::Failure("cannot unpack " + entry.path + ": the package has it twice");
    }
    if (entry.kind == Kind::kDirectory) {
        fs::create_directory(to);
    } else if (entry.kind == Kind::kLink) {
        fs::create_symlink(entry.target, to);
    } else if (entry.kind == Kind::kFile) {
        writeFile(package.open(entry.path), entry.size, to);
    }
}
} // namespace

void unpackPackage(const fs::path& package, const fs::path& directory)
{
    Package opened(package);
    fs::create_directories(directory);
    requireRoom(opened.entries(), package, directory);
    refuseLongInformation(opened.entries(), package);
    for (const Package::Entry& entry : opened.entries()) {
        unpack(opened, entry, directory / entry.path);
    }
}
} // namespace fwmod
