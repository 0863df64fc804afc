// fwctl list [--json]
#include "command.h"
#include "examination.h"
#include "isolated.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace
{
using Row = std::vector<std::string>;
const Row kHeader = {"MODULE", "KIND", "INSTALLED", "PACKAGE", "SYSTEM", "PENDING", "IMAGE"};

const Json::Value* findSource(const Json::Value& module, const std::string& name)
{
    for (const Json::Value& source : module["sources"]) {
        if (source["source"] == name)
            return &source;
    }
    return nullptr;
}

// The version that a source offers; "?" for an image whose version cannot be told.
std::string offered(const Json::Value& module, const std::string& name)
{
    const Json::Value* source = findSource(module, name);
    if (source == nullptr)
        return "-";
    if (!(*source)["offered"].isNull())
        return (*source)["offered"].asString();
    const std::string test = failedStep(*source)["test"].asString();
    return test == "information" ? "?" : "-";
}

std::string pending(const Json::Value& module)
{
    if (module.isMember("failure"))
        return "broken";
    if (!module["pending"].asBool())
        return "no";
    return module["ui_use"] == "none" ? "at standby" : "on the screen";
}

// Where the image of the pending update is, or of the last one that was found.
std::string image(const Json::Value& module)
{
    std::string path = "-";
    for (const Json::Value& source : module["sources"]) {
        const bool isPending = module["pending"].asBool() && source["source"] == module["pending_source"];
        const std::string found =
            source["source"] == "package" ? module["package"].asString() : source["image"].asString();
        if (isPending)
            return found;
        if (!source["offered"].isNull())
            path = found;
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

void print(const std::vector<Row>& rows)
{
    std::vector<std::size_t> widths(kHeader.size());
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column)
            line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        std::printf("%s\n", line.c_str());
    }
}

int list(bool json)
{
    Json::Value modules(Json::arrayValue);
    std::vector<Row> rows{kHeader};
    for (const ControlLibrary& library : findControlLibraries()) {
        const Json::Value module = examine(library);
        if (module.isMember("failure"))
            std::fprintf(stderr, "fwctl: %s: %s\n", library.name.c_str(), module["failure"].asCString());
        modules.append(module);
        rows.push_back(rowOf(module));
    }
    if (json)
        std::printf("%s\n", toJson(modules).c_str());
    else
        print(rows);
    if (modules.empty())
        std::fprintf(stderr, "fwctl: this set has no module: \"fwctl doctor\" looks for the reason\n");
    return kDone;
}
} // namespace

void defineList(common::CommandLine& command)
{
    auto json = std::make_shared<bool>(false);
    command.flag("--json", *json, "For a program: one JSON array");
    command.footer("Changes nothing on the set: nothing is mounted, written or logged.\n"
                   "PACKAGE and SYSTEM are the versions offered by the package and by the system image.\n"
                   "Examples:\n"
                   "  fwctl list\n"
                   "  fwctl list --json | jq '.[] | select(.pending) | .module'");
    command.onRun([json] { return list(*json); });
}
