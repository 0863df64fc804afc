// tarnwick-platform-check: whether a set's own client libraries do what the daemon relies on.
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <unistd.h>

#include "common/files/overwriting.h"
#include "common/findings/findings-form.h"
#include "common/json-text.h"
#include "common/process/interruption.h"
#include "common/process/room.h"
#include "common/terminal/command-line.h"
#include "common/terminal/progress-line.h"
#include "common/terminal/visible-text.h"
#include "platform/check/checking.h"
#include "platform/check/trials/trial-list.h"

namespace platformcheck
{

namespace
{

struct Options {
    CheckOptions check;
    bool isJson = false;
    bool isList = false;
    bool isLogTextUnjudged = false;
    std::filesystem::path junit;
};

unsigned int countOf(const CheckReport& report, common::Severity severity)
{
    unsigned int count = 0;
    for (const auto& [id, seen] : report.findings) {
        count += findingsTable().kind(id).severity == severity ? 1 : 0;
    }
    return count;
}

// ---- Reports ----

void printForPeople(const CheckReport& report)
{
    const bool isColoured = common::isColourWanted();
    std::string text;
    for (const auto& [id, seen] : report.findings) {
        text += common::findingForPeople(findingsTable().told(id, seen), isColoured);
    }
    text += "Checked with " + std::to_string(report.calls) + " calls in " +
            std::to_string(report.trials.size()) + " trials.\n";
    for (const std::string& library : report.libraries) {
        text += "Library: " + common::visible(library) + "\n";
    }
    for (const std::string& note : report.notes) {
        text += "Note: " + common::visible(note) + "\n";
    }
    text += common::sumForPeople("the platform", countOf(report, common::Severity::Error),
                                 countOf(report, common::Severity::Warning), isColoured);
    std::fputs(text.c_str(), stdout);
}

Json::Value textsOf(const std::vector<std::string>& texts)
{
    Json::Value array = Json::arrayValue;
    for (const std::string& text : texts) {
        array.append(text);
    }
    return array;
}

const char* verdictOf(const CheckReport& report)
{
    if (report.findings.empty()) {
        return "sound";
    }
    return countOf(report, common::Severity::Error) > 0 ? "faulty" : "usable";
}

void printForPrograms(const CheckReport& report)
{
    Json::Value root;
    root["libraries"] = textsOf(report.libraries);
    root["verdict"] = verdictOf(report);
    root["findings"] = Json::arrayValue;
    for (const auto& [id, seen] : report.findings) {
        root["findings"].append(common::findingForPrograms(findingsTable().told(id, seen)));
    }
    root["notes"] = textsOf(report.notes);
    root["trials"] = Json::arrayValue;
    for (const TrialReport& trial : report.trials) {
        Json::Value entry;
        entry["name"] = trial.trial->name;
        entry["title"] = trial.trial->title;
        entry["seconds"] = trial.seconds;
        entry["findings"] = Json::arrayValue;
        for (const auto& found : trial.findings) {
            entry["findings"].append(findingsTable().nameOf(found.first));
        }
        root["trials"].append(entry);
    }
    root["measured"]["calls"] = report.calls;
    std::fputs((common::indentedJson(root) + "\n").c_str(), stdout);
}

std::string junitOf(const CheckReport& report)
{
    std::vector<common::TestCase> cases;
    for (const TrialReport& trial : report.trials) {
        common::TestCase one{trial.trial->title, trial.seconds, {}, ""};
        for (const auto& [id, seen] : trial.findings) {
            one.findings.push_back(findingsTable().told(id, seen));
        }
        cases.push_back(std::move(one));
    }
    return common::junitReport("tarnwick-platform-check", cases);
}

// ---- The command ----

void requireReadable(const std::filesystem::path& file)
{
    if (!file.empty() && (access(file.c_str(), R_OK) != 0 || !std::filesystem::is_regular_file(file))) {
        throw common::WrongUse(common::shortened(file.string()) + " is no file that can be read");
    }
}

void requirePreloadable(const std::filesystem::path& file)
{
    requireReadable(file);
    if (!file.empty() && std::filesystem::absolute(file).string().find_first_of(" :") != std::string::npos) {
        throw common::WrongUse(common::shortened(file.string()) +
                               ": the loader takes no blank nor colon in a path: copy it");
    }
}

// What is no image is not for the platform to be blamed for.
void requireImage(const std::filesystem::path& file)
{
    requireReadable(file);
    if (file.empty()) {
        return;
    }
    constexpr std::uintmax_t kMost = std::uintmax_t{1} << 30; // it is copied to where packages lie
    std::array<char, 4> magic{};
    std::ifstream(file, std::ios::binary).read(magic.data(), magic.size());
    if (std::memcmp(magic.data(), "hsqs", magic.size()) != 0) {
        throw common::WrongUse(common::shortened(file.string()) + " is no squashfs image");
    }
    if (std::filesystem::file_size(file) > kMost) {
        throw common::WrongUse(common::shortened(file.string()) +
                               " is longer than 1 GiB: a small one will do");
    }
}

int check(const Options& options)
{
    if (options.isList) {
        std::fputs(findingsDocument().c_str(), stdout);
        return 0;
    }
    requireImage(options.check.image);
    requirePreloadable(options.check.preload);
    if (!options.check.directory.empty() && !std::filesystem::is_directory(options.check.directory)) {
        throw common::WrongUse(common::shortened(options.check.directory.string()) + " is no directory");
    }
    if (!options.junit.empty()) {
        common::refuseOverwriting("--junit", options.junit, {options.check.image, options.check.preload});
        common::requireWritable(options.junit);
    }
    common::ProgressLine line;
    bool isAsked = false;
    const CheckReport report =
        checkPlatform(options.check, [&](const std::string& what, unsigned int percent) {
            if (line.isDrawn()) {
                line.show(what, percent);
            } else if (!isAsked && what == titleOf("power-changes")) {
                isAsked = true; // who is at the set has no line to see it on
                std::fprintf(
                    stderr,
                    "tarnwick-platform-check: waiting for up to %u s: put the set to standby and back now\n",
                    options.check.seconds);
            }
        });
    line.clear();
    options.isJson ? printForPrograms(report) : printForPeople(report);
    if (!options.junit.empty()) {
        common::writeReport(options.junit, junitOf(report));
    }
    return report.findings.empty() ? 0 : common::kStatusFailed;
}

constexpr const char* kFooter =
    "Run it on the set, as the user that the daemon has, or as root, while the daemon does not run. The keys\n"
    "that are written get their values back; nothing is switched off, launched or rebooted without being asked\n"
    "for. Ctrl-C ends it after the trial under way, and once more at once.\n"
    "Exit status: 0 nothing was found, 1 something was, or it could not be checked, 2 wrong use.\n"
    "Examples:\n"
    "  tarnwick-platform-check\n"
    "  tarnwick-platform-check --json --junit report.xml\n"
    "  tarnwick-platform-check --trial mount --trial node --image /opt/sample.img\n"
    "  tarnwick-platform-check --list-findings";

void define(common::CommandLine& program, Options& options)
{
    program
        .path("--image", options.check.image,
              "The squashfs image to mount; by default a small one of its own")
        .called("FILE");
    program
        .path("--directory", options.check.directory,
              "Mount below this directory; by default where packages are")
        .called("DIR");
    program.text("--package", options.check.package, "Ask for this package, which the store has")
        .called("IDENTIFIER");
    program
        .text("--application", options.check.application,
              "Launch this application, which answers, for a reply")
        .called("IDENTIFIER");
    program.path("--preload", options.check.preload, "Put this library before the platform's, to try it")
        .called("LIB");
    program.texts("--trial", options.check.trials, "Make this trial only; may be repeated").called("NAME");
    program.number(
        "--with-standby", options.check.seconds, common::Range<unsigned int>{1, 3600},
        "Wait so many seconds for somebody who puts the set to standby and back, and judge what is told");
    program.flag("--with-reboot", options.check.isReboot,
                 "Request a reboot at the end: the set is gone then");
    program.flag(
        "--no-log-text", options.isLogTextUnjudged,
        "Do not look for the texts of the logs in what is written: they are packed or encrypted here");
    const common::Option json = program.flag("--json", options.isJson, "Print JSON");
    program.path("--junit", options.junit, "Write a JUnit report to this file as well").called("FILE");
    program.flag("--list-findings", options.isList, "Print what can be found, with cause and cure")
        .excludes(json);
    program.footer(kFooter);
    program.onRun([&options] {
        options.check.isLogTextJudged = !options.isLogTextUnjudged;
        return check(options);
    });
}

} // namespace

} // namespace platformcheck

int main(int argc, char** argv)
{
    using namespace platformcheck;
    common::CommandLine program(
        "tarnwick-platform-check",
        "Tries whether this set's client libraries do what the firmware-update daemon relies on.");
    Options options;
    define(program, options);
    program.beforeRun(common::requireRoom);
    try {
        return program.main(argc, argv);
    } catch (const common::Interrupted& interruption) {
        std::fprintf(stderr, "tarnwick-platform-check: interrupted, and nothing is told of what was found\n");
        std::fflush(stdout);
        raise(interruption.signal); // as it usually does: it ends the program
        return common::kStatusFailed;
    }
}
