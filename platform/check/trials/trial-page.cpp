#include "platform/check/trials/trial-page.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/shared-page.h"
#include "common/files/unique-fd.h"

namespace platformcheck
{

void PageUnmapper::operator()(TrialPage* page) const
{
    munmap(page, sizeof(TrialPage));
}

namespace
{

SharedPage mapPage(const std::filesystem::path& file, int flags)
{
    const common::UniqueFd opened(open(file.c_str(), O_RDWR | O_CLOEXEC | flags, 0600));
    const bool isThere = opened.get() >= 0 && common::reserve(opened.get(), sizeof(TrialPage));
    void* const memory =
        isThere ? mmap(nullptr, sizeof(TrialPage), PROT_READ | PROT_WRITE, MAP_SHARED, opened.get(), 0)
                : MAP_FAILED;
    if (memory == MAP_FAILED) {
        throw common::Failure("nothing can be written in " + file.parent_path().parent_path().string() +
                              ": " + std::strerror(errno) + " (make room there, or set TMPDIR)");
    }
    return SharedPage(static_cast<TrialPage*>(memory));
}

} // namespace

SharedPage makePage(const std::filesystem::path& file)
{
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    return mapPage(file, O_CREAT | O_EXCL); // all of it is zero
}

SharedPage openPage(const std::filesystem::path& file)
{
    return mapPage(file, 0);
}

unsigned int ignoredSignals()
{
    unsigned int ignored = 0;
    for (int signal = 1; signal < 32; ++signal) {
        struct sigaction action = {};
        const bool isIgnored = sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
        ignored |= isIgnored ? 1U << (signal - 1) : 0U;
    }
    return ignored;
}

void tell(TrialPage& page, Line kind, const std::string& text, unsigned int number)
{
    std::string line = std::string(1, static_cast<char>(kind)) + std::to_string(number) + " " + text;
    std::replace(line.begin(), line.end(), '\n', ' ');
    line += '\n';
    const std::uint32_t at = page.used.fetch_add(static_cast<std::uint32_t>(line.size()));
    if (at + line.size() <= TrialPage::kTextSize) {
        std::memcpy(page.text + at, line.data(), line.size());
    }
}

std::vector<Told> readLines(const TrialPage& page)
{
    const std::size_t used = std::min<std::size_t>(page.used, TrialPage::kTextSize);
    std::istringstream in(std::string(page.text, page.text + used));
    std::vector<Told> lines;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        char kind = 0;
        unsigned int number = 0;
        if (!(fields >> kind >> number) || std::strchr("FNLR", kind) == nullptr) {
            continue; // a library has written over it
        }
        std::string text;
        std::getline(fields.ignore(1), text);
        lines.push_back({static_cast<Line>(kind), number, text});
    }
    return lines;
}

OldestCall oldestCall(const TrialPage& page, const std::string& prefix)
{
    OldestCall oldest;
    for (const TrialPage::Call& call : page.underWay) {
        const std::int64_t since = call.since;
        const std::string name(call.name, strnlen(call.name, sizeof call.name));
        if (since != 0 && (oldest.since == 0 || since < oldest.since) && name.rfind(prefix, 0) == 0) {
            oldest = {name, since};
        }
    }
    return oldest;
}

} // namespace platformcheck
