// doUpdate_decryption: data that cannot be right, and the offered image.
#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <vector>

#include "common/files/whole-file.h"
#include "tools/fwmod/check/examiner/faulty-writes.h"
#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/updates/updating.h"

namespace fwmod::examiner
{

namespace
{
struct Data {
    std::string what;
    std::string bytes;
    int length;
    bool isImpossible; // else only to be survived
};

std::vector<Data> impossibleData(const Job& job)
{
    std::vector<Data> all = {{"64 bytes too few", "", -64, true},
                             {"one byte too few", "", -1, true},
                             {"the least of all lengths", "", std::numeric_limits<int>::min(), true},
                             {"no data", "", 0, true},
                             {"one byte", noise(1), 1, true},
                             {"noise", noise(4096), 4096, true}};
    if (!job.hasImage()) {
        return all;
    }
    std::string image = common::readWhole(job.image);
    image.resize(image.size() / 2); // a size inside it points behind its end
    const int length = static_cast<int>(image.size());
    all.push_back({"the image's first half", std::move(image), length, false});
    return all;
}

// Whatever a crash is due to, with impossible data it is that; but reading behind given data is worse.
Finding explainDeath(const Session& session, const Data& data)
{
    const bool isUnsurvived = session.wasCrash && entryPointOf(session.lastCall) == "doUpdate_decryption" &&
                              data.isImpossible && !(session.wasGuardHit && data.length > 0);
    return isUnsurvived ? Finding{FindingId::ImpossibleDataAccepted, session.death->detail} : *session.death;
}

void tryData(Supervisor& supervisor, const Data& data, Report& report)
{
    constexpr int kTimes = 4;
    Machine machine;
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load() || !worker.has("doUpdate_decryption")) {
            return;
        }
        worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
        if (const auto version = worker.activeVersion("before a refused update")) {
            worker.tell("before", *version);
        }
        worker.repeat("doUpdate_decryption", data.isImpossible ? kTimes : 1, [&] {
            const auto returned = worker.decrypt(data.bytes, data.length, data.what);
            if (returned) {
                worker.tell("result", returned->result);
                worker.tell("error", returned->error);
            }
            return returned && returned->result != 0;
        });
        tellVersion(worker, "after a refused update");
    });
    const std::string what = "doUpdate_decryption(" + data.what + ")";
    for (const Finding& finding : session.findings) {
        if (finding.id != FindingId::QuestionFailed) {
            report.add(finding);
        }
    }
    if (session.death) {
        report.add(explainDeath(session, data));
    }
    if (session.death || !session.told.isMember("result") || !data.isImpossible) {
        return;
    }
    if (session.told["result"].asInt() == 0) {
        report.add({FindingId::ImpossibleDataAccepted, what + " returned 0"});
        return;
    }
    if (session.told["error"].asInt() == 0) {
        report.add({FindingId::SilentFailure,
                    what + " returned " + session.told["result"].asString() + " and left errno 0"});
    }
    judgeOldFirmware(supervisor, machine, session, what, report);
}

// Beginnings of the image, and its head with numbers that are too large: to be survived.
std::vector<std::string> oddData(const std::string& image)
{
    constexpr std::size_t kLengths[] = {2,  4,  8,   15,  16,  31,  32,  48,  63,
                                        64, 65, 100, 127, 128, 200, 256, 512, 1024};
    constexpr std::size_t kHead = 64;
    constexpr std::size_t kNumber = 4;
    std::vector<std::string> all;
    for (const std::size_t length : kLengths) {
        if (length < image.size()) {
            all.push_back(image.substr(0, length));
        }
    }
    for (std::size_t at = 0; at + kNumber <= std::min(kHead, image.size()); at += kNumber) {
        std::string changed = image.substr(0, std::min<std::size_t>(image.size(), 65536));
        changed.replace(at, kNumber, kNumber, '\xff');
        all.push_back(std::move(changed));
    }
    return all;
}

void tryOddData(Supervisor& supervisor, Report& report)
{
    Machine machine;
    const std::string image = common::readWhole(supervisor.job().image);
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load() || !worker.has("doUpdate_decryption")) {
            return;
        }
        const HardwareCopy original;
        worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
        for (const std::string& data : oddData(image)) {
            const std::string what = data.size() < 65 || data.compare(0, 64, image, 0, 64) == 0
                                         ? "the image's first " + std::to_string(data.size()) + " bytes"
                                         : "the image with a large number in its head";
            const auto returned = worker.decrypt(data, static_cast<int>(data.size()), what);
            if (!returned) {
                return;
            }
            requireCause(worker, returned, "doUpdate_decryption(" + what + ")");
            if (returned->result == 0) {
                original.putBack();
            }
        }
    });
    report.add(session.findings);
    if (session.death) {
        report.add(*session.death);
    }
}

constexpr const char* kSpoiltInMemory = "the image, of which a byte is written wrong";

// Whether a write that goes wrong is noticed here, too: in the middle, and the last one.
void decryptOnWornHardware(Worker& worker, const std::string& image)
{
    const Job& job = worker.job();
    if (job.faults.middleWrite == 0) {
        return;
    }
    const HardwareCopy original;
    bool isUnnoticed = false;
    for (const unsigned int write : {job.faults.middleWrite, job.faults.endWrite}) {
        worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
        const auto returned = worker.decryptWithSpoiltWrite(write, image, kSpoiltInMemory);
        requireCause(worker, returned, std::string("doUpdate_decryption(") + kSpoiltInMemory + ")");
        isUnnoticed = isUnnoticed || (returned && returned->result == 0 && job.holding.isKnown() &&
                                      !isHeld("/", image, job.holding));
        original.putBack();
    }
    worker.tell("unnoticed", isUnnoticed);
}

void decryptTwice(Worker& worker, const std::string& image)
{
    if (!worker.load() || !worker.has("doUpdate_decryption")) {
        return;
    }
    decryptOnWornHardware(worker, image);
    worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
    tellReturned(worker, "update", worker.decrypt(image, static_cast<int>(image.size()), "the image"));
    tellVersion(worker, "after an update from memory");
}

// Of the session's last update alone.
Writes lastOf(const Writes& all)
{
    Writes last;
    std::copy_if(all.all.begin(), all.all.end(), std::back_inserter(last.all),
                 [&](const SeenWrite& write) { return write.update == all.all.back().update; });
    return last;
}

// The same bytes as in the file must come to the same.
void updateFromMemory(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable) {
        return;
    }
    Machine machine;
    const std::string image = imageOf(job);
    const Session session =
        supervisor.run(machine, [&](Worker& worker) { decryptTwice(worker, image); }, {true});
    report.add(session.findings);
    const Json::Value& told = session.told;
    const std::string call = "doUpdate_decryption(the image)";
    if (session.death) {
        report.add(*session.death);
    }
    if (session.death || !told.isMember("update")) {
        return;
    }
    if (told["unnoticed"].asBool() && session.spoilt) {
        report.add(
            {FindingId::NotReadBack, std::string("doUpdate_decryption(") + kSpoiltInMemory + ") returned 0"});
    }
    const int error = told["updateError"].asInt();
    if (told["update"].asInt() != 0) {
        const bool isLeftOut = error == ENOTSUP || error == ENOSYS; // it says that it does not do this
        if (session.spoilt) { // it has begun to write the same image before
            report.add({FindingId::NoUpdateAfterRefusal,
                        call + " after one in which a write went wrong" + describe(told, "update")});
        } else if (!isLeftOut) {
            report.add({FindingId::MemoryImageRefused, call + describe(told, "update")});
        }
    } else if (told.isMember("version") && told["version"].asString() != job.versionAfter) {
        report.add({FindingId::ImageNotWritten,
                    call + " returned 0, and getActiveVersion told " + quote(told["version"].asString())});
    } else if (job.holding.isKnown() && !isHeld(machine, image, job.holding)) {
        report.add(
            {FindingId::ImageNotWritten, call + " returned 0, and the hardware does not hold the image"});
    } else {
        const std::string where = "in doUpdate_decryption ";
        const Writes writes = lastOf(session.writes);
        Report flushes;
        judgeFlushes(writes, machine, flushes);
        for (const auto& [id, details] : flushes.findings) {
            report.add({id, where + details.front()});
        }
        if (flushes.findings.empty() && !report.has(FindingId::LastNotFlushed)) {
            judgeEnd(supervisor, machine, writes, told["version"].asString(), where, report);
        }
    }
}
} // namespace

void refuseData(Supervisor& supervisor, Report& report)
{
    if (supervisor.job().isExternal) {
        return;
    }
    for (const Data& data : impossibleData(supervisor.job())) {
        tryData(supervisor, data, report);
    }
    if (supervisor.job().hasImage()) {
        tryOddData(supervisor, report);
        updateFromMemory(supervisor, report);
    }
}
} // namespace fwmod::examiner
