#include "common/findings/findings-form.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <sstream>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/unique-fd.h"
#include "common/glib-pointers.h"
#include "common/joined.h"
#include "common/terminal/terminal.h"
#include "common/terminal/visible-text.h"

namespace common
{

// ---- For people and programs ----

namespace
{

constexpr std::size_t kWidth = 100;
constexpr std::size_t kIndent = 11; // of what stands under a finding's title
constexpr std::size_t kMostSeen = 5;

enum class Colour { Red = 31, Green = 32, Yellow = 33 };

std::string coloured(const std::string& text, Colour colour, bool isColoured)
{
    if (!isColoured) {
        return text;
    }
    return "\033[1;" + std::to_string(static_cast<int>(colour)) + "m" + text + "\033[0m";
}

// "    cause  text ...", wrapped, with the lines after the first one under the text.
std::string paragraph(const std::string& label, const std::string& text)
{
    std::string result;
    std::string line = "    " + label + std::string(kIndent - 4 - label.size(), ' ');
    std::istringstream words(text);
    bool isFirst = true;
    for (std::string word; words >> word; isFirst = false) {
        if (!isFirst && line.size() + 1 + word.size() > kWidth) {
            result += line + "\n";
            line = std::string(kIndent, ' ') + word;
            continue;
        }
        line += (isFirst ? "" : " ") + word;
    }
    return result + line + "\n";
}

const char* nameOf(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

std::vector<std::string> firstOf(std::vector<std::string> seen)
{
    if (seen.size() <= kMostSeen) {
        return seen;
    }
    const std::size_t rest = seen.size() - kMostSeen + 1;
    seen.resize(kMostSeen - 1);
    seen.push_back("and " + std::to_string(rest) + " more like these");
    return seen;
}

std::string counted(unsigned int number, const std::string& what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

} // namespace

std::string findingForPeople(const Finding& finding, bool isColoured)
{
    const Colour colour = finding.severity == Severity::Error ? Colour::Red : Colour::Yellow;
    std::string text = coloured(finding.name + " " + nameOf(finding.severity), colour, isColoured) + ": " +
                       finding.title + "\n";
    const char* label = "seen";
    for (const std::string& seen : firstOf(finding.seen)) {
        text += paragraph(label, visible(seen));
        label = "";
    }
    return text + paragraph("cause", finding.cause) + paragraph("cure", finding.cure) + "\n";
}

Json::Value findingForPrograms(const Finding& finding)
{
    Json::Value entry;
    entry["id"] = finding.name;
    entry["severity"] = nameOf(finding.severity);
    entry["title"] = finding.title;
    entry["detail"] = joined(firstOf(finding.seen), "; ");
    entry["cause"] = finding.cause;
    entry["cure"] = finding.cure;
    return entry;
}

bool isColourWanted()
{
    return isColoured(STDOUT_FILENO);
}

std::string sumForPeople(const std::string& checked, unsigned int errors, unsigned int warnings,
                         bool isColoured)
{
    const std::string shown = visible(checked);
    if (errors + warnings == 0) {
        return coloured(shown + ": sound, nothing was found.", Colour::Green, isColoured) + "\n";
    }
    const std::string sum =
        shown + ": " + counted(errors, "error") + ", " + counted(warnings, "warning") + ".";
    return coloured(sum, errors > 0 ? Colour::Red : Colour::Yellow, isColoured) + "\n";
}

// ---- JUnit ----

namespace
{

// Valid in XML whatever it holds: visible() leaves no control character and nothing but UTF-8.
std::string xml(const std::string& text)
{
    const GlibPointer<char> escaped(g_markup_escape_text(visibleLines(text).c_str(), -1));
    return escaped.get();
}

std::string seconds(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string failureOf(const Finding& finding)
{
    std::string text;
    for (const std::string& seen : finding.seen) {
        text += "seen: " + visible(seen) + "\n";
    }
    text += "cause: " + finding.cause + "\ncure: " + finding.cure;
    return "      <failure type=\"" + finding.name + "\" message=\"" +
           xml(finding.name + ": " + finding.title) + "\">" + xml(text) + "</failure>\n";
}

std::string caseOf(const std::string& suite, const TestCase& one)
{
    std::string text = "    <testcase classname=\"" + xml(suite) + "\" name=\"" + xml(one.name) +
                       "\" time=\"" + seconds(one.seconds) + "\">\n";
    if (!one.skipped.empty()) {
        text += "      <skipped message=\"" + xml(one.skipped) + "\"/>\n";
    }
    for (const Finding& finding : one.findings) {
        text += failureOf(finding);
    }
    return text + "    </testcase>\n";
}

} // namespace

std::string junitReport(const std::string& suite, const std::vector<TestCase>& cases)
{
    unsigned int failed = 0;
    unsigned int skipped = 0;
    double time = 0;
    std::string body;
    for (const TestCase& one : cases) {
        failed += one.findings.empty() ? 0 : 1;
        skipped += one.skipped.empty() ? 0 : 1;
        time += one.seconds;
        body += caseOf(suite, one);
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n  <testsuite name=\"" + xml(suite) +
           "\" tests=\"" + std::to_string(cases.size()) + "\" failures=\"" + std::to_string(failed) +
           "\" errors=\"0\" skipped=\"" + std::to_string(skipped) + "\" time=\"" + seconds(time) + "\">\n" +
           body + "  </testsuite>\n</testsuites>\n";
}

namespace
{

[[noreturn]] void refuseReport(const std::filesystem::path& file, const std::string& reason)
{
    throw Failure(shortened(file.string()) + " cannot be written (" + reason + "): give another file");
}

} // namespace

void requireWritable(const std::filesystem::path& file)
{
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0 && errno == ENOENT) {
        const std::filesystem::path directory = file.has_parent_path() ? file.parent_path() : ".";
        if (access(directory.c_str(), W_OK | X_OK) != 0) {
            refuseReport(file, std::strerror(errno));
        }
    } else if (S_ISDIR(status.st_mode)) {
        refuseReport(file, std::strerror(EISDIR));
    } else if (access(file.c_str(), W_OK) != 0) {
        refuseReport(file, std::strerror(errno));
    }
}

namespace
{

// False with errno.
bool writeWhole(UniqueFd& out, const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(out.get(), text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return close(out.release()) == 0;
}

// Pipes and devices, and a file whose directory its user may not write.
void writeInPlace(const std::filesystem::path& file, const std::string& text)
{
    UniqueFd out(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666));
    if (out.get() < 0) {
        refuseReport(file, errno == ENXIO ? "nobody reads it" : std::strerror(errno));
    }
    fcntl(out.get(), F_SETFL, 0); // a reader that is there may take its time
    if (!writeWhole(out, text)) {
        const int error = errno;
        if (std::filesystem::is_regular_file(file)) { // an empty report is none, a cut one seems to be one
            [[maybe_unused]] const int result = truncate(file.c_str(), 0);
        }
        refuseReport(file, std::strerror(error));
    }
}

// Whose it was, and open to whom it was. False when that cannot be.
bool keepOwnerAndMode(int file, const struct stat& before)
{
    const bool isOwn = before.st_uid == geteuid() && before.st_gid == getegid();
    return (isOwn || fchown(file, before.st_uid, before.st_gid) == 0) &&
           fchmod(file, before.st_mode & 07777) == 0;
}

// As a new file that takes the place of the old one when it is whole. False when none can be made there.
bool writeBeside(const std::filesystem::path& file, const std::string& text)
{
    struct stat before = {};
    const bool isThere = stat(file.c_str(), &before) == 0;
    std::error_code error;
    const bool isLinkToNothing = !isThere && std::filesystem::is_symlink(file, error);
    const std::filesystem::path target = isThere ? std::filesystem::canonical(file, error) : file;
    if (isLinkToNothing || (isThere && (error || !S_ISREG(before.st_mode)))) {
        return false;
    }
    const std::string unfinished = target.string() + "." + std::to_string(getpid()) + ".new";
    UniqueFd out(open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!out && errno != ENOSPC && errno != EDQUOT) {
        return false;
    }
    if (out && isThere && !keepOwnerAndMode(out.get(), before)) {
        unlink(unfinished.c_str());
        return false;
    }
    if (!out || !writeWhole(out, text) || rename(unfinished.c_str(), target.c_str()) != 0) {
        const int reason = errno;
        unlink(unfinished.c_str());
        refuseReport(file, std::strerror(reason));
    }
    return true;
}

} // namespace

void writeReport(const std::filesystem::path& file, const std::string& text)
{
    if (!writeBeside(file, text)) {
        writeInPlace(file, text);
    }
}

// ---- The page of all findings ----

namespace
{

std::string rulesTable(const FindingsPage& page)
{
    const bool hasSources = !page.rules.empty() && !page.rules.front().source.empty();
    std::string text =
        "\n## Rules\n\n" + page.ruleHead + "\n\n" +
        (hasSources ? "| Where | Rule | Found as |\n|---|---|---|\n" : "| Rule | Found as |\n|---|---|\n");
    for (const FindingsPage::Rule& rule : page.rules) {
        const std::string found =
            rule.names.empty() ? "not judged: " + rule.reason : joined(rule.names, ", ");
        text += (hasSources ? "| `" + rule.source + "` " : "") + "| " + rule.text + " | " + found + " |\n";
    }
    return text;
}

} // namespace

std::string findingsDocument(const FindingsPage& page)
{
    std::string text = page.head;
    std::string chapter;
    for (const FindingsPage::Entry& entry : page.entries) {
        if (entry.chapter != chapter) {
            chapter = entry.chapter;
            text += "\n## " + chapter + "\n";
        }
        const Finding& finding = entry.finding;
        text += "\n### " + finding.name + ": " + finding.title + "\n\n";
        text += finding.severity == Severity::Error ? "*Error.* " : "*Warning.* ";
        text += finding.cause + "\n\n**Rule.** \"" + entry.rule + "\" (`" + entry.source +
                "`)\n\n**Cure.** " + finding.cure + "\n";
    }
    return text + rulesTable(page);
}

} // namespace common
