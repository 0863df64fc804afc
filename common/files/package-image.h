// Reads a package image (squashfs) without mounting or unpacking it.
//
// Not thread-safe. An image of any size needs one buffer only. Texts of Failure are to be put behind the
// image's path: "is no squashfs image".
#ifndef COMMON_FILES_PACKAGE_IMAGE_H
#define COMMON_FILES_PACKAGE_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/errors.h"

namespace common
{

// The process lacks it: the package may be sound.
struct NoMemory : Failure {
    using Failure::Failure;
};

class PackageImage
{
public:
    // What a package may unpack to. More is no attack on whoever looks into it, but refused: an image of a
    // few kilobytes can hold any number of bytes and of names.
    static constexpr std::uint64_t kMostBytes = std::uint64_t{4} << 30;
    static constexpr std::size_t kMostEntries = 10000;

    struct Entry {
        enum class Kind { kFile, kDirectory, kLink, kOther };
        std::string path; // from the top of the package: "directory/file"
        Kind kind;
        std::uint64_t size; // of a file, unpacked, in bytes
        std::string target; // of a link
    };

    // Throws Failure, with the reason, when it is no file system that can be read.
    explicit PackageImage(const std::string& path);
    ~PackageImage();
    PackageImage(const PackageImage&) = delete;
    PackageImage& operator=(const PackageImage&) = delete;

    // All that is in it, a directory before what it holds. Throws Failure when that is damaged, or more than
    // a package may unpack to.
    std::vector<Entry> list();

    // Whether the file is there. Here and below, `name` is a path from the top of the package.
    bool contains(const std::string& name);

    // Of a file, unpacked, in bytes; 0 when there is no such file.
    std::uint64_t sizeOf(const std::string& name);

    // Why what stands there under that name cannot be read as a file; empty for a file, a link, and nothing.
    std::string problemOf(const std::string& name);

    // Puts the next bytes of a file into a buffer of `size` bytes, and returns how many; 0 at the file's end.
    // Throws Failure when the package is damaged there. To be used while the image lives.
    using Source = std::function<std::size_t(char* buffer, std::size_t size)>;
    // From the file's beginning. Empty when there is no such file.
    Source open(const std::string& name);

    // Hands the file's content to `take`, piece by piece, until it returns false. False when the package
    // could not be read to the file's end, or there is no such file.
    using Taker = std::function<bool(const char* bytes, std::size_t count)>;
    bool read(const std::string& name, const Taker& take);

private:
    struct Squashfs;
    std::unique_ptr<Squashfs> squashfs_;
};

} // namespace common

#endif
