// Reads files of a package image (squashfs) without mounting it.
//
// Not thread-safe. A file is offered as a path, because the daemon's own functions read paths: behind it is a
// pipe that a thread fills, so that an image of any size needs one buffer only.
#ifndef FWCTL_PACKAGE_IMAGE_H
#define FWCTL_PACKAGE_IMAGE_H

#include <functional>
#include <memory>
#include <string>

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

    // Has `reader` read the file from the path that it is given, once, from beginning to end. False when the
    // package could not be read to the file's end (the reader then met an early end).
    bool read(const std::string& name, const std::function<void(const std::string& path)>& reader);

private:
    struct Squashfs;
    std::unique_ptr<Squashfs> squashfs_;
};

#endif
