// A control library that behaves as the file /var/lib/hardware/NAME.json says, NAME being the library's own
// name, and writes every call down in /var/lib/hardware/calls, one line "NAME function(arguments)" each.
//
// Keys, all optional: "id" (package identifier, default "emp" + NAME), "version", "verdict" (of
// checkVersion), "results" (object, function name to result), "errno" (after doUpdate), "milliseconds" (that
// doUpdate takes; 400), "hangs" (true: doUpdate never returns). An update that succeeds leaves the image's
// bytes in /var/lib/hardware/NAME.firmware.
//
// With WITHOUT_doUpdate or WITHOUT_allUpdateDone the entry point is not exported.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <json/json.h>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

#ifdef WITHOUT_doUpdate
#define EXPORT_doUpdate [[maybe_unused]] static
#else
#define EXPORT_doUpdate EXPORT
#endif
#ifdef WITHOUT_allUpdateDone
#define EXPORT_allUpdateDone [[maybe_unused]] static
#else
#define EXPORT_allUpdateDone EXPORT
#endif

namespace
{

namespace fs = std::filesystem;

const fs::path kHardware = "/var/lib/hardware";
constexpr size_t kTextSize = 128; // of the daemon's buffers, terminator included

std::string ownName()
{
    static const int anchor = 0;
    Dl_info library{};
    dladdr(&anchor, &library);
    return fs::path(library.dli_fname).stem();
}

// Read at every call: a test may change it while the daemon runs.
Json::Value script()
{
    Json::Value root(Json::objectValue);
    std::ifstream file(kHardware / (ownName() + ".json"));
    if (file) {
        file >> root;
    }
    return root;
}

int called(const std::string& function, const std::string& arguments = "")
{
    // Read before the call can be seen: a test that waits for it may change the script at once.
    const int result = script()["results"].get(function, 0).asInt();
    const std::string line = ownName() + " " + function + "(" + arguments + ")\n";
    const int file = open((kHardware / "calls").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    const bool written = write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(file);
    return written ? result : -1;
}

void putText(char* out, const std::string& text)
{
    std::strncpy(out, text.c_str(), kTextSize - 1);
}

[[noreturn]] void hang()
{
    std::mutex mutex;
    std::unique_lock<std::mutex> lock(mutex);
    std::condition_variable never;
    while (true) {
        never.wait(lock);
    }
}

} // namespace

EXPORT int setContext(const char* name, int caller, char* context)
{
    return called("setContext", std::string(name) + "," + std::to_string(caller) + "," + context);
}

EXPORT int getEMPID(char* out)
{
    putText(out, script().get("id", "emp" + ownName()).asString());
    return called("getEMPID");
}

EXPORT int getActiveVersion(char* out)
{
    putText(out, script().get("version", "1.0").asString());
    return called("getActiveVersion");
}

EXPORT int checkVersion(const char* version, int* result)
{
    *result = script().get("verdict", 1).asInt();
    return called("checkVersion", version);
}

EXPORT_doUpdate int doUpdate(const char* name, unsigned long value)
{
    const Json::Value now = script();
    const int result = called("doUpdate", std::string(name) + "," + std::to_string(value));
    if (now.get("hangs", false).asBool()) {
        hang();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(now.get("milliseconds", 400).asInt()));
    if (result == 0) {
        fs::copy_file(name, kHardware / (ownName() + ".firmware"), fs::copy_options::overwrite_existing);
    }
    called("doUpdateReturns");
    errno = now.get("errno", 0).asInt();
    return result;
}

EXPORT_allUpdateDone int allUpdateDone()
{
    return called("allUpdateDone");
}

EXPORT int getExpectedTime(int* out)
{
    *out = 10;
    return called("getExpectedTime");
}

EXPORT int getUpdateProgress(unsigned int* out)
{
    *out = 50;
    return called("getUpdateProgress");
}
