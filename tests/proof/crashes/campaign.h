// All runs, in lanes: processes with a set each.
#ifndef TESTS_PROOF_CRASHES_CAMPAIGN_H
#define TESTS_PROOF_CRASHES_CAMPAIGN_H

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/files/temporary-directory.h"
#include "tests/proof/crashes/lane.h"

namespace proof
{

struct CrashRun {
    std::string story;
    std::optional<Point> point; // none: nothing is hit, and the calls are counted
    bool isExamined = false;
};

class CrashCampaign
{
public:
    using Take = std::function<void(const CrashRun&, const CrashOutcome&)>;

    // Makes a directory among the temporary files, which goes with the object.
    explicit CrashCampaign(unsigned int lanes);

    // Each run is told to `take` as it is done, in any order. Throws std::runtime_error when a lane ends
    // early.
    void run(const std::vector<CrashRun>& runs, const Take& take) const;

    const std::filesystem::path& directory() const { return directory_.path(); }

private:
    common::TemporaryDirectory directory_{"crash-proof-"};
    unsigned int lanes_;
};

} // namespace proof

#endif
