#include "vset/launcher/life-record.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "common/json-text.h"
#include "vset/launcher/set-directory.h"
#include "vset/television/set-life.h"

namespace vset
{

LifeRecord::LifeRecord(const fs::path& set)
    : file_(openOwnFile(set / kLifeFile, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND))
{
}

void LifeRecord::boot(int64_t logStart) const
{
    Json::Value record;
    record["log"] = static_cast<Json::Int64>(logStart);
    write("boot", std::move(record));
}

void LifeRecord::up(bool isCommand) const
{
    Json::Value record;
    record["command"] = isCommand;
    write("up", std::move(record));
}

void LifeRecord::daemonEnded(int waitStatus) const
{
    Json::Value record;
    record["status"] = shellStatus(waitStatus);
    if (WIFSIGNALED(waitStatus)) {
        record["signal"] = WTERMSIG(waitStatus);
    }
    write("ended", std::move(record));
}

void LifeRecord::writes(unsigned int count) const
{
    Json::Value record;
    record["count"] = count;
    write("writes", std::move(record));
}

void LifeRecord::cut(unsigned int number, const HardwareWrite& write) const
{
    Json::Value record;
    record["write"] = number;
    record["call"] = write.call;
    record["path"] = write.path;
    this->write("cut", std::move(record));
}

void LifeRecord::off(int status) const
{
    Json::Value record;
    record["status"] = status;
    write("off", std::move(record));
}

// A disk that is full is no reason to end the set: who reads it then waits in vain, and says so.
void LifeRecord::write(const char* event, Json::Value record) const
{
    record["event"] = event;
    const std::string line = common::compactJson(record) + "\n";
    (void)!::write(file_.get(), line.data(), line.size());
}

} // namespace vset
