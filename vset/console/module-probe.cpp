// module-probe LIBRARY: asks a control library about its hardware, in a process of its own.
//
// Nothing is changed: only the questions of the plug-in interface are put, in a process below this one. What
// the library starts there is ended after it, and what it prints is dropped. A library that hangs does so
// here; whoever starts this sets the time limit. Prints one JSON object:
//
//   {"name", "entry_points": {NAME: true|false, ...}, "identifier", "version", "progress"}
//
// identifier, version and progress are null where the library does not answer; "error" tells why it cannot be
// loaded. Exit status: 0 asked, 1 not loadable, 2 wrong use.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <glib.h>
#include <iterator>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <tarnwick/control.h>
#include <unistd.h>

#include "common/daemon/entry-points.h"
#include "common/daemon/external-name.h"
#include "common/files/regular-file.h"
#include "common/glib-pointers.h"
#include "common/json-text.h"
#include "common/process/contained-process.h"
#include "common/terminal/command-line.h"

namespace
{

class Library
{
public:
    explicit Library(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW)) {}

    bool isLoaded() const { return handle_ != nullptr; }
    bool has(const char* name) const { return dlsym(handle_, name) != nullptr; }

    template <typename Function>
    Function* find(const char* name) const
    {
        return reinterpret_cast<Function*>(dlsym(handle_, name));
    }

    // What a function writes that fills a text buffer; null when there is none or it fails.
    Json::Value text(const char* name) const
    {
        auto* const function = find<int(char*)>(name);
        char buffer[TARNWICK_CONTROL_TEXT_SIZE + 1] = "";
        if (function == nullptr || function(buffer) != 0) {
            return Json::nullValue;
        }
        buffer[TARNWICK_CONTROL_TEXT_SIZE] = '\0';
        const common::GlibPointer<char> valid(g_utf8_make_valid(buffer, -1));
        return Json::Value(valid.get());
    }

    Json::Value progress() const
    {
        auto* const function = find<tarnwick_getUpdateProgress_fn>("getUpdateProgress");
        unsigned int percent = 0;
        if (function == nullptr || function(&percent) != 0) {
            return Json::nullValue;
        }
        return percent;
    }

private:
    void* handle_; // never closed: a library may not survive that, and this process ends at once
};

void ask(const Library& library, const std::string& name, Json::Value& answer)
{
    for (const common::EntryPoint& entry : common::kEntryPoints) {
        answer["entry_points"][entry.name] = library.has(entry.name);
    }
    if (auto* const setContext = library.find<tarnwick_setContext_fn>("setContext")) {
        std::string context; // empty, and writable as the interface has it
        setContext(name.c_str(), TARNWICK_CONTROL_CALLER_PACKAGE, context.data());
    }
    if (!common::isExternalName(name)) {
        answer["identifier"] = library.text("getEMPID");
    }
    answer["version"] = library.text("getActiveVersion");
    answer["progress"] = library.progress();
}

Json::Value askLibrary(const std::string& path)
{
    Json::Value answer;
    answer["name"] = std::filesystem::path(path).stem().string();
    for (const char* fact : {"identifier", "version", "progress"}) {
        answer[fact] = Json::nullValue;
    }
    const Library library(std::filesystem::absolute(path));
    if (library.isLoaded()) {
        ask(library, answer["name"].asString(), answer);
    } else {
        answer["error"] = dlerror();
    }
    return answer;
}

// In the process of the library: its own prints go elsewhere, the answer into this file.
void writeAnswer(int file, const std::string& path)
{
    const std::string text = common::compactJson(askLibrary(path)) + "\n";
    (void)!write(file, text.data(), text.size()); // what is missing is no JSON, and taken for no answer
}

void waitForEnd(common::ContainedProcess& process)
{
    while (!process.hasEnded()) {
        constexpr int kNextLook = 20; // milliseconds
        pollfd waiting[] = {{process.output(), POLLIN, 0}, {process.news(), POLLIN, 0}};
        poll(waiting, std::size(waiting), kNextLook);
        char prints[4096];
        while (read(process.output(), prints, sizeof prints) > 0) { // of no interest, but they have to go
        }
    }
}

int probe(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::status(path, error).type() == std::filesystem::file_type::not_found) {
        throw common::WrongUse("there is no file " + path);
    }
    if (const common::RegularFile file(path); file.descriptor() < 0) { // the loader would wait for a pipe
        throw common::Failure(path + " " + file.problem());
    }
    const int file = memfd_create("answer", MFD_CLOEXEC);
    if (file < 0) {
        throw common::Failure(std::string("no room for an answer: ") + std::strerror(errno));
    }
    common::ContainedProcess process([&] { writeAnswer(file, path); },
                                     common::ContainedProcess::Orphaned::kEnds);
    waitForEnd(process);
    char answer[65536];
    const ssize_t size = pread(file, answer, sizeof answer, 0);
    const std::string text(answer, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    const std::optional<Json::Value> told = common::parseJsonObject(text);
    if (!told) {
        throw common::Failure("the library ended the process that asked it");
    }
    std::fputs(text.c_str(), stdout);
    return told->isMember("error") ? EXIT_FAILURE : EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    common::CommandLine program("module-probe",
                                "Asks a control library about its hardware, and changes nothing");
    std::string path;
    program.text("LIBRARY", path, "The control library").required();
    program.footer("Example:\n  module-probe /prd/usr/fwupdate/controls/tuner.so");
    program.onRun([&] { return probe(path); });
    const int status = program.main(argc, argv);
    std::fflush(stdout);
    std::_Exit(status); // no destructor of the library runs
}
