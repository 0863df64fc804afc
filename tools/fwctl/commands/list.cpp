// fwctl list [--json]
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/obstacles.h"
#include "tools/fwctl/output.h"

namespace fwctl
{

namespace
{
using Row = std::vector<std::string>;
const Row kHeader = {"MODULE", "KIND", "INSTALLED", "PACKAGE", "SYSTEM", "PENDING", "IMAGE"};

const Json::Value* findSource(const Json::Value& module, const std::string& name)
{
    for (const Json::Value& source : module["sources"]) {
        if (source["source"] == name) {
            return &source;
        }
    }
    return nullptr;
}

// The version that a source offers; "?" for an image whose version cannot be told.
std::string offered(const Json::Value& module, const std::string& name)
{
    const Json::Value* source = findSource(module, name);
    if (source == nullptr) {
        return "-";
    }
    if (!(*source)["offered"].isNull()) {
        return (*source)["offered"].asString();
    }
    const std::string test = failedStep(*source)["test"].asString();
    return test == "information" ? "?" : "-";
}

std::string pending(const Json::Value& module)
{
    if (module.isMember("failure")) {
        return "broken";
    }
    if (!module["pending"].asBool()) {
        return "no";
    }
    return module["ui_use"] == "none" ? "at standby" : "on the screen";
}

// Where the image of the pending update is, or of the last one that was found.
std::string image(const Json::Value& module)
{
    std::string path = "-";
    for (const Json::Value& source : module["sources"]) {
        const bool isPending = module["pending"].asBool() && source["source"] == module["pending_source"];
        std::string found =
            source["source"] == "package" ? module["package"].asString() : source["image"].asString();
        if (isPending) {
            return found;
        }
        if (!source["offered"].isNull()) {
            path = found;
        }
    }
    return path;
}

Row rowOf(const Json::Value& module)
{
    const Json::Value& installed = module["installed"];
    return {module["module"].asString(),
            module["kind"].asString(),
            installed.isNull() ? "?" : installed.asString(),
            offered(module, "package"),
            offered(module, "system"),
            pending(module),
            image(module)};
}

void print(std::vector<Row> rows)
{
    std::vector<std::size_t> widths(kHeader.size());
    for (Row& row : rows) {
        for (std::string& cell : row) {
            cell = common::visible(cell);
        }
    }
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::printf("%s\n", line.c_str());
    }
}

// What stands in the way of the pending ones just now, and of which.
void printObstacles(const std::vector<Json::Value>& modules)
{
    std::vector<std::string> told;
    std::map<std::string, std::string> names; // by sentence
    for (const Json::Value& module : modules) {
        for (const Json::Value& sentence : module["obstacles"]) {
            std::string& list = names[sentence.asString()];
            if (list.empty()) {
                told.push_back(sentence.asString());
            }
            list += (list.empty() ? "" : ", ") + module["module"].asString();
        }
    }
    for (const std::string& sentence : told) {
        printLine("but " + names[sentence] + ": " + sentence);
    }
}

int list(bool json)
{
    std::vector<Json::Value> modules = examineAll(findControlLibraries());
    complainAboutLeftBehind(modules);
    addObstacles(modules);
    Json::Value all(Json::arrayValue);
    std::vector<Row> rows{kHeader};
    for (const Json::Value& module : modules) {
        if (module.isMember("failure")) {
            complain(module["module"].asString() + ": " + module["failure"].asString());
        }
        all.append(module);
        rows.push_back(rowOf(module));
    }
    if (json) {
        std::printf("%s\n", common::compactJson(all).c_str());
    } else {
        print(rows);
        printObstacles(modules);
    }
    if (modules.empty()) {
        complain("this set has no module: \"fwctl doctor\" looks for the reason");
    }
    return kDone;
}
} // namespace

void defineList(common::CommandLine& command)
{
    auto json = std::make_shared<bool>(false);
    command.flag("--json", *json, "For a program: one JSON array");
    command.footer(
        "Changes nothing on the set: nothing is mounted, written or logged.\n"
        "PACKAGE and SYSTEM are the versions offered by the package and by the system image; "
        "a line below says\n"
        "what keeps a pending module from being updated now. Exit status: 0, also with broken modules.\n"
        "Examples:\n"
        "  fwctl list\n"
        "  fwctl list --json");
    command.onRun([json] { return list(*json); });
}

} // namespace fwctl
