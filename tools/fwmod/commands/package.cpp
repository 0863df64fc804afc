// fwmod package: the file system image that the daemon mounts read-only to find a module's image. The same
// input gives the same bytes, on every machine and at any time.
#include <cstdio>
#include <memory>

#include "common/files/file-copy.h"
#include "common/files/overwriting.h"
#include "common/files/package-image.h"
#include "common/plain-words.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/identifier.h"
#include "tools/fwmod/images/information.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
struct PackageOptions {
    std::string image;
    std::string information;
    std::string identifier;
    std::string output;
};

void copyInto(const fs::path& from, const fs::path& to)
try {
    common::copyFile(from, to);
    fs::permissions(to, fs::perms(0644)); // not those of the maker's file: reproducible
} catch (const fs::filesystem_error& error) {
    throw common::Failure("cannot copy " + common::shown(from) + " into " + common::shown(to.parent_path()) +
                          ": " + error.code().message() + " (TMPDIR may name another directory)");
}

void refuseTooLargeImage(const fs::path& image)
{
    constexpr std::uintmax_t kMost = common::PackageImage::kMostBytes;
    requireReadable(image);
    if (fs::file_size(image) > kMost) {
        throw common::Failure(common::shown(image) + " is too large: a package may hold " +
                              std::to_string(kMost >> 30) + " GiB");
    }
}

// Times, owners and modes are fixed; one block size and compressor that every set's kernel reads.
void makeFileSystem(const fs::path& tree, const fs::path& unfinished, const fs::path& output)
try {
    runProgram({"mksquashfs", tree, unfinished, "-noappend", "-no-progress", "-quiet", "-no-xattrs",
                "-all-root", "-root-mode", "0755", "-all-time", "0", "-mkfs-time", "0", "-comp", "gzip", "-b",
                "131072"},
               "squashfs-tools");
} catch (const common::Failure& failure) {
    const int error = common::errorIn(failure.what());
    if (error == 0) {
        throw;
    }
    throw common::Failure("cannot write " + common::shown(output) + ": " + common::reasonOf(error));
}

int package(const PackageOptions& options)
{
    const std::string firmware = firmwareName(options.identifier, "--id");
    const fs::path output = options.output.empty() ? options.identifier + ".img" : options.output;
    refuseTooLargeImage(options.image);
    const InformationReport report = checkInformation(options.information, fs::path(options.image));
    if (!report.accepted) {
        std::string text = formatReport(options.information, report);
        text.pop_back(); // the last line's end
        throw common::Failure("the daemon would refuse the package:\n" + text);
    }
    common::refuseOverwriting("-o", output, {options.image, options.information});

    NewFile result(output); // before the directory, which sees to it when the program is killed
    const ScratchDirectory tree;
    copyInto(options.image, tree.path() / (firmware + ".bin"));
    copyInto(options.information, tree.path() / "info.json");
    makeFileSystem(tree.path(), result.path(), output);
    result.commit();
    std::printf("%s: %s.bin and info.json, version %s, crc %u\n", common::visible(output.string()).c_str(),
                firmware.c_str(), common::visible(report.values.version).c_str(),
                static_cast<unsigned int>(report.values.crc));
    if (output.filename() != options.identifier + ".img") {
        std::fprintf(stderr, "fwmod: note: the daemon looks for the package under the name %s.img\n",
                     options.identifier.c_str());
    }
    return 0;
}
} // namespace

void definePackage(common::CommandLine& command)
{
    auto options = std::make_shared<PackageOptions>();
    command.text("--image", options->image, "The firmware image; called NAME.bin in the package").required();
    command.text("--info", options->information, "Its information file (fwmod info)").required();
    command.text("--id", options->identifier, "The module's identifier, as getEMPID writes it").required();
    command.text("-o,--output", options->output, "File to write (default ID.img)");
    command.footer("NAME is the identifier without its first \"emp\".\n"
                   "Example:\n"
                   "  fwmod package --image Tuner.bin --info info.json --id empTuner -o empTuner.img");
    command.onRun([options] { return package(*options); });
}
} // namespace fwmod
