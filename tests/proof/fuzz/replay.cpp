// Hands inputs that are kept to their targets, without a fuzzer: what was found once must not come back.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "common/errors.h"
#include "common/terminal/command-line.h"
#include "common/terminal/visible-text.h"
#include "tests/proof/fuzz/target.h"

namespace
{

namespace fs = std::filesystem;

constexpr unsigned int kSecondsOfAnInput = 60; // one that takes longer hangs, however busy the machine is

std::string current; // the input's path, for who is told of a crash

void onCrash(int signal)
{
    const auto say = [](const char* text) { return write(STDERR_FILENO, text, std::strlen(text)) >= 0; };
    static_cast<void>(say("fuzz-replay: ") && say(signal == SIGALRM ? "hangs on " : "crashes on ") &&
                      say(current.c_str()) && say("\n"));
    std::signal(signal, SIG_DFL);
    raise(signal);
}

const fuzz::Target* find(const std::string& name)
{
    const fuzz::Target* target = fuzz::firstTarget();
    while (target != nullptr && target->name != name) {
        target = target->next;
    }
    return target;
}

std::vector<fs::path> inputsBelow(const fs::path& place)
{
    if (!fs::is_directory(place)) {
        return {place};
    }
    std::vector<fs::path> inputs;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(place)) {
        if (entry.is_regular_file()) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

// An input lies in a directory that is called after its target.
void replay(const fs::path& path)
{
    const fuzz::Target* const target = find(path.parent_path().filename());
    if (target == nullptr) {
        throw common::WrongUse(common::shortened(path.string()) +
                               " does not lie in a directory that is named after a target");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw common::Failure(common::shortened(path.string()) + " cannot be read");
    }
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    current = path;
    alarm(kSecondsOfAnInput);
    target->run(content);
    alarm(0);
}

} // namespace

int main(int argc, char** argv)
{
    common::CommandLine line("fuzz-replay", "Hands inputs to the fuzzing targets that they were kept for");
    std::vector<std::string> places;
    line.texts("PLACE", places,
               "An input, or a directory of them; each lies in a directory named after its target")
        .required();
    line.onRun([&] {
        for (const int signal : {SIGABRT, SIGALRM, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
            std::signal(signal, onCrash);
        }
        std::vector<fs::path> inputs;
        for (const std::string& place : places) { // before a target goes to another directory
            const std::vector<fs::path> found = inputsBelow(fs::absolute(place));
            inputs.insert(inputs.end(), found.begin(), found.end());
        }
        std::for_each(inputs.begin(), inputs.end(), replay);
        std::printf("%zu inputs, each taken as it should be\n", inputs.size());
        return inputs.empty() ? 1 : 0;
    });
    return line.main(argc, argv);
}
