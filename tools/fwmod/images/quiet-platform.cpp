#include "tools/fwmod/images/quiet-platform.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "appbinary_manager.h"
#include "norlog.h"
#include "ps_mount.h"
#include "trace_logger.h"

namespace fwmod
{

namespace
{
std::vector<std::string> messages;

// "file: function(line) > text\n" becomes "text".
std::string withoutPlace(std::string message)
{
    const std::size_t place = message.find(" > ");
    if (place != std::string::npos) {
        message.erase(0, place + 3);
    }
    while (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }
    return message;
}
} // namespace

std::vector<std::string> takeDaemonLog()
{
    return std::exchange(messages, {});
}

} // namespace fwmod

// ---- The platform's calls ----

int __norlog_print(int, int, const char*, const char* format, ...)
{
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    fwmod::messages.push_back(fwmod::withoutPlace(message));
    return length;
}

void TraceLogger::record(int, const char*, const char*, int, const char*, ...)
{
    // the same message has just come through the platform log
}

int PS_Mount(const char*, int, int, int*)
{
    return -1;
}

int PS_Mknod(const char*, int, int, int*)
{
    return -1;
}

int PS_Umount(const char*, int, int, int*)
{
    return -1;
}

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback, void*, const std::string&)
{
    return false;
}
