// What "fwmod check" and its examiner say to each other, which a control library may have scribbled into.
#include <stdexcept>

#include "tests/proof/fuzz/target.h"
#include "tools/fwmod/check/protocol/job.h"
#include "tools/fwmod/check/protocol/report.h"

namespace
{

using Line = std::variant<fwmod::Progress, fwmod::Report>;

std::string written(const std::optional<Line>& line)
{
    return std::visit([](const auto& value) { return fwmod::lineOf(value); }, *line);
}

// What was understood once is understood in the same way when it is said again.
template <typename Read, typename Write>
void requireSame(const std::string& line, Read read, Write write)
{
    const auto first = read(line);
    if (!first) {
        return;
    }
    const std::string said = write(first);
    const auto second = read(said);
    fuzz::require(second && write(second) == said, "what is said is understood");
    fuzz::require(said.find('\n') == std::string::npos, "a line is one line");
}

void readJob(std::string_view text)
{
    const std::string path = fuzz::fileWith("job.json", text);
    try {
        const fwmod::Job job = fwmod::readJob(path);
        fwmod::writeJob(job, path);
        fuzz::require(fwmod::readJob(path).name == job.name, "a job that was read can be written");
    } catch (const std::exception& error) { // as the examiner's main tells it
        fuzz::require(error.what()[0] != '\0', "a refusal has a reason");
    }
}

void run(std::string_view input)
{
    const std::string line(input);
    requireSame(line, fwmod::readLine, written);
    requireSame(line, fwmod::readCutTrial, [](const auto& trial) { return fwmod::lineOf(*trial); });
    requireSame(line, fwmod::readFinding, [](const auto& finding) { return fwmod::lineOf(*finding); });
    readJob(input);
}

const fuzz::Target target("examiner", run);

} // namespace
