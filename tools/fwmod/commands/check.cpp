// fwmod check: loads a control library as the daemon would, in a virtual set of its own, and reports what is
// wrong with it.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <unistd.h>

#include "common/files/overwriting.h"
#include "common/findings/findings-form.h"
#include "common/terminal/progress-line.h"
#include "tools/fwmod/check/check-report.h"
#include "tools/fwmod/check/examination.h"
#include "tools/fwmod/check/protocol/findings.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
struct CheckOptions {
    ExaminationRequest request;
    bool json = false;
    fs::path junit;
    bool listFindings = false;
};

// Compared after every trial, of which there are hundreds.
constexpr std::uintmax_t kLongestHardware = std::uintmax_t{1} << 30;

int check(const CheckOptions& options)
{
    if (options.listFindings) {
        std::fputs(findingsDocument().c_str(), stdout);
        return 0;
    }
    const ExaminationRequest& request = options.request;
    if (request.library.empty()) {
        throw common::WrongUse("name the library to check, or --list-findings for what can be found");
    }
    if (!request.other.empty() && request.package.empty() && request.firmware.empty()) {
        throw common::WrongUse(
            "--other: it is an image beside that of --package or --firmware; give that, too");
    }
    requireReadable(request.library);
    if (!request.package.empty()) {
        requireReadable(request.package);
    }
    requireDirectory(request.firmware, "--firmware");
    requireDirectory(request.hardware, "--hardware");
    if (fs::is_directory(request.other)) {
        refuseTooMuchForSet(request.other);
    } else if (!request.other.empty()) {
        requireReadable(request.other);
    }
    refuseTooMuchForSet(request.firmware);
    refuseTooMuchForSet(request.hardware, kLongestHardware);

    if (!options.junit.empty()) {
        common::refuseOverwriting("--junit", options.junit, {request.library, request.package, request.other},
                                  {request.firmware, request.hardware, request.other});
        common::requireWritable(options.junit);
    }

    common::ProgressLine line;
    const struct Clearing { // also before what is told of a failure
        ~Clearing() { line.clear(); }
        common::ProgressLine& line;
    } clearing{line};
    const auto begin = std::chrono::steady_clock::now();
    const ExaminationResult result =
        examineLibrary(request, [&](const std::string& what, unsigned int percent) {
            if (line.isDrawn()) {
                line.show(what, percent);
            }
        });
    line.clear();
    const std::string library = request.library.filename();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    const std::string text = options.json ? formatForPrograms(library, result)
                                          : formatForPeople(library, result, common::isColourWanted());
    std::fputs(text.c_str(), stdout);
    if (!options.junit.empty()) {
        common::writeReport(options.junit, formatForJUnit(library, result, taken.count()));
    }
    return hasErrors(result) ? 1 : 0;
}
} // namespace

void defineCheck(common::CommandLine& command)
{
    auto options = std::make_shared<CheckOptions>();
    ExaminationRequest& request = options->request;
    command.path("LIB", request.library, "The control library, NAME.so");
    common::Option const package =
        command.path("--package", request.package, "Its package, IDENTIFIER.img: doUpdate is tried with it");
    command
        .path("--firmware", request.firmware,
              "A directory of the system image, seen as /lib/firmware/ext/NAME by its own name")
        .excludes(package);
    command
        .path(
            "--other", request.other,
            "Another image, a package or a directory as above, best of the same length: an update with it is "
            "cut off, and what it leaves must not be taken for the first one's")
        .called("IMG|DIR");
    command.path(
        "--hardware", request.hardware,
        "A directory with the hardware's files, seen as /var/lib/hardware; nothing in it is changed. "
        "Each may be 1 GiB long");
    command.flag("--every-write", request.everyWrite,
                 "Cut the power at every write of an update; by default at 300 of them at most");
    const common::Option json = command.flag("--json", options->json, "Print JSON");
    command
        .path("--junit", options->junit, "Write a JUnit report to this file as well; errors are its failures")
        .called("FILE");
    command.flag("--list-findings", options->listFindings, "Print what can be found, with cause and cure")
        .excludes(json);
    command.footer(
        "The library is called as the daemon does, in a virtual set that is gone afterwards: questions,\n"
        "an update, updates that must be refused, and updates whose power is cut. "
        "No privileges are needed.\n"
        "Exit status: 0 no error was found (there may be warnings), 1 errors, or it could not be checked,\n"
        "2 wrong use.\n"
        "Examples:\n"
        "  fwmod check tuner.so --package empTuner.img --hardware hardware\n"
        "  fwmod check panel.so --firmware Panel --hardware hardware --json\n"
        "  fwmod check --list-findings");
    command.onRun([options] { return check(*options); });
}
} // namespace fwmod
