#include "tests/proof/crashes/campaign.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <new>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "common/files/owned-file.h"
#include "common/files/unique-fd.h"
#include "common/json-text.h"

namespace proof
{

namespace
{

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// ---- What a lane tells: a line of JSON for each run ----

Json::Value asJson(std::size_t index, const CrashOutcome& outcome)
{
    Json::Value told;
    told["run"] = Json::UInt64(index);
    told["hit"] = outcome.isHit;
    told["again"] = outcome.isMadeAgain;
    told["breaches"] = Json::arrayValue;
    for (const CrashBreach& breach : outcome.breaches) {
        Json::Value entry;
        entry["promise"] = breach.promise;
        entry["text"] = breach.text;
        told["breaches"].append(entry);
    }
    told["calls"] = Json::arrayValue;
    for (const CountedCall& counted : outcome.calls) {
        Json::Value entry(Json::arrayValue);
        entry.append(counted.call.thread);
        entry.append(counted.call.name);
        entry.append(counted.call.occurrence);
        entry.append(counted.isUnflushed);
        told["calls"].append(entry);
    }
    return told;
}

CrashOutcome outcomeFrom(const Json::Value& told)
{
    CrashOutcome outcome;
    outcome.isHit = told["hit"].asBool();
    outcome.isMadeAgain = told["again"].asBool();
    for (const Json::Value& entry : told["breaches"]) {
        outcome.breaches.push_back({entry["promise"].asString(), entry["text"].asString()});
    }
    for (const Json::Value& entry : told["calls"]) {
        outcome.calls.push_back(
            {{entry[0U].asUInt(), entry[1U].asString(), entry[2U].asUInt()}, entry[3U].asBool()});
    }
    return outcome;
}

// ---- A lane ----

// A number that all lanes share: of the run to be made next.
class SharedNumber
{
public:
    SharedNumber()
        : memory_(mmap(nullptr, sizeof(Number), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (memory_ == MAP_FAILED) {
            fail("cannot share memory");
        }
        number_ = new (memory_) Number(0);
    }
    ~SharedNumber() { munmap(memory_, sizeof(Number)); }
    SharedNumber(const SharedNumber&) = delete;
    SharedNumber& operator=(const SharedNumber&) = delete;

    std::size_t take() { return (*number_)++; }

private:
    using Number = std::atomic<std::size_t>;
    void* memory_;
    Number* number_;
};

// Whole, beside other lanes.
void writeLine(int output, const std::string& line, const std::filesystem::path& lockFile)
{
    const common::UniqueFd lock(open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    while (flock(lock.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = write(output, line.data() + done, line.size() - done);
        if (count < 0 && errno != EINTR) {
            fail("cannot tell a result");
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

[[noreturn]] void runLane(const std::vector<CrashRun>& runs, SharedNumber& next,
                          const std::filesystem::path& directory, int output)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    int status = EXIT_SUCCESS;
    try {
        Lane lane(directory);
        for (std::size_t index = next.take(); index < runs.size(); index = next.take()) {
            const CrashRun& run = runs[index];
            const CrashOutcome outcome = lane.run(crashStoryNamed(run.story), run.point, run.isExamined);
            writeLine(output, common::compactJson(asJson(index, outcome)) + "\n",
                      directory.parent_path() / "lock");
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "crash-proof: %s\n", error.what());
        status = EXIT_FAILURE;
    }
    _exit(status);
}

void expectEnds(const std::vector<pid_t>& processes)
{
    bool isWell = true;
    for (const pid_t process : processes) {
        int status = 0;
        isWell = waitpid(process, &status, 0) == process && status == 0 && isWell;
    }
    if (!isWell) {
        throw std::runtime_error("not all runs could be made");
    }
}

} // namespace

CrashCampaign::CrashCampaign(unsigned int lanes) : lanes_(lanes)
{
    chmod(directory().c_str(), 0755); // the users of the sets pass through
}

void CrashCampaign::run(const std::vector<CrashRun>& runs, const Take& take) const
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail("cannot make a pipe");
    }
    const common::OwnedFile input(fdopen(ends[0], "r"));
    SharedNumber next;
    std::vector<pid_t> processes;
    std::fflush(nullptr);
    for (unsigned int lane = 0; lane < std::min<std::size_t>(lanes_, runs.size()); ++lane) {
        const pid_t process = fork();
        if (process == 0) {
            runLane(runs, next, directory() / ("lane-" + std::to_string(lane)), ends[1]);
        }
        if (process < 0) {
            fail("cannot start a lane");
        }
        processes.push_back(process);
    }
    close(ends[1]);
    char* text = nullptr;
    std::size_t size = 0;
    while (getline(&text, &size, input.get()) > 0) {
        if (const auto told = common::parseJson(text)) {
            take(runs[(*told)["run"].asUInt64()], outcomeFrom(*told));
        }
    }
    free(text);
    expectEnds(processes);
}

} // namespace proof
