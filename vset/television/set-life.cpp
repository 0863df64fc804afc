#include "vset/television/set-life.h"

#include <sstream>
#include <string>
#include <sys/file.h>

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

void take(const Json::Value& record, SetLife& life)
{
    const std::string event = record["event"].isString() ? record["event"].asString() : "";
    if (event == "boot") {
        const Json::Value& start = record["log"];
        life.boots.push_back({start.isInt64() ? start.asInt64() : 0, false, std::nullopt});
    } else if (event == "off") {
        life.end = numberIn(record, "status");
    } else if (life.boots.empty()) {
        return;
    } else if (event == "up") {
        life.boots.back().isUp = true;
    } else if (event == "ended") {
        life.boots.back().daemonEnded = numberIn(record, "status");
    }
}

} // namespace

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

bool isOn(const std::filesystem::path& set)
{
    const std::unique_ptr<common::RegularFile> lock = openSetFile(set / kLockFile);
    return lock != nullptr && flock(lock->descriptor(), LOCK_SH | LOCK_NB) != 0; // given back with the object
}

} // namespace vset
