#include "tools/fwctl/modules/daemon-log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <mutex>
#include <utility>

#include "common/daemon/daemon-events.h"
#include "norlog.h"
#include "trace_logger.h"

namespace fwctl
{

namespace
{
using NorlogPrint = int(int, int, const char*, const char*, ...);
using TraceRecord = void(int, const char*, const char*, int, const char*, ...);
constexpr const char* kTraceRecordSymbol = "_ZN11TraceLogger6recordEiPKcS1_iS1_z";

std::atomic<bool> isForwarding{false};
std::mutex messagesMutex;
std::vector<std::string> messages;
std::function<void(const std::string&)> listener;
std::function<void(const std::string&)> shower;

// The platform's own function, which the one of this file hides. Null when it has none.
template <typename Function>
Function* platformsOwn(const char* symbol)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list values)
{
    char text[4096]; // longer ones are cut: paths and texts of a library have bounds far below
    return std::vsnprintf(text, sizeof text, format, values) < 0 ? "" : text;
}

// "file: function(line) > text\n" becomes "text".
std::string withoutPlace(const std::string& text)
{
    common::LogRecord record;
    record.text = record.message = text;
    common::takePlaceFromMessage(record);
    while (!record.message.empty() && record.message.back() == '\n') {
        record.message.pop_back();
    }
    return record.message;
}

void keep(const std::string& message)
{
    const std::lock_guard<std::mutex> lock(messagesMutex);
    messages.push_back(message);
    if (listener) {
        listener(message);
    }
    if (shower) {
        shower(message);
    }
}
} // namespace

void forwardDaemonLog(std::function<void(const std::string&)> show)
{
    const std::lock_guard<std::mutex> lock(messagesMutex);
    isForwarding = true;
    shower = std::move(show);
}

std::vector<std::string> takeDaemonMessages()
{
    const std::lock_guard<std::mutex> lock(messagesMutex);
    return std::exchange(messages, {});
}

std::string takeLastComplaint()
{
    std::string last;
    for (const std::string& message : takeDaemonMessages()) {
        last = common::isComplaint(message) ? message : last;
    }
    return last;
}

void onDaemonMessage(std::function<void(const std::string&)> newListener)
{
    const std::lock_guard<std::mutex> lock(messagesMutex);
    listener = std::move(newListener);
}

} // namespace fwctl

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    using namespace fwctl;
    va_list values;
    va_start(values, format);
    const std::string text = formatted(format, values);
    va_end(values);
    keep(withoutPlace(text));
    static NorlogPrint* const own = platformsOwn<NorlogPrint>("__norlog_print");
    return isForwarding && own != nullptr ? own(log_id, priority, tag, "%s", text.c_str())
                                          : static_cast<int>(text.size());
}

void TraceLogger::record(int priority, const char* file, const char* function, int line, const char* format,
                         ...)
{
    using namespace fwctl;
    static TraceRecord* const own = platformsOwn<TraceRecord>(kTraceRecordSymbol);
    if (!isForwarding || own == nullptr) {
        return; // the same message has just come through the platform log
    }
    va_list values;
    va_start(values, format);
    const std::string text = formatted(format, values);
    va_end(values);
    own(priority, file, function, line, "%s", text.c_str());
}
