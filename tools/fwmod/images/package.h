// Packages as files of ours: what is read of them says whose it is. Everything throws Damaged for a package
// that cannot be read, or holds more than any package may.
#ifndef TOOLS_FWMOD_IMAGES_PACKAGE_H
#define TOOLS_FWMOD_IMAGES_PACKAGE_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/files/package-image.h"
#include "tools/fwmod/images/damaged.h"

namespace fwmod
{

class Package
{
public:
    using Entry = common::PackageImage::Entry;
    using Source = common::PackageImage::Source;

    explicit Package(std::filesystem::path path);
    const std::vector<Entry>& entries() const { return entries_; }
    // A regular file, at the top of the package or below it.
    bool hasFile(const std::string& name);
    // Empty when there is no such file.
    Source open(const std::string& name);

private:
    std::filesystem::path path_;
    std::unique_ptr<common::PackageImage> image_;
    std::vector<Entry> entries_;
};

// Unpacks a package into a directory that is made: files, directories and links; neither devices nor pipes.
// Throws Failure besides when there is no room for it.
void unpackPackage(const std::filesystem::path& package, const std::filesystem::path& directory);

} // namespace fwmod

#endif
