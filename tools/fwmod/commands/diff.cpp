// fwmod diff: what differs between two files of a kind, in the words of "fwmod inspect".
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <unistd.h>

#include "common/files/regular-file.h"
#include "common/json-text.h"
#include "common/plain-words.h"
#include "common/process/interruption.h"
#include "common/terminal/reading-progress.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/inspection.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
struct DiffOptions {
    InspectionRequest a;
    InspectionRequest b;
    bool json = false;
};

struct Difference {
    std::string what;
    std::string text;    // for people
    Json::Value details; // for programs: "a" and "b", or the byte from which on it is different
};

using Differences = std::vector<Difference>;

// ---- Bytes ----

// As a package hands out its files.
using Source = Package::Source;

Source watched(const Source& source, std::uint64_t size, const std::string& what)
{
    const auto progress = std::make_shared<common::ReadingProgress>(what, size);
    return [source, progress](char* buffer, std::size_t room) {
        const std::size_t count = source(buffer, room);
        progress->add(count);
        return count;
    };
}

Source sourceOf(const fs::path& path)
{
    requireReadable(path);
    const auto file = std::make_shared<common::RegularFile>(path);
    if (file->descriptor() < 0) {
        throw common::Failure(common::shown(path) + " " + file->problem());
    }
    const Source source = [file, path](char* buffer, std::size_t size) {
        ssize_t count = -1;
        do {
            count = read(file->descriptor(), buffer, size);
            common::InterruptionWatch::check();
        } while (count < 0 && errno == EINTR);
        if (count < 0) {
            throw common::Failure("cannot read all of " + common::shown(path) + ": " + std::strerror(errno));
        }
        return static_cast<std::size_t>(count);
    };
    return watched(source, fs::file_size(path), path.filename());
}

std::size_t fill(const Source& source, std::vector<char>& bytes)
{
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const std::size_t count = source(&bytes[filled], bytes.size() - filled);
        if (count == 0) {
            break;
        }
        filled += count;
    }
    return filled;
}

// The first byte that differs, counted from 1 as cmp(1) does; none when they are the same.
std::optional<std::uint64_t> firstDifference(const Source& left, const Source& right)
{
    std::vector<char> leftBytes(65536);
    std::vector<char> rightBytes(65536);
    for (std::uint64_t before = 0;;) {
        const std::size_t leftCount = fill(left, leftBytes);
        const std::size_t rightCount = fill(right, rightBytes);
        const std::size_t both = std::min(leftCount, rightCount);
        if (std::memcmp(leftBytes.data(), rightBytes.data(), both) != 0) {
            const auto end = leftBytes.begin() + static_cast<std::ptrdiff_t>(both);
            const auto differing = std::mismatch(leftBytes.begin(), end, rightBytes.begin()).first;
            return before + static_cast<std::uint64_t>(differing - leftBytes.begin()) + 1;
        }
        if (leftCount != rightCount) {
            return before + both + 1;
        }
        if (both == 0) {
            return std::nullopt;
        }
        before += both;
    }
}

void compareBytes(const std::string& what, const Source& a, const Source& b, Differences& differences)
{
    const auto byte = firstDifference(a, b);
    if (!byte) {
        return;
    }
    Json::Value details;
    details["byte"] = Json::UInt64(*byte);
    differences.push_back({what, "differs from byte " + std::to_string(*byte) + " on", details});
}

// ---- Facts ----

void add(const std::string& what, const std::string& a, const std::string& b, const Json::Value& aValue,
         const Json::Value& bValue, Differences& differences)
{
    Json::Value details;
    details["a"] = aValue;
    details["b"] = bValue;
    differences.push_back({what, a + " -> " + b, details});
}

void addPresence(const std::string& what, bool inA, bool inB, Differences& differences)
{
    if (inA != inB) {
        add(what, inA ? "there" : "not there", inB ? "there" : "not there", inA, inB, differences);
    }
}

// What a fact of several things lists; an object's members are things that may be there or not.
std::set<std::string> thingsOf(const Json::Value& value)
{
    std::set<std::string> things;
    if (value.isArray()) {
        for (const Json::Value& thing : value) {
            things.insert(thing.asString());
        }
    } else if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            if (value[name].asBool()) {
                things.insert(name);
            }
        }
    }
    return things;
}

void compareSets(const std::string& what, const std::set<std::string>& a, const std::set<std::string>& b,
                 Differences& differences)
{
    std::set<std::string> all = a;
    all.insert(b.begin(), b.end());
    for (const std::string& thing : all) {
        std::string name = what;
        addPresence(name.append(" ").append(thing), a.count(thing) != 0, b.count(thing) != 0, differences);
    }
}

void compareFact(const std::string& key, const Fact* a, const Fact* b, Differences& differences)
{
    static const Fact none{"", "unknown", Json::nullValue};
    const Fact& left = a != nullptr ? *a : none;
    const Fact& right = b != nullptr ? *b : none;
    const auto isSeveral = [](const Fact& fact) { return fact.value.isArray() || fact.value.isObject(); };
    if (isSeveral(left) && isSeveral(right)) {
        compareSets(key + ":", thingsOf(left.value), thingsOf(right.value), differences);
    } else if (left.value != right.value) {
        add(key, left.text, right.text, left.value, right.value, differences);
    }
}

const Fact* find(const Inspection& inspection, const std::string& key)
{
    for (const Fact& fact : inspection.facts) {
        if (fact.key == key) {
            return &fact;
        }
    }
    return nullptr;
}

void compareFacts(const Inspection& a, const Inspection& b, Differences& differences)
{
    for (const Fact& fact : a.facts) {
        compareFact(fact.key, &fact, find(b, fact.key), differences);
    }
    for (const Fact& fact : b.facts) {
        if (find(a, fact.key) == nullptr) {
            compareFact(fact.key, nullptr, &fact, differences);
        }
    }
    compareSets("problem:", {a.problems.begin(), a.problems.end()}, {b.problems.begin(), b.problems.end()},
                differences);
}

// ---- Packages ----

void compareFilesInside(const fs::path& a, const fs::path& b, Differences& differences)
{
    Package left(a);
    Package right(b);
    for (const Package::Entry& entry : left.entries()) {
        const Source source = left.open(entry.path);
        const Source other = right.open(entry.path);
        if (source && other) {
            compareBytes("/" + entry.path, watched(source, entry.size, entry.path), other, differences);
        }
    }
}

// ---- Both together ----

Differences compare(const DiffOptions& options, const Inspection& a, const Inspection& b)
{
    Differences differences;
    if (!firstDifference(sourceOf(options.a.file), sourceOf(options.b.file))) {
        return differences;
    }
    if (a.kind != b.kind) {
        add("kind", a.kind, b.kind, a.kind, b.kind, differences);
        return differences;
    }
    compareFacts(a, b, differences);
    if (a.kind == kPackageKind) {
        compareFilesInside(options.a.file, options.b.file, differences);
    }
    if (differences.empty() || a.kind == kUnknownKind) {
        compareBytes("content", sourceOf(options.a.file), sourceOf(options.b.file), differences);
    }
    return differences;
}

void printForPeople(const DiffOptions& options, const std::string& kind, const Differences& differences)
{
    const std::string a = common::visible(options.a.file);
    const std::string b = common::visible(options.b.file);
    if (differences.empty()) {
        std::printf("%s and %s: the same bytes\n", a.c_str(), b.c_str());
        return;
    }
    std::printf("%s -> %s: %s\n", a.c_str(), b.c_str(), kind.c_str());
    for (const Difference& difference : differences) {
        std::printf("  %s: %s\n", common::visible(difference.what).c_str(),
                    common::visible(difference.text).c_str());
    }
}

void printForPrograms(const DiffOptions& options, const Differences& differences)
{
    Json::Value root;
    root["a"] = options.a.file;
    root["b"] = options.b.file;
    root["same"] = differences.empty();
    root["differences"] = Json::arrayValue;
    for (const Difference& difference : differences) {
        Json::Value entry = difference.details;
        entry["what"] = difference.what;
        root["differences"].append(entry);
    }
    std::puts(common::indentedJson(root).c_str());
}

int diff(const DiffOptions& options)
try {
    const Inspection a = inspectFile(options.a);
    const Inspection b = inspectFile(options.b);
    const Differences differences = common::readToTheEnd([&] { return compare(options, a, b); });
    if (options.json) {
        printForPrograms(options, differences);
    } else {
        printForPeople(options, a.kind == b.kind ? a.kind : "two kinds of file", differences);
    }
    return differences.empty() ? 0 : 1;
} catch (const std::exception& error) {
    // 1 says that they differ, as with diff(1)
    throw common::CommandError(common::kStatusWrongUse, common::plainWords(error));
}
} // namespace

void defineDiff(common::CommandLine& command)
{
    auto options = std::make_shared<DiffOptions>();
    command.text("A", options->a.file, "A file, usually the older one").required();
    command.text("B", options->b.file, "Another of the same kind").required();
    command.text("--key-file", options->a.keyFile,
                 "Content key of two encrypted images: compares what is inside");
    command.flag("--json", options->json, "Print JSON");
    command.footer("Compares what \"fwmod inspect\" tells, and the content. Bytes are counted from 1.\n"
                   "Exit status: 0 the same bytes, 1 different, 2 wrong use, or a file that cannot be read.\n"
                   "Examples:\n"
                   "  fwmod diff images/1.0/empTuner.img images/1.1/empTuner.img\n"
                   "  fwmod diff --key-file content.key old/Tuner.bin new/Tuner.bin");
    command.onRun([options] {
        options->b.keyFile = options->a.keyFile;
        return diff(*options);
    });
}
} // namespace fwmod
