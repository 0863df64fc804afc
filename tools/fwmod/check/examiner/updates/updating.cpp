#include "tools/fwmod/check/examiner/updates/updating.h"

#include <cstdio>

#include "tools/fwmod/check/examiner/questions.h"

namespace fwmod::examiner
{

std::string inSeconds(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

Worker::Update soundUpdate(const Worker& worker)
{
    return {worker.job().image, worker.job().checksum, false, ""};
}

std::string describeUpdate(const Session& session)
{
    return "doUpdate returned " + session.told["result"].asString() +
           ", errno: " + errorName(session.told["error"].asInt());
}

void tellReturned(Worker& worker, const std::string& key, const std::optional<Returned>& returned)
{
    if (!returned) {
        return;
    }
    worker.tell(key, returned->result);
    worker.tell(key + "Error", returned->error);
}

std::string describe(const Json::Value& told, const std::string& key)
{
    return " returned " + told[key].asString() + ", errno: " + errorName(told[key + "Error"].asInt());
}

void requireCause(Worker& worker, const std::optional<Returned>& returned, const std::string& what)
{
    if (returned && returned->result != 0 && returned->error == 0) {
        worker.found(FindingId::SilentFailure,
                     what + " returned " + std::to_string(returned->result) + " and left errno 0");
    }
}

Told tellVersion(Worker& worker, const std::string& where)
{
    Told told;
    worker.setContext(worker.job().caller, "", where);
    told.version = worker.activeVersion(where);
    if (told.version) {
        worker.tell("version", *told.version);
    }
    if (!worker.job().version) {
        return told;
    }
    const auto verdict = worker.checkVersion(*worker.job().version, where);
    if (verdict && verdict->result == 0) {
        told.verdict = verdict->verdict;
        worker.tell("verdict", verdict->verdict);
    }
    return told;
}

void look(Worker& worker)
{
    worker.tell("loaded", worker.load());
    const auto version = tellVersion(worker, "after the update and a new start").version;
    if (version && version == worker.job().version) {
        askAboutOrder(worker, *version);
    }
}

Session lookAgain(Supervisor& supervisor, Machine& machine)
{
    return supervisor.run(machine, look);
}

void judgeOldFirmware(Supervisor& supervisor, Machine& machine, const Session& session,
                      const std::string& what, Report& report)
{
    const std::string before = session.told["before"].asString();
    if (before.empty() || !supervisor.job().isVersionTold || session.death) {
        return;
    }
    const Session again = lookAgain(supervisor, machine);
    for (const Session* look : {&session, &again}) {
        if (!look->told.isMember("version") || look->told["version"].asString() != before) {
            report.add(
                {FindingId::OldFirmwareGone,
                 "after " + what + ", the version is " +
                     (look->told.isMember("version") ? quote(look->told["version"].asString()) : "not told") +
                     " instead of " + quote(before)});
            return;
        }
    }
}
} // namespace fwmod::examiner
