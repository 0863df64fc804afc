#include "vset/television/set-life.h"

#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#include "common/json-text.h"

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
    std::ifstream in(set / kLifeFile);
    for (std::string line; std::getline(in, line) && !in.eof();) {
        if (const std::optional<Json::Value> record = common::parseJsonObject(line)) {
            take(*record, life);
        }
    }
    return life;
}

bool isOn(const std::filesystem::path& set)
{
    const int lock = open((set / kLockFile).c_str(), O_RDONLY | O_CLOEXEC);
    if (lock < 0) {
        return false;
    }
    const bool isFree = flock(lock, LOCK_SH | LOCK_NB) == 0; // given back with the descriptor
    close(lock);
    return !isFree;
}

} // namespace vset
