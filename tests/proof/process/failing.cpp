#include "tests/proof/process/failing.h"

#include <cerrno>

namespace proof::failing
{

namespace
{

Judge judgeOfProcess = nullptr;
int depthOfThread = 1; // of the machine's that has its turn; all is the test's own until the daemon begins

} // namespace

void setJudge(Judge judge)
{
    judgeOfProcess = judge;
}

const Result* ask(const Call& call)
{
    if (judgeOfProcess == nullptr || depthOfThread > 0) {
        return nullptr;
    }
    const int error = errno;
    const Aside aside;
    const Result* const result = judgeOfProcess(call);
    errno = result != nullptr && result->error != 0 ? result->error : error;
    return result;
}

int depth()
{
    return depthOfThread;
}

void setDepth(int depth)
{
    depthOfThread = depth;
}

} // namespace proof::failing
