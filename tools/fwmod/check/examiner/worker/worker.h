// The library in a worker process: loaded and called as the daemon does, each call between two looks at what
// belongs to the whole process. What is found goes to the supervisor at once, because the next call may be
// the last.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_WORKER_WORKER_H
#define TOOLS_FWMOD_CHECK_EXAMINER_WORKER_WORKER_H

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <json/json.h>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <tarnwick/control.h>
#include <utility>
#include <vector>

#include "common/process/process-state.h"
#include "tools/fwmod/check/examiner/black-box.h"
#include "tools/fwmod/check/protocol/findings.h"
#include "tools/fwmod/check/protocol/job.h"

namespace fwmod::examiner
{

struct Returned {
    int result;
    int error;                           // errno
    std::chrono::duration<double> taken; // without what the thread waited for a processor
};

class Worker
{
public:
    Worker(const Job& job, const std::set<std::string>& suspects, int channel, BlackBox& box);

    const Job& job() const { return job_; }

    // To the supervisor.
    void found(FindingId id, const std::string& detail) const;
    void tell(const std::string& key, const Json::Value& value) const;

    // From now on the process is not looked at before and after each call: where that has been done already,
    // and hundreds of sessions follow.
    void overlookManners() { areMannersWatched_ = false; }

    // False when the daemon would not have the library.
    bool load();
    bool has(const char* entryPoint) const; // and the daemon would call it
    bool isFlawed(const char* entryPoint) const
    {
        return flawed_.count(entryPoint) != 0;
    } // reported by load()

    // ---- The entry points, with everything that can be wrong with an answer ----
    //
    // `where` is put behind the call's name in reports. No value: not answered, which has been reported or is
    // known from an earlier session.

    bool setContext(int caller, const char* context, const std::string& where = "");
    std::optional<std::string> identifier(const std::string& where = "");
    std::optional<std::string> activeVersion(const std::string& where = "");
    // The same where every read of the hardware fails. Nothing, too, where there was none. For a session that
    // holds reads.
    std::optional<std::string> activeVersionUnread(const std::string& where);
    // What the offered version is, in words for reports, when the text itself is none.
    struct Verdict {
        int result;
        int verdict; // meaningful when result is 0
    };
    std::optional<Verdict> checkVersion(const std::string& version, const std::string& where = "");
    std::optional<int> expectedTime();
    std::optional<unsigned int> progress(const std::string& where = "");
    void allUpdateDone(const std::string& where = "");
    std::optional<Returned> decrypt(const std::string& data, int length, const std::string& what);
    // The same where one of its writes, by number from 1, goes wrong without a word.
    std::optional<Returned> decryptWithSpoiltWrite(unsigned int number, const std::string& data,
                                                   const std::string& what);

    // doUpdate on a thread of its own, after what the daemon does before it. Tells "result", "error",
    // "duration" and "progress".
    struct Update {
        std::string image;
        unsigned long checksum;
        bool pollProgress;
        std::string where;
    };
    std::optional<Returned> update(const Update& update);
    // The same while allUpdateDone is called again and again on another thread. Tells "noticeWaited", the
    // longest part of the update that one of those calls lasted, when that was over with the update.
    std::optional<Returned> updateUnderNotices(const Update& update);

    // The same with one notice, when it has made so many writes. For a session that watches writes. Tells
    // "noticeJump", the number of writes then, where the notice has set the progress to its end.
    std::optional<Returned> updateUnderNotice(unsigned int write, const Update& update);

    // The same while getActiveVersion and checkVersion are called again and again on another thread, from its
    // first write on. Tells "asked", how often.
    std::optional<Returned> updateUnderQuestions(const Update& update);

    // The same where one of its flushes, or of all its writes, fails, or a write goes wrong without a word.
    struct Fault {
        bool isFlush;
        unsigned int number; // from 1
        bool isUntold = false;
    };
    std::optional<Returned> updateWithFault(const Fault& fault, const Update& update);

    // The same where every read of the hardware fails that comes after the first write. Nothing, too, where
    // there was none.
    std::optional<Returned> updateUnverified(const Update& update);

    // The same where every read of the image fails. Nothing, too, where there was none. For a session that
    // holds reads.
    std::optional<Returned> updateUnread(const Update& update);

    bool isAnySuspect(const std::string& entryPoint) const; // whether some call of it has ended a session

    // Asks several times and sees whether descriptors get lost. False when it was not answered.
    bool repeat(const std::string& call, int times, const std::function<bool()>& ask);

private:
    std::optional<Returned> install(const std::string& name, const std::function<int()>& function);
    std::optional<Returned> callUpdate(const std::string& name, const Update& update);
    void complainOfKeptImage(const std::string& name) const;
    void complainOfMoment(const std::string& name, const common::ProcessState& before) const;
    struct Polling;
    void pollProgress(const std::string& name, Polling& polling);
    int askDuringUpdate(const std::atomic<bool>& isOver);
    std::optional<unsigned int> progressDuringUpdate() const;
    void requireProgressKept(std::optional<unsigned int> before, const std::string& name);
    void giveNotice(unsigned int write, const std::atomic<bool>& isOver);
    bool isSuspect(const std::string& call) const;
    std::optional<Returned> call(const std::string& name, std::chrono::milliseconds limit,
                                 const std::function<int()>& function);
    void forgetMoments();
    void complainOfFlags(const std::string& name, const std::array<int, 3>& before) const;
    void complainOfMoments(const std::string& name, const std::set<FindingId>& left) const;
    void requireOwnDescriptors(const std::string& name);
    void explainLoadError(const std::string& error) const;
    void lookForClashes() const;

    const Job& job_;
    const std::set<std::string>& suspects_;
    int channel_;
    BlackBox& box_;
    bool areMannersWatched_ = true;
    bool hasProgressFallen_ = false; // at another call, which has been told
    std::set<std::string> flawed_;
    std::vector<std::pair<int, ino_t>> ownDescriptors_; // with what they lead to

    tarnwick_setContext_fn* setContext_ = nullptr;
    tarnwick_getEMPID_fn* getEMPID_ = nullptr;
    tarnwick_getActiveVersion_fn* getActiveVersion_ = nullptr;
    tarnwick_checkVersion_fn* checkVersion_ = nullptr;
    tarnwick_doUpdate_fn* doUpdate_ = nullptr;
    tarnwick_allUpdateDone_fn* allUpdateDone_ = nullptr;
    tarnwick_doUpdate_decryption_fn* doUpdateDecryption_ = nullptr;
    tarnwick_getExpectedTime_fn* getExpectedTime_ = nullptr;
    tarnwick_getUpdateProgress_fn* getUpdateProgress_ = nullptr;
};

// What a call must close: descriptors of the process, and mappings of the hardware's files.
struct OpenFiles {
    std::size_t descriptors = 0;
    std::size_t mappings = 0;

    static OpenFiles now();
    // "2 descriptors more", or ""; what has become less does not count.
    std::string moreThan(const OpenFiles& before) const;
};

// How long a doUpdate may take before it counts as hanging.
std::chrono::milliseconds updateLimit(const Job& job);

// "getActiveVersion" of "getActiveVersion on another thread".
std::string entryPointOf(const std::string& call);

// "No such file or directory", or "0".
std::string errorName(int error);

// What is wrong with that errno of a doUpdate that a write or a wrong checksum has made fail, in words: it is
// 0, or about names, descriptors or processes, as a call gets it that tidies up behind the failure. "" for a
// cause.
std::string whyNoCause(int error);

// A text for reports: quoted, cut, and without what a terminal would take for something else.
std::string quote(const std::string& text);

} // namespace fwmod::examiner

#endif
