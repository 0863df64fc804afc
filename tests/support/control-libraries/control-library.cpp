// A control library that does what its recorder says. LINKAGE_x makes an entry point exported plainly (the
// default), exported under its C++ name (empty), or not at all (static); with NULL_SYMBOL it is exported with
// the address 0. For that the entry points are not declared by tarnwick/control.h.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tests/support/control-recorder.h"

#ifndef LINKAGE_setContext
#define LINKAGE_setContext extern "C"
#endif
#ifndef LINKAGE_getEMPID
#define LINKAGE_getEMPID extern "C"
#endif
#ifndef LINKAGE_getActiveVersion
#define LINKAGE_getActiveVersion extern "C"
#endif
#ifndef LINKAGE_checkVersion
#define LINKAGE_checkVersion extern "C"
#endif
#ifndef LINKAGE_doUpdate
#define LINKAGE_doUpdate extern "C"
#endif
#ifndef LINKAGE_allUpdateDone
#define LINKAGE_allUpdateDone extern "C"
#endif
#ifndef LINKAGE_doUpdate_decryption
#define LINKAGE_doUpdate_decryption extern "C"
#endif
#ifndef LINKAGE_getExpectedTime
#define LINKAGE_getExpectedTime extern "C"
#endif
#ifndef LINKAGE_getUpdateProgress
#define LINKAGE_getUpdateProgress extern "C"
#endif

#ifdef NULL_SYMBOL
__asm__(".globl " NULL_SYMBOL "\n.set " NULL_SYMBOL ", 0\n");
#endif

namespace
{

ControlRecorder recorder;

std::string quoted(const char* text)
{
    return text != nullptr ? "\"" + std::string(text) + "\"" : "null";
}

// A text as a library may leave it: 128 bytes and more fill the buffer, with no terminator.
void fillText(char* out, const std::string& text)
{
    constexpr size_t kSize = 128;
    memcpy(out, text.data(), std::min(text.size(), kSize));
    if (text.size() < kSize) {
        out[text.size()] = '\0';
    }
}

} // namespace

extern "C" ControlRecorder* controlRecorder()
{
    return &recorder;
}

LINKAGE_setContext int setContext [[maybe_unused]] (const char* name, int caller, char* context)
{
    return recorder.called("setContext",
                           quoted(name) + ", " + std::to_string(caller) + ", " + quoted(context));
}

LINKAGE_getEMPID int getEMPID [[maybe_unused]] (char* out)
{
    fillText(out, recorder.answers.empId);
    return recorder.called("getEMPID", "");
}

LINKAGE_getActiveVersion int getActiveVersion [[maybe_unused]] (char* out)
{
    fillText(out, recorder.answers.activeVersion);
    return recorder.called("getActiveVersion", "");
}

LINKAGE_checkVersion int checkVersion [[maybe_unused]] (const char* version, int* result)
{
    if (recorder.answers.verdict) {
        *result = *recorder.answers.verdict;
    }
    return recorder.called("checkVersion", quoted(version));
}

LINKAGE_doUpdate int doUpdate [[maybe_unused]] (const char* name, unsigned long value)
{
    const int result = recorder.called("doUpdate", quoted(name) + ", " + std::to_string(value));
    errno = recorder.answers.error;
    return result;
}

LINKAGE_allUpdateDone int allUpdateDone [[maybe_unused]] ()
{
    return recorder.called("allUpdateDone", "");
}

LINKAGE_doUpdate_decryption int doUpdate_decryption [[maybe_unused]] (const unsigned char* data, int length)
{
    const auto* const bytes = reinterpret_cast<const char*>(data);
    recorder.keepPayload(std::string(bytes, static_cast<size_t>(std::max(length, 0))));
    const int result = recorder.called("doUpdate_decryption", std::to_string(length));
    errno = recorder.answers.error;
    return result;
}

LINKAGE_getExpectedTime int getExpectedTime [[maybe_unused]] (int* out)
{
    *out = recorder.answers.expectedTime;
    return recorder.called("getExpectedTime", "");
}

LINKAGE_getUpdateProgress int getUpdateProgress [[maybe_unused]] (unsigned int* out)
{
    *out = recorder.answers.progress;
    return recorder.called("getUpdateProgress", "");
}

#ifdef CALLS_MISSING_FUNCTION
extern "C" void functionThatNobodyHas();
extern "C" void callMissingFunction()
{
    functionThatNobodyHas();
}
#endif
