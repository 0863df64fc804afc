// The questions, and the notice that the pass is over.
#include <algorithm>
#include <cstring>

#include "common/process/guarded-buffer.h"
#include "tools/fwmod/check/examiner/machine/hardware-openings.h"
#include "tools/fwmod/check/examiner/worker/calling.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

using common::GuardedBuffer;

namespace
{
constexpr double kDearContext = 0.4; // seconds of setContext, which is to be cheap

// A text that was written into the buffer, or what is wrong with it.
std::optional<std::string> takeText(const Worker& worker, const std::string& name, const GuardedBuffer& out)
{
    if (out.isTouchedBefore()) {
        worker.found(FindingId::OutsideOfBuffer, name + ": bytes before its buffer were changed");
        return std::nullopt;
    }
    if (!out.isTerminated()) {
        worker.found(FindingId::UnterminatedText, name + " left no zero byte in " +
                                                      std::to_string(TARNWICK_CONTROL_TEXT_SIZE) +
                                                      " bytes, which begin with " + quote(out.text()));
        return std::nullopt;
    }
    return out.text();
}

void complainOfFailure(const Worker& worker, const std::string& name, const Returned& returned,
                       FindingId id = FindingId::QuestionFailed)
{
    std::string detail = name + " returned " + std::to_string(returned.result);
    if (returned.error != 0) {
        detail += std::string(" (errno: ") + strerrordesc_np(returned.error) + ")";
    }
    worker.found(id, detail);
}

bool isAscii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

// A number that a question has written: nothing, and a finding, when it has not.
template <typename T>
std::optional<T> takeNumber(const Worker& worker, const std::string& name, GuardedBuffer& out)
{
    if (out.isTouchedBefore()) {
        worker.found(FindingId::OutsideOfBuffer, name + ": bytes before its result were changed");
    }
    if (!out.isAll(GuardedBuffer::kPoison)) {
        return *out.as<T>();
    }
    worker.found(FindingId::UnwrittenAnswer, name + " returned 0 and wrote no result");
    return std::nullopt;
}
} // namespace

bool Worker::setContext(int caller, const char* context, const std::string& where)
{
    std::string name = "setContext(" + std::to_string(caller);
    name += context == nullptr ? ", null)" : ", " + quote(context) + ")";
    name = callName(name, where);
    GuardedBuffer library("the library's name", job_.name);
    const std::string content = context != nullptr ? context : "";
    GuardedBuffer text("the context", content.size() + 1); // may be written: the parameter is not const
    std::copy_n(content.c_str(), content.size() + 1, text.as<char>());
    const HardwareOpenings openings(areMannersWatched_);
    const auto returned = call(name, kQuestionLimit, [&] {
        return setContext_(library.as<char>(), caller, context != nullptr ? text.as<char>() : nullptr);
    });
    if (!returned) {
        return false;
    }
    if (const std::string file = openings.first(); !file.empty()) {
        found(FindingId::ContextTouchesHardware, name + " opened " + file);
    }
    complainOfSlowness(*this, name, *returned, FindingId::SlowQuestion, kDearContext);
    constexpr int kDaemonsOwn[] = {TARNWICK_CONTROL_CALLER_PACKAGE, TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE,
                                   TARNWICK_CONTROL_CALLER_SYSTEM_IMAGE};
    const bool isDaemons =
        std::find(std::begin(kDaemonsOwn), std::end(kDaemonsOwn), caller) != std::end(kDaemonsOwn);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned,
                          isDaemons ? FindingId::QuestionFailed : FindingId::UnknownCallerRefused);
    }
    return returned->result == 0;
}

std::optional<std::string> Worker::identifier(const std::string& where)
{
    const std::string name = callName("getEMPID", where);
    GuardedBuffer out("the identifier's buffer", TARNWICK_CONTROL_TEXT_SIZE);
    out.fill(0);
    const auto returned = call(name, kQuestionLimit, [&] { return getEMPID_(out.as<char>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned);
        if (!out.isAll(0)) {
            found(FindingId::UnwrittenAnswer, name + " returned " + std::to_string(returned->result) +
                                                  " and wrote an identifier all the same, which is taken");
        }
        return std::nullopt;
    }
    if (out.isAll(0)) {
        found(FindingId::UnwrittenAnswer, name + " returned 0 and wrote no identifier");
        return std::nullopt;
    }
    return takeText(*this, name, out);
}

std::optional<std::string> Worker::activeVersion(const std::string& where)
{
    const std::string name = callName("getActiveVersion", where);
    GuardedBuffer out("the version's buffer", TARNWICK_CONTROL_TEXT_SIZE);
    const auto returned = call(name, kQuestionLimit, [&] { return getActiveVersion_(out.as<char>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned);
        return std::nullopt;
    }
    if (out.isAll(GuardedBuffer::kPoison)) {
        found(FindingId::UnwrittenAnswer, name + " returned 0 and wrote no version");
        return std::nullopt;
    }
    std::optional<std::string> version = takeText(*this, name, out);
    if (version && version->empty()) {
        found(FindingId::EmptyVersion, name + " returned 0 and an empty text");
        return std::nullopt;
    }
    if (version && !isAscii(*version)) {
        found(FindingId::NotAscii, name + " told " + quote(*version));
    }
    return version;
}

std::optional<std::string> Worker::activeVersionUnread(const std::string& where)
{
    box_.failedReads = 0;
    box_.failingReads = BlackBox::kOfHardware;
    std::optional<std::string> version = activeVersion(where);
    box_.failingReads = BlackBox::kNone;
    return box_.failedReads > 0 ? version : std::nullopt;
}

std::optional<Worker::Verdict> Worker::checkVersion(const std::string& version, const std::string& where)
{
    const std::string name = callName("checkVersion(" + quote(version) + ")", where);
    GuardedBuffer offered("the offered version", version);
    GuardedBuffer out("the verdict", sizeof(int));
    const auto returned =
        call(name, kQuestionLimit, [&] { return checkVersion_(offered.as<char>(), out.as<int>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        if (out.isAll(GuardedBuffer::kPoison)) {
            found(FindingId::UnwrittenVerdict,
                  name + " returned " + std::to_string(returned->result) + " and wrote no result");
        }
        return Verdict{returned->result, 0};
    }
    const std::optional<int> verdict = takeNumber<int>(*this, name, out);
    if (!verdict) {
        return std::nullopt;
    }
    if (*verdict < TARNWICK_CONTROL_VERDICT_OLDER || *verdict > TARNWICK_CONTROL_VERDICT_NEWER) {
        found(FindingId::OddVerdict, name + " wrote " + std::to_string(*verdict));
    }
    return Verdict{0, *verdict};
}

std::optional<int> Worker::expectedTime()
{
    const std::string name = "getExpectedTime";
    GuardedBuffer out("the expected time", sizeof(int));
    const auto returned = call(name, kQuestionLimit, [&] { return getExpectedTime_(out.as<int>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned);
        return std::nullopt;
    }
    return takeNumber<int>(*this, name, out);
}

std::optional<unsigned int> Worker::progress(const std::string& where)
{
    const std::string name = callName("getUpdateProgress", where);
    GuardedBuffer out("the progress", sizeof(unsigned int));
    const auto returned =
        call(name, kQuestionLimit, [&] { return getUpdateProgress_(out.as<unsigned int>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        found(FindingId::NoProgress,
              name + " returned " + std::to_string(returned->result) + " while no update ran");
        return std::nullopt;
    }
    const std::optional<unsigned int> percent = takeNumber<unsigned int>(*this, name, out);
    if (percent && *percent > 100) {
        found(FindingId::ProgressOver100,
              name + " told " + std::to_string(*percent) + " while no update ran");
    }
    return percent;
}

void Worker::allUpdateDone(const std::string& where)
{
    const std::string name = callName("allUpdateDone", where);
    const auto returned = call(name, kQuestionLimit, [&] { return allUpdateDone_(); });
    if (!returned) {
        return;
    }
    complainOfSlowness(*this, name, *returned, FindingId::SlowAllUpdateDone);
    if (returned->result != 0) {
        found(FindingId::NoticeFails, name + " returned " + std::to_string(returned->result));
    }
}
} // namespace fwmod::examiner
