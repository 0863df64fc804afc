#include "tests/support/service-finalize.h"

#include <atomic>

void service_finalize(); // of tarnwick.h

namespace
{

std::atomic<int> count{0};

} // namespace

void service_finalize()
{
    ++count;
}

int serviceFinalizeCount()
{
    return count;
}

void resetServiceFinalizeCount()
{
    count = 0;
}
