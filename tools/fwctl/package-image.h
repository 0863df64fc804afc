// Reads files of a package image (squashfs) without mounting it.
//
// Not thread-safe. An image of any size needs one buffer only.
#ifndef TOOLS_FWCTL_PACKAGE_IMAGE_H
#define TOOLS_FWCTL_PACKAGE_IMAGE_H

#include <functional>
#include <memory>
#include <string>

namespace fwctl
{

class PackageImage
{
public:
    // Throws Failure, with the reason, when it is no file system that can be read.
    explicit PackageImage(const std::string& path);
    ~PackageImage();
    PackageImage(const PackageImage&) = delete;
    PackageImage& operator=(const PackageImage&) = delete;

    // Whether the file is there, at the top of the package.
    bool contains(const std::string& name);

    // Why what stands there under that name cannot be read as a file; empty for a file, a link, and nothing.
    std::string problemOf(const std::string& name);

    // Hands the file's content to `take`, piece by piece, until it returns false. False when the package
    // could not be read to the file's end, or there is no such file.
    using Taker = std::function<bool(const char* bytes, std::size_t count)>;
    bool read(const std::string& name, const Taker& take);

private:
    struct Squashfs;
    std::unique_ptr<Squashfs> squashfs_;
};

} // namespace fwctl

#endif
