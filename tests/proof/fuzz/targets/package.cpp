// Packages that are read without being mounted or unpacked.
#include <algorithm>

#include "common/files/package-image.h"
#include "tests/proof/fuzz/target.h"

namespace
{

constexpr size_t kMostRead = size_t{1} << 20; // bytes of all files: a small image can hold gigabytes

void readAll(common::PackageImage& package)
{
    size_t left = kMostRead;
    for (const common::PackageImage::Entry& entry : package.list()) {
        fuzz::require(!entry.path.empty() && entry.path.front() != '/' && entry.path.back() != '/',
                      "a path begins at the top of the package");
        fuzz::require(("/" + entry.path + "/").find("/../") == std::string::npos,
                      "a path stays in the package");
        if (entry.kind != common::PackageImage::Entry::Kind::kFile) {
            package.problemOf(entry.path);
            continue;
        }
        uint64_t size = 0;
        package.read(entry.path, [&](const char*, size_t count) {
            size += count;
            left -= std::min(left, count);
            return left > 0;
        });
        fuzz::require(size <= entry.size, "a file is no longer than it says");
    }
}

void run(std::string_view input)
{
    try {
        common::PackageImage package(fuzz::fileWith("empTuner.img", input));
        readAll(package);
        package.contains("info.json");
    } catch (const common::Failure& error) {
        fuzz::require(error.what()[0] != '\0', "a refusal has a reason");
    }
}

const fuzz::Target target("package", run);

} // namespace
