#include "tools/fwmod/check/examiner/questions.h"

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <thread>
#include <vector>

#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

namespace
{
constexpr int kTimesEach = 8;
constexpr std::size_t kLongContext = 300; // characters
constexpr int kFirstUnknownCaller = -1;
constexpr int kLastUnknownCaller = 8; // 0 to 7 are used
constexpr const char* kDigits = "0123456789";
constexpr unsigned int kMostOctal = 9;    // what a leading zero makes less than 10 of
constexpr std::size_t kLongVersion = 100; // characters: more than a careless buffer has

bool isIdentifier(const std::string& text)
{
    const auto isAllowed = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    return std::all_of(text.begin(), text.end(), isAllowed) && text.find("emp") != std::string::npos &&
           text != "emp";
}

// "1.10" of "1.10 (build 4711)".
std::string numbersIn(const std::string& version)
{
    std::string numbers = version.substr(0, version.find_first_not_of(std::string(kDigits) + "."));
    while (!numbers.empty() && numbers.back() == '.') {
        numbers.pop_back();
    }
    return numbers;
}

// Nothing for a text that is not numbers with single dots between them, or has numbers of more than three
// digits.
std::optional<std::vector<unsigned int>> partsOf(const std::string& version)
{
    constexpr std::size_t kMostDigits = 3;
    std::vector<unsigned int> parts;
    std::istringstream in(version);
    for (std::string part; std::getline(in, part, '.');) {
        const bool isNumber = part.find_first_not_of(kDigits) == std::string::npos;
        if (part.empty() || part.size() > kMostDigits || !isNumber) {
            return std::nullopt;
        }
        parts.push_back(static_cast<unsigned int>(std::stoul(part)));
    }
    return parts.empty() ? std::nullopt : std::optional(parts);
}

std::string versionOf(const std::vector<unsigned int>& parts)
{
    std::string version;
    for (const unsigned int part : parts) {
        version += (version.empty() ? "" : ".") + std::to_string(part);
    }
    return version;
}

struct Comparison {
    enum Form { kPlain, kLeadingZero, kLong, kLargeNumber, kOtherParts };
    std::string offered;
    bool isNewer; // than the installed version
    Form form = kPlain;
};

std::string headOf(const std::vector<unsigned int>& parts)
{
    const std::string head = versionOf({parts.begin(), parts.end() - 1});
    return head.empty() ? "" : head + ".";
}

// "1.3.0" and "1.1.99" beside "1.2.4".
void offerMiddleParts(const std::vector<unsigned int>& installed, std::vector<Comparison>& all)
{
    for (std::size_t at = 1; at + 1 < installed.size(); ++at) {
        std::vector<unsigned int> parts(installed.begin(), installed.end());
        std::fill(parts.begin() + static_cast<long>(at) + 1, parts.end(), 0);
        ++parts[at];
        all.push_back({versionOf(parts), true});
        if (installed[at] > 0) {
            parts[at] -= 2;
            std::fill(parts.begin() + static_cast<long>(at) + 1, parts.end(), 99);
            all.push_back({versionOf(parts), false});
        }
    }
}

// Numbers that are too large for a byte, two or four, or for their place in a sum; up to three numbers more
// than there are, and one alone. They may be refused.
void offerLargeNumbers(const std::vector<unsigned int>& installed, std::vector<Comparison>& all)
{
    constexpr std::uint64_t kByte = 256;
    const std::string head = headOf(installed);
    for (const std::uint64_t wrap : {kByte, kByte * kByte, kByte * kByte * kByte * kByte}) {
        all.push_back({head + std::to_string(wrap + installed.back()), true, Comparison::kLargeNumber});
    }
    for (const char* more : {".1", ".0.1", ".0.0.1"}) {
        all.push_back({versionOf(installed) + more, true, Comparison::kOtherParts});
    }
    all.push_back({std::to_string(installed.front() + 1), true, Comparison::kOtherParts});
    if (installed.size() < 2 || installed.front() == 0) {
        return;
    }
    std::vector<unsigned int> older(installed.size(), 0);
    older.front() = installed.front() - 1;
    older[1] = 999; // "0.999" beside "1.1"
    all.push_back({versionOf(older), false, Comparison::kLargeNumber});
}

// "1.09", and "1.010" beside "1.8": as octal numbers there is none, and 8.
void offerLeadingZeros(const std::vector<unsigned int>& installed, std::vector<Comparison>& all)
{
    const unsigned int last = installed.back();
    if (last <= kMostOctal) {
        all.push_back({headOf(installed) + (last < 8 ? "09" : "010"), true, Comparison::kLeadingZero});
        all.push_back({headOf(installed) + "0" + std::to_string(last), false, Comparison::kLeadingZero});
    }
}

// Offers that tell a comparison of numbers from one of texts, decimals, octal numbers, or each part by
// itself.
std::vector<Comparison> comparisonsWith(const std::vector<unsigned int>& installed)
{
    std::vector<Comparison> all;
    const auto offer = [&](const std::vector<unsigned int>& offered, bool isNewer) {
        all.push_back({versionOf(offered), isNewer});
    };
    std::vector<unsigned int> parts = installed;
    const unsigned int last = installed.back();
    unsigned int power = 10;
    while (power <= last) {
        power *= 10;
    }
    parts.back() = power; // "1.10" beside "1.9" and "1.1"
    offer(parts, true);
    if (last > 0) {
        parts.back() = last - 1;
        offer(parts, false);
    }
    if (installed.size() > 1) {
        parts.assign(installed.size(), 0);
        parts.front() = installed.front() + 1;
        offer(parts, true); // "2.0" beside "1.1"
        const std::string next = versionOf(parts);
        const std::size_t zeros = kLongVersion - std::min(kLongVersion, next.size());
        all.push_back({std::string(zeros, '0') + next, true, Comparison::kLong});
    }
    if (installed.size() > 1 && installed.front() > 0) {
        parts.assign(installed.size(), last + 1);
        parts.front() = installed.front() - 1;
        offer(parts, false); // "0.2" beside "1.1"
    }
    offerMiddleParts(installed, all);
    offerLargeNumbers(installed, all);
    offerLeadingZeros(installed, all);
    return all;
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
    worker.repeat("getEMPID", kTimesEach, [&] {
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
    worker.repeat("getActiveVersion", kTimesEach, [&] {
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

// Numbers as an image's version has them, and as many.
bool isOfOfferedForm(const std::string& version, const Job& job)
{
    const auto parts = partsOf(version);
    const auto offered = partsOf(job.version.value_or(version));
    return parts && offered && parts->size() == offered->size();
}

// The hardware's own text need not be one that an image could have; then it may be refused, but is not newer.
// False when it was refused and may not be.
bool askAboutInstalledOnce(Worker& worker, const std::string& version, const std::string& where)
{
    const bool isOrdinary = isOfOfferedForm(version, worker.job()) || worker.job().version == version;
    const std::string words = where.empty() ? "" : " " + where;
    const auto verdict = worker.checkVersion(version, where);
    if (verdict && verdict->result != 0 && isOrdinary) {
        worker.found(FindingId::QuestionFailed, "checkVersion(" + quote(version) + ")" + words +
                                                    " returned " + std::to_string(verdict->result));
    }
    if (verdict && verdict->verdict >= TARNWICK_CONTROL_VERDICT_NEWER) {
        worker.found(FindingId::InstalledIsNewer, "checkVersion(" + quote(version) + ")" + words + " wrote " +
                                                      std::to_string(verdict->verdict) +
                                                      ", and that version is installed");
    }
    return verdict && (verdict->result == 0 || !isOrdinary);
}

void askAboutInstalled(Worker& worker, const std::string& version)
{
    worker.repeat("checkVersion", kTimesEach, [&] { return askAboutInstalledOnce(worker, version, ""); });
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

// Texts that begin like a version. A number below 0 is a very large one to who does not mind the sign.
std::vector<std::string> nearlyVersions(const std::string& numbers)
{
    const std::string head = numbers.substr(0, numbers.rfind('.') + 1);
    return {numbers + "/../?", numbers + ".-1", numbers + ".+1", numbers + ". 1", head + "-9"};
}

// Versions that are understood, but for an x behind them: who copies a text into a buffer first may not see
// it.
void askAboutLongNonsense(Worker& worker, const std::string& numbers)
{
    constexpr std::size_t kLengths[] = {33, 70, 130, 260, 1000};
    for (const std::size_t length : kLengths) {
        const std::string zeros(length - std::min(length, numbers.size() + 1), '0');
        std::string longer = numbers;
        longer.append(".").append(zeros);
        for (const std::string& text : {longer, zeros + numbers}) {
            const auto sound = worker.checkVersion(text);
            const auto verdict = sound && sound->result == 0 ? worker.checkVersion(text + "x")
                                                             : std::optional<Worker::Verdict>();
            if (verdict && verdict->result == 0) {
                return worker.found(FindingId::NonsenseAccepted,
                                    "checkVersion(" + quote(text + "x") +
                                        "), of which the last one is an x, wrote " +
                                        std::to_string(verdict->verdict) + " and returned 0: it was cut");
            }
        }
    }
}

// Whether a letter at the end of a short one is minded.
bool isLetterMinded(Worker& worker, const std::string& version)
{
    const auto verdict = worker.checkVersion(version + "x");
    return verdict && verdict->result != 0;
}

void askAboutNonsense(Worker& worker, const std::string& installed)
{
    std::vector<std::string> all = {"", "?", "no version", std::string(5000, 'x')};
    const std::string numbers = numbersIn(worker.job().version.value_or(installed));
    if (!numbers.empty()) {
        const std::vector<std::string> nearly = nearlyVersions(numbers);
        all.insert(all.end(), nearly.begin(), nearly.end());
    }
    constexpr int kTwice = 2; // what each of them loses is to be seen
    worker.repeat("checkVersion of texts that are no versions", kTwice, [&] {
        for (const std::string& nonsense : all) {
            const auto verdict = worker.checkVersion(nonsense);
            if (verdict && verdict->result == 0) {
                worker.found(FindingId::NonsenseAccepted, "checkVersion(" + quote(nonsense) + ") wrote " +
                                                              std::to_string(verdict->verdict) +
                                                              " and returned 0");
            }
        }
        return true;
    });
    if (!numbers.empty() && isLetterMinded(worker, numbers) && isLetterMinded(worker, numbers + ".0")) {
        askAboutLongNonsense(worker, numbers);
    }
    const std::string nonsense = "no version";
    worker.repeat("checkVersion(" + quote(nonsense) + ")", kTimesEach,
                  [&] { return worker.checkVersion(nonsense).has_value(); });
    if (worker.isAnySuspect("checkVersion")) {
        return; // each of them would end a session
    }
    const std::string many(5000, '9');
    std::string two = many;
    two.append(".").append(many);
    for (const std::string& odd :
         {many, two, std::string("1."), std::string("."), std::string("1..1"), std::string("-1.0"),
          std::string("%s%s%n%n"), std::string("\x80\xff."),
          std::string("1.1.1.1.1.1.1.1.1.1.1.1.1.1.1.1.1.1.1.1"), std::string(64, 'v')}) {
        worker.checkVersion(odd); // may be a version; to be survived
    }
}

// There was no update yet.
bool askEarlyProgress(Worker& worker, const std::string& where)
{
    const auto percent = worker.progress(where);
    if (percent && *percent > 0 && *percent <= 100) {
        worker.found(FindingId::EarlyProgress, "getUpdateProgress" + (where.empty() ? "" : " " + where) +
                                                   " told " + std::to_string(*percent));
    }
    return percent.has_value();
}

void askOptional(Worker& worker)
{
    if (worker.has("getExpectedTime")) {
        worker.repeat("getExpectedTime", kTimesEach, [&] {
            const auto seconds = worker.expectedTime();
            if (seconds && *seconds < 1) {
                worker.found(FindingId::UselessExpectedTime,
                             "getExpectedTime told " + std::to_string(*seconds));
            }
            return seconds.has_value();
        });
    }
    if (worker.has("getUpdateProgress")) {
        worker.repeat("getUpdateProgress", kTimesEach, [&] { return askEarlyProgress(worker, ""); });
    }
    if (worker.has("allUpdateDone")) {
        worker.repeat("allUpdateDone", kTimesEach, [&] {
            worker.allUpdateDone();
            return true;
        });
    }
}

// Every value that the interface allows, also the ones that a set seldom uses.
void setEveryContext(Worker& worker)
{
    worker.repeat("setContext", kTimesEach, [&] { return worker.setContext(worker.job().caller, ""); });
    for (int caller = kFirstUnknownCaller; caller <= kLastUnknownCaller; ++caller) {
        worker.setContext(caller, "");
        worker.setContext(caller, nullptr);
    }
    worker.setContext(1, "USB");
    worker.setContext(worker.job().caller, std::string(kLongContext, 'x').c_str());
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
            askAboutInstalledOnce(worker, *version.text(), where);
        }
        if (worker.has("getUpdateProgress")) {
            askEarlyProgress(worker, worker.has("allUpdateDone") ? "after allUpdateDone" : where);
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
    if (version.text()) {
        askAboutOrder(worker, *version.text());
    }
    askAboutNonsense(worker, version.text().value_or(""));
    askOptional(worker);
    askOnAnotherThread(worker, identifier, version);
    setEveryContext(worker);
}

// Where the hardware's own version is of another form than the offered one, only the library can say what is
// newer: "1.09" is, when "1.9" is.
void askAboutLeadingZero(Worker& worker, const std::vector<unsigned int>& offered,
                         const std::string& installed)
{
    if (offered.back() > kMostOctal) {
        return;
    }
    const std::string number = offered.back() < 8 ? "9" : "10";
    const std::string plain = headOf(offered) + number;
    const std::string padded = headOf(offered) + "0" + number;
    const auto understood = worker.checkVersion(plain, "beside " + quote(installed));
    if (!understood || understood->result != 0 || understood->verdict <= 0) {
        return;
    }
    const auto verdict = worker.checkVersion(padded, "beside " + quote(installed));
    if (verdict && verdict->result != 0) {
        worker.found(FindingId::WrongOrder, "checkVersion(" + quote(padded) + ") returned " +
                                                std::to_string(verdict->result) + ", and " + quote(plain) +
                                                " is understood");
    } else if (verdict && verdict->verdict <= 0) {
        worker.found(FindingId::WrongOrder, "checkVersion(" + quote(padded) + ") wrote " +
                                                std::to_string(verdict->verdict) + ", and " + quote(plain) +
                                                " is newer than the installed " + quote(installed));
    }
}
} // namespace

void askAboutOrder(Worker& worker, const std::string& installed)
{
    const auto parts = partsOf(numbersIn(installed));
    const auto offered = partsOf(worker.job().version.value_or(installed));
    if (!offered) {
        return; // versions of another kind
    }
    if (!parts || parts->size() != offered->size()) {
        return askAboutLeadingZero(worker, *offered, installed);
    }
    const auto own = worker.checkVersion(versionOf(*parts));
    if (own && own->result == 0 && own->verdict > 0) {
        return; // compared with another one, which is told by itself
    }
    bool areUnderstood = true; // the plain ones, which come first
    bool isSomeNewer = false;  // of them
    for (const Comparison& comparison : comparisonsWith(*parts)) {
        const auto verdict = worker.checkVersion(comparison.offered, "beside " + quote(installed));
        const bool isRefused = !verdict || verdict->result != 0;
        if (comparison.form == Comparison::kPlain) {
            areUnderstood = areUnderstood && !isRefused;
            isSomeNewer = isSomeNewer || (verdict && !isRefused && comparison.isNewer);
        }
        if (verdict && isRefused && comparison.form == Comparison::kPlain && isSomeNewer) {
            worker.found(FindingId::WrongOrder, "checkVersion(" + quote(comparison.offered) + ") returned " +
                                                    std::to_string(verdict->result) +
                                                    ", and versions like it that are newer are understood");
        }
        if (verdict && isRefused && comparison.form == Comparison::kLeadingZero && areUnderstood) {
            worker.found(FindingId::WrongOrder, "checkVersion(" + quote(comparison.offered) + ") returned " +
                                                    std::to_string(verdict->result) +
                                                    ", and numbers without a leading zero are understood");
        }
        if (verdict && verdict->result == 0 && (verdict->verdict > 0) != comparison.isNewer) {
            worker.found(FindingId::WrongOrder, "checkVersion(" + quote(comparison.offered) + ") wrote " +
                                                    std::to_string(verdict->verdict) +
                                                    ", and the installed version is " + quote(installed));
        }
    }
}

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
