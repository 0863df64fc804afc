#include "tests/proof/fuzz/target.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "tests/support/temporary-directory.h"

namespace fuzz
{

namespace
{

const Target* latest = nullptr;

} // namespace

Target::Target(const char* itsName, Run itsRun) : name(itsName), run(itsRun), next(latest)
{
    latest = this;
}

const Target* firstTarget()
{
    return latest;
}

void fail(const std::string& what)
{
    std::fprintf(stderr, "broken: %s\n", what.c_str());
    std::abort();
}

uint8_t Reader::byte()
{
    const std::string_view first = bytes(1);
    return first.empty() ? uint8_t{0} : static_cast<uint8_t>(first[0]);
}

uint32_t Reader::number()
{
    uint32_t value = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        value |= static_cast<uint32_t>(byte()) << shift;
    }
    return value;
}

std::string_view Reader::bytes(size_t count)
{
    const std::string_view taken = left.substr(0, count);
    left.remove_prefix(taken.size());
    return taken;
}

std::string_view Reader::rest()
{
    return bytes(left.size());
}

std::string fileWith(const std::string& name, std::string_view content)
{
    static const TemporaryDirectory directory;
    std::string path = directory / name;
    const common::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "the input can be written");
    return path;
}

} // namespace fuzz
