#include "vset/television/set-life.h"

#include <sstream>
#include <string>

#include "common/json-text.h"
#include "vset/client/set-file.h"

namespace vset
{

namespace
{

int numberIn(const Json::Value& record, const char* name)
{
    const Json::Value& number = record[name];
    return number.isInt() ? number.asInt() : 0;
}

std::string textIn(const Json::Value& record, const char* name)
{
    return record[name].isString() ? record[name].asString() : "";
}

void takeOfBoot(const std::string& event, const Json::Value& record, Boot& boot)
{
    if (event == "up") {
        boot.isUp = true;
        boot.isCommand = record["command"] == true;
    } else if (event == "ended") {
        boot.daemonEnded = numberIn(record, "status");
        boot.isBySignal = record.isMember("signal");
    } else if (event == "writes") {
        boot.writes = static_cast<unsigned int>(numberIn(record, "count"));
    } else if (event == "cut") {
        boot.cut = {static_cast<unsigned int>(numberIn(record, "write")), textIn(record, "call"),
                    textIn(record, "path")};
    }
}

void take(const Json::Value& record, SetLife& life)
{
    const std::string event = textIn(record, "event");
    if (event == "boot") {
        const Json::Value& start = record["log"];
        life.boots.emplace_back().logStart = start.isInt64() ? start.asInt64() : 0;
    } else if (event == "off") {
        life.end = numberIn(record, "status");
    } else if (!life.boots.empty()) {
        takeOfBoot(event, record, life.boots.back());
    }
}

} // namespace

const char* nameOfMain(const Boot& boot)
{
    return boot.isCommand ? "command" : "daemon";
}

SetLife readLife(const std::filesystem::path& set)
{
    SetLife life;
    std::istringstream in(readSetFile(set / kLifeFile).value_or(""));
    for (std::string line; std::getline(in, line) && !in.eof();) {
        if (const std::optional<Json::Value> record = common::parseJsonObject(line)) {
            take(*record, life);
        }
    }
    return life;
}

} // namespace vset
