// fwmod info: writes an information file, or checks one with the daemon's own code.
#include <cstdio>
#include <glib.h>
#include <memory>

#include "common/files/overwriting.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/information.h"

namespace fwmod
{

namespace
{
constexpr unsigned int kLongestTime = 24 * 60 * 60; // seconds; longer ones are slips of the keyboard

struct InfoOptions {
    std::string version;
    std::string image;
    unsigned int expectedTime = 300; // what the daemon takes when the file does not say
    std::string uiUse = "none";
    std::string output;
    std::string check;
};

int check(const InfoOptions& options)
{
    const auto image =
        options.image.empty() ? std::nullopt : std::optional<std::filesystem::path>(options.image);
    const InformationReport report = checkInformation(options.check, image);
    std::fputs(formatReport(options.check, report).c_str(), stdout);
    return report.accepted ? 0 : 1;
}

int write(const InfoOptions& options)
{
    if (options.version.empty() || options.image.empty()) {
        throw common::WrongUse(
            "give --version and --image to write an information file, or --check to check one");
    }
    if (g_utf8_validate(options.version.c_str(), -1, nullptr) == FALSE) {
        throw common::WrongUse(
            "--version is no UTF-8, which a JSON file consists of: keep to ASCII, as in 1.1");
    }
    common::refuseOverwriting("-o", options.output, {options.image});
    FWInformation values;
    values.version = options.version;
    values.crc = imageChecksum(options.image);
    values.expected_time = options.expectedTime;
    values.ui_use = options.uiUse;
    const std::string text = formatInformation(values);
    if (options.output.empty()) {
        std::fputs(text.c_str(), stdout);
    } else {
        writeText(options.output, text);
    }
    return 0;
}
} // namespace

void defineInfo(common::CommandLine& command)
{
    auto options = std::make_shared<InfoOptions>();
    common::Option checked = command.text("--check", options->check, "Check this information file");
    command.text("--image", options->image, "The image that the file describes");
    common::Option writing[] = {
        command.text("--version", options->version,
                     "Version of the image, as checkVersion is asked about it"),
        command.number("--expected-time", options->expectedTime, common::Range<unsigned int>{1, kLongestTime},
                       "Seconds that the update may take, with a margin"),
        command.text("--ui-use", options->uiUse, "What the upgrade screen does with it")
            .oneOf({"select", "force", "none"}),
        command.text("-o,--output", options->output, "File to write (default: standard output)"),
    };
    for (common::Option& option : writing) {
        option.excludes(checked);
    }
    command.footer(
        "An image in the system image needs --ui-use select or force.\n"
        "Examples:\n"
        "  fwmod info --version 1.1 --image Tuner.bin --expected-time 8 --ui-use select -o info.json\n"
        "  fwmod info --check info.json --image Tuner.bin");
    command.onRun([options] { return options->check.empty() ? write(*options) : check(*options); });
}
} // namespace fwmod
