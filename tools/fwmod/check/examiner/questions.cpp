#include "tools/fwmod/check/examiner/questions.h"

#include <algorithm>
#include <thread>

#include "tools/fwmod/check/examiner/worker.h"

namespace fwmod::examiner
{

namespace
{
constexpr int kTimes = 8;
constexpr int kCallers = 8; // 0 to 7

bool isIdentifier(const std::string& text)
{
    const auto isAllowed = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    return std::all_of(text.begin(), text.end(), isAllowed) && text.find("emp") != std::string::npos &&
           text != "emp";
}

// Sees that a text stays the same, however often it is asked for.
class SameText
{
public:
    SameText(const Worker& worker, std::string call) : worker_(worker), call_(std::move(call)) {}
    void take(const std::string& text, const std::string& where)
    {
        if (first_ && *first_ != text) {
            worker_.found(FindingId::ChangingAnswer,
                          call_ + where + " told " + quote(text) + " after " + quote(*first_));
        }
        if (!first_) {
            first_ = text;
        }
    }
    const std::optional<std::string>& text() const { return first_; }

private:
    const Worker& worker_;
    std::string call_;
    std::optional<std::string> first_;
};

void askIdentifier(Worker& worker, SameText& identifier)
{
    worker.repeat("getEMPID", kTimes, [&] {
        const auto text = worker.identifier();
        if (text) {
            identifier.take(*text, "");
        }
        return text.has_value();
    });
    if (!identifier.text()) {
        return;
    }
    if (isIdentifier(*identifier.text())) {
        worker.tell("identifier", *identifier.text());
    } else {
        worker.found(FindingId::BadIdentifier, "getEMPID told " + quote(*identifier.text()));
    }
}

void askVersion(Worker& worker, SameText& version)
{
    worker.repeat("getActiveVersion", kTimes, [&] {
        const auto text = worker.activeVersion();
        if (text) {
            version.take(*text, "");
        }
        return text.has_value();
    });
    worker.tell("version", version.text().value_or(""));
}

void complainOfNoVerdict(const Worker& worker, const std::string& version, int result)
{
    worker.found(FindingId::QuestionFailed,
                 "checkVersion(" + quote(version) + ") returned " + std::to_string(result));
}

void askAboutInstalled(Worker& worker, const std::string& version)
{
    worker.repeat("checkVersion", kTimes, [&] {
        const auto verdict = worker.checkVersion(version);
        if (verdict && verdict->result != 0) {
            complainOfNoVerdict(worker, version, verdict->result);
        }
        if (verdict && verdict->verdict >= TARNWICK_CONTROL_VERDICT_NEWER) {
            worker.found(FindingId::InstalledIsNewer, "checkVersion(" + quote(version) + ") wrote " +
                                                          std::to_string(verdict->verdict) +
                                                          ", and that version is installed");
        }
        return verdict && verdict->result == 0;
    });
}

void askAboutOffered(Worker& worker, const std::string& installed)
{
    const std::string& offered = *worker.job().version;
    const auto verdict = worker.checkVersion(offered);
    if (!verdict) {
        return;
    }
    if (verdict->result != 0) {
        return complainOfNoVerdict(worker, offered, verdict->result);
    }
    const bool isNewer = verdict->verdict >= TARNWICK_CONTROL_VERDICT_NEWER;
    worker.tell("newer", isNewer);
    if (!isNewer) {
        worker.found(FindingId::OfferNotNewer, "checkVersion(" + quote(offered) + ") wrote " +
                                                   std::to_string(verdict->verdict) +
                                                   ", and the installed version is " + quote(installed));
    }
}

void askAboutNonsense(Worker& worker)
{
    for (const std::string& nonsense :
         {std::string(), std::string("?"), std::string("no version"), std::string(5000, 'x')}) {
        const auto verdict = worker.checkVersion(nonsense);
        if (verdict && verdict->result == 0 && verdict->verdict >= TARNWICK_CONTROL_VERDICT_NEWER) {
            worker.found(FindingId::NonsenseAccepted,
                         "checkVersion(" + quote(nonsense) + ") wrote " + std::to_string(verdict->verdict));
        }
    }
    worker.checkVersion(std::string(5000, '9')); // may be a version; to be survived
    const std::string nonsense = "no version";
    worker.repeat("checkVersion(" + quote(nonsense) + ")", kTimes,
                  [&] { return worker.checkVersion(nonsense).has_value(); });
}

void askOptional(Worker& worker)
{
    if (worker.has("getExpectedTime")) {
        worker.repeat("getExpectedTime", kTimes, [&] {
            const auto seconds = worker.expectedTime();
            if (seconds && *seconds < 1) {
                worker.found(FindingId::UselessExpectedTime,
                             "getExpectedTime told " + std::to_string(*seconds));
            }
            return seconds.has_value();
        });
    }
    if (worker.has("getUpdateProgress")) {
        worker.repeat("getUpdateProgress", kTimes, [&] {
            const auto percent = worker.progress();
            if (percent && *percent > 0 && *percent <= 100) {
                worker.found(FindingId::EarlyProgress, "getUpdateProgress told " + std::to_string(*percent));
            }
            return percent.has_value();
        });
    }
    if (worker.has("allUpdateDone")) {
        worker.repeat("allUpdateDone", kTimes, [&] {
            worker.allUpdateDone();
            return true;
        });
    }
}

// Every value that the interface allows, also the ones that a set seldom uses.
void setEveryContext(Worker& worker)
{
    worker.repeat("setContext", kTimes, [&] { return worker.setContext(worker.job().caller, ""); });
    for (int caller = 0; caller < kCallers; ++caller) {
        worker.setContext(caller, "");
        worker.setContext(caller, nullptr);
    }
    worker.setContext(1, "USB");
    worker.setContext(worker.job().caller, "");
}

void askOnAnotherThread(Worker& worker, SameText& identifier, SameText& version)
{
    std::thread([&] {
        const CallingThread self(0);
        const std::string where = "on another thread";
        worker.setContext(worker.job().caller, "", where);
        if (!worker.job().isExternal) {
            if (const auto text = worker.identifier(where)) {
                identifier.take(*text, " " + where);
            }
        }
        if (const auto text = worker.activeVersion(where)) {
            version.take(*text, " " + where);
        }
        if (version.text()) {
            worker.checkVersion(*version.text(), where);
        }
        if (worker.has("getUpdateProgress")) {
            worker.progress(where);
        }
        if (worker.has("allUpdateDone")) {
            worker.allUpdateDone(where);
        }
    }).join();
}

void askEverything(Worker& worker)
{
    const bool isLoaded = worker.load();
    worker.tell("loaded", isLoaded);
    if (!isLoaded) {
        return;
    }
    if (!worker.has("getUpdateProgress") && !worker.isFlawed("getUpdateProgress")) {
        worker.tell("noProgress", true);
    }
    worker.setContext(worker.job().caller, "");
    SameText identifier(worker, "getEMPID");
    SameText version(worker, "getActiveVersion");
    if (!worker.job().isExternal) {
        askIdentifier(worker, identifier);
    }
    askVersion(worker, version);
    if (version.text()) {
        askAboutInstalled(worker, *version.text());
    }
    if (worker.job().version) {
        askAboutOffered(worker, version.text().value_or("unknown"));
    }
    askAboutNonsense(worker);
    askOptional(worker);
    askOnAnotherThread(worker, identifier, version);
    setEveryContext(worker);
}
} // namespace

Answers askQuestions(Supervisor& supervisor, Report& report)
{
    constexpr int kMostSessions = 12; // each but the last one ended by another call
    Answers answers;
    for (int sessions = 0; sessions < kMostSessions; ++sessions) {
        Machine machine;
        const Session session = supervisor.run(machine, askEverything, {true, 0});
        report.add(session.findings);
        if (session.told["noProgress"].asBool() && sessions == 0) {
            report.notes.emplace_back("There is no getUpdateProgress, so the viewer sees no bar.");
        }
        answers.isLoaded = answers.isLoaded || session.told["loaded"].asBool();
        if (session.told.isMember("version")) {
            answers.version = session.told["version"].asString();
        }
        if (session.told.isMember("identifier")) {
            answers.identifier = session.told["identifier"].asString();
        }
        if (session.told.isMember("newer")) {
            answers.isNewer = session.told["newer"].asBool();
        }
        if (!session.death) {
            break;
        }
        report.add(*session.death);
        supervisor.avoid(session);
        if (!session.told.isMember("loaded") || session.lastCall.empty()) {
            break; // nothing that could be left out
        }
    }
    return answers;
}
} // namespace fwmod::examiner
