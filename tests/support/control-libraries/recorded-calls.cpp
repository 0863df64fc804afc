#include "tests/support/control-libraries/recorded-calls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tests/support/control-recorder.h"

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

namespace recorded
{

ControlRecorder* controlRecorder()
{
    return &recorder;
}

int setContext(const char* name, int caller, char* context)
{
    return recorder.called("setContext",
                           quoted(name) + ", " + std::to_string(caller) + ", " + quoted(context));
}

int getEMPID(char* out)
{
    fillText(out, recorder.answers.empId);
    return recorder.called("getEMPID", "");
}

int getActiveVersion(char* out)
{
    fillText(out, recorder.answers.activeVersion);
    return recorder.called("getActiveVersion", "");
}

int checkVersion(const char* version, int* result)
{
    if (recorder.answers.verdict) {
        *result = *recorder.answers.verdict;
    }
    return recorder.called("checkVersion", quoted(version));
}

int doUpdate(const char* name, unsigned long value)
{
    const int result = recorder.called("doUpdate", quoted(name) + ", " + std::to_string(value));
    errno = recorder.answers.error;
    return result;
}

int allUpdateDone()
{
    return recorder.called("allUpdateDone", "");
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    const auto* const bytes = reinterpret_cast<const char*>(data);
    recorder.keepPayload(std::string(bytes, static_cast<size_t>(std::max(length, 0))));
    const int result = recorder.called("doUpdate_decryption", std::to_string(length));
    errno = recorder.answers.error;
    return result;
}

int getExpectedTime(int* out)
{
    *out = recorder.answers.expectedTime;
    return recorder.called("getExpectedTime", "");
}

int getUpdateProgress(unsigned int* out)
{
    *out = recorder.answers.progress;
    return recorder.called("getUpdateProgress", "");
}

} // namespace recorded
