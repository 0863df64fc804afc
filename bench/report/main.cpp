// bench-report: makes a table, JSON, a picture and a part of a document of what the rows have measured.

#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>

#include "bench/report/picture.h"
#include "bench/report/results.h"
#include "bench/report/words.h"
#include "common/errors.h"
#include "common/files/whole-file.h"
#include "common/json-text.h"
#include "common/terminal/command-line.h"
#include "common/terminal/table.h"

namespace bench
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* kBegin = "<!-- measured: scripts/measure speed writes from here on -->\n";
constexpr const char* kEnd = "<!-- to here -->\n";
constexpr const char* kPicture = "![Times of the limit, as measured](";

struct Wanted {
    fs::path directory;
    std::optional<unsigned int> took; // seconds, the whole measuring
    fs::path json;
    fs::path picture;
    fs::path document;
};

void write(const fs::path& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw common::Failure(path.string() + ": cannot be written");
    }
}

// What it was measured on, and for how long.
std::vector<std::string> surroundings(const Wanted& wanted)
{
    std::vector<std::string> sentences = machine();
    if (wanted.took) {
        sentences.push_back("measured in " + std::to_string(*wanted.took / 60) + " min " +
                            std::to_string(*wanted.took % 60) + " s");
    }
    return sentences;
}

std::string row(const std::vector<std::string>& cells)
{
    std::string line = "|";
    for (const std::string& cell : cells) {
        line += " " + cell + " |";
    }
    return line + "\n";
}

// "17 of 19 goals met; missed: wake-ups, idle; fwmod check of the tuner": each row once, whatever it misses.
std::string goalsInShort(const Results& results)
{
    size_t met = 0;
    size_t all = 0;
    std::string missed;
    for (const Result& result : results.lines()) {
        bool isMissed = false;
        for (const Goal& goal : result.compared->goals) {
            const std::optional<bool> isReached = result.isReached(goal);
            all += isReached ? 1 : 0;
            met += isReached.value_or(false) ? 1 : 0;
            isMissed = isMissed || !isReached.value_or(true);
        }
        if (isMissed) {
            missed += (missed.empty() ? "; missed: " : "; ") + std::string(result.compared->title);
        }
    }
    return std::to_string(met) + " of " + std::to_string(all) + " goals met" + missed;
}

// `picture`: as the document names it; empty when there is none.
std::string markdownOf(const Results& results, const Wanted& wanted, const std::string& picture)
{
    std::string text = "Medians of " + std::to_string(results.runs()) + " alternating runs";
    for (const std::string& sentence : surroundings(wanted)) {
        text += "; " + sentence;
    }
    text += ". " + goalsInShort(results);
    text += ".\n\n" + row(headings()) + row({"---", "---:", "---", "---:", "---:", "---", "---:", "---"});
    for (const Result& result : results.lines()) {
        text += row(cellsOf(result));
    }
    return picture.empty() ? text : text + "\n" + kPicture + picture + ")\n";
}

// What stands between the two marks of a document.
struct Measured {
    size_t begin;
    size_t length;
};

Measured measuredIn(const fs::path& path, const std::string& content)
{
    const size_t begin = content.find(kBegin);
    const size_t end = content.find(kEnd);
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        throw common::Failure(path.string() + ": has no lines between which the table belongs, " +
                              std::string(kBegin, strlen(kBegin) - 1) + " and " +
                              std::string(kEnd, strlen(kEnd) - 1));
    }
    const size_t from = begin + strlen(kBegin);
    return {from, end - from};
}

// The picture that a part of a document shows, as it names it; empty when there is none.
std::string pictureIn(const std::string& part)
{
    const size_t begin = part.find(kPicture);
    if (begin == std::string::npos) {
        return "";
    }
    const size_t from = begin + strlen(kPicture);
    return part.substr(from, part.find(')', from) - from);
}

// A picture that the document shows keeps its place and name: where it is drawn today may be a place that
// nobody else has.
void putIntoDocument(const Results& results, const Wanted& wanted)
{
    std::string content = common::readWhole(wanted.document);
    const Measured old = measuredIn(wanted.document, content);
    const fs::path directory = fs::absolute(wanted.document).parent_path();
    std::string picture = pictureIn(content.substr(old.begin, old.length));
    if (picture.empty() && !wanted.picture.empty()) {
        picture = fs::absolute(wanted.picture).lexically_relative(directory).string();
    }
    write(wanted.document,
          content.replace(old.begin, old.length, "\n" + markdownOf(results, wanted, picture) + "\n"));
    const fs::path shown = (directory / picture).lexically_normal();
    if (!wanted.picture.empty() && shown != fs::absolute(wanted.picture).lexically_normal()) {
        fprintf(stderr, "%s shows %s: put %s there\n", wanted.document.c_str(), shown.c_str(),
                wanted.picture.c_str());
    }
}

void print(const Results& results, const Wanted& wanted)
{
    common::Table table(headings());
    for (const Result& result : results.lines()) {
        table.add(cellsOf(result));
    }
    table.print("nothing was measured");
    printf("\n%s\nMedians of %zu alternating runs\n", goalsInShort(results).c_str(), results.runs());
    for (const std::string& sentence : surroundings(wanted)) {
        printf("%s\n", sentence.c_str());
    }
}

void report(const Wanted& wanted)
{
    const Results results(wanted.directory);
    print(results, wanted);
    if (!wanted.json.empty()) {
        Json::Value all(Json::objectValue);
        for (const std::string& sentence : surroundings(wanted)) {
            all["machine"].append(sentence);
        }
        all["rows"] = results.json();
        write(wanted.json, common::indentedJson(all) + "\n");
    }
    if (!wanted.picture.empty()) {
        write(wanted.picture, pictureOf(results));
    }
    if (!wanted.document.empty()) {
        putIntoDocument(results, wanted);
    }
}

} // namespace

} // namespace bench

int main(int argc, char** argv)
{
    bench::Wanted wanted;
    common::CommandLine line("bench-report", "Shows what the rows of the table of speeds have measured");
    line.path("DIRECTORY", wanted.directory, "with ROW.json of each row, as ROW-bench writes it").required();
    line.number("--took", wanted.took, common::Range<unsigned int>{0, 1'000'000},
                "seconds that the measuring took, to be told");
    line.path("--json", wanted.json, "write every figure there, with its lowest and highest");
    line.path("--picture", wanted.picture, "draw it there, as SVG");
    line.path("--document", wanted.document,
              "put the table between its two marks there; the picture that it shows keeps its name");
    line.onRun([&] { bench::report(wanted); });
    return line.main(argc, argv);
}
