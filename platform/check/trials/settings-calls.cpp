#include "platform/check/trials/settings-calls.h"

#include "common/process/guarded-buffer.h"

namespace platformcheck
{

using common::GuardedBuffer;

int set(Trial& trial, const char* key, int value)
{
    GuardedBuffer text("the key", std::string(key));
    return trial.result("pralis_set_int", [&] { return pralis_set_int(text.as<const char>(), value); });
}

int get(Trial& trial, const char* key, int& value)
{
    GuardedBuffer text("the key", std::string(key));
    Place<int> place("the value", value);
    const int result =
        trial.result("pralis_get_int", [&] { return pralis_get_int(text.as<const char>(), place.get()); });
    value = *place;
    return result;
}

std::string written(const char* key, int value)
{
    return std::to_string(value) + " was written to " + key;
}

bool write(Trial& trial, const char* key, int value)
{
    const int result = set(trial, key, value);
    return trial.require(result == 0, FindingId::NotWritten,
                         std::string(key) + ": the result is " + std::to_string(result));
}

int begin(Trial& trial, const char* key, pralis_key_changed_cb callback, void* data)
{
    GuardedBuffer text("the key", std::string(key));
    return trial.result("pralis_notify_key_changed",
                        [&] { return pralis_notify_key_changed(text.as<const char>(), callback, data); });
}

int end(Trial& trial, const char* key, pralis_key_changed_cb callback)
{
    GuardedBuffer text("the key", std::string(key));
    return trial.result("pralis_ignore_key_changed",
                        [&] { return pralis_ignore_key_changed(text.as<const char>(), callback); });
}

int subscribe(Trial& trial, const char* key, pralis_key_changed_cb callback, void* data)
{
    const int result = begin(trial, key, callback, data);
    trial.require(result == 0, FindingId::NotSubscribed,
                  std::string(key) + ": the result is " + std::to_string(result));
    return result;
}

void unsubscribe(Trial& trial, const char* key, pralis_key_changed_cb callback)
{
    const int result = end(trial, key, callback);
    trial.require(result == 0, FindingId::NotUnsubscribed,
                  std::string(key) + ": the result is " + std::to_string(result));
}

} // namespace platformcheck
