#include "vset/launcher/life-record.h"

#include <fcntl.h>
#include <unistd.h>

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
    write("boot", "log", logStart);
}

void LifeRecord::up() const
{
    write("up");
}

void LifeRecord::daemonEnded(int status) const
{
    write("ended", "status", status);
}

void LifeRecord::off(int status) const
{
    write("off", "status", status);
}

// A disk that is full is no reason to end the set: who reads it then waits in vain, and says so.
void LifeRecord::write(const char* event, const char* name, int64_t value) const
{
    Json::Value record;
    record["event"] = event;
    if (name != nullptr) {
        record[name] = static_cast<Json::Int64>(value);
    }
    const std::string line = common::compactJson(record) + "\n";
    (void)!::write(file_.get(), line.data(), line.size());
}

} // namespace vset
