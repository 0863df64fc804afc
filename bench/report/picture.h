// The table as a picture: how far each figure of ours is from its limit, and where its peer is.
#ifndef BENCH_REPORT_PICTURE_H
#define BENCH_REPORT_PICTURE_H

#include <string>

#include "bench/report/results.h"

namespace bench
{

// As SVG. Only what has a limit is in it.
std::string pictureOf(const Results& results);

} // namespace bench

#endif
