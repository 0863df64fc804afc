// What scripts of updates and their judgements share.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_UPDATES_UPDATING_H
#define TOOLS_FWMOD_CHECK_EXAMINER_UPDATES_UPDATING_H

#include <json/json.h>
#include <optional>
#include <string>

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/examiner/updates/updates.h"
#include "tools/fwmod/check/examiner/worker/worker.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

inline constexpr double kTooFast = 0.05; // seconds; the rule is 0.1, the rest is for the clock

// ---- For scripts ----

// With the offered image.
Worker::Update soundUpdate(const Worker& worker);

// Tells KEY, the result, and KEYError, its errno, when there is one.
void tellReturned(Worker& worker, const std::string& key, const std::optional<Returned>& returned);

// A refusal has to say why.
void requireCause(Worker& worker, const std::optional<Returned>& returned, const std::string& what);

// The library is loaded and asked for the version, after an update and a new start.
void look(Worker& worker);

// ---- For judgements ----

std::string inSeconds(double seconds);

// Of the session's last update.
std::string describeUpdate(const Session& session);

// What tellReturned() has told under this key.
std::string describe(const Json::Value& told, const std::string& key);

// look() on this hardware.
Session lookAgain(Supervisor& supervisor, Machine& machine);

// The old firmware must still be told, in the same process and after a new start.
void judgeOldFirmware(Supervisor& supervisor, Machine& machine, const Session& session,
                      const std::string& what, Report& report);

// ---- What an update has left behind (remains.cpp) ----

// The old hardware beside what the update has left: the new version is not in it.
void judgeNotes(Supervisor& supervisor, const Machine& machine, const std::string& version, Report& report);

// What no flush has followed may be lost when doUpdate has returned: a spare copy or a note, but not what the
// version is told of. `where`: for the report, of which update.
void judgeEnd(Supervisor& supervisor, const Machine& machine, const Writes& writes,
              const std::string& version, const std::string& where, Report& report);

} // namespace fwmod::examiner

#endif
