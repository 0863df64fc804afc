// The calls of pralis.h as trials make them: by keys that are gone afterwards, and judged.
#ifndef PLATFORM_CHECK_TRIALS_SETTINGS_CALLS_H
#define PLATFORM_CHECK_TRIALS_SETTINGS_CALLS_H

#include <string>

#include "platform/check/trials/trial.h"
#include "pralis.h"

namespace platformcheck
{

int set(Trial& trial, const char* key, int value);
int get(Trial& trial, const char* key, int& value); // `value` is what stands there afterwards
int begin(Trial& trial, const char* key, pralis_key_changed_cb callback, void* data);
int end(Trial& trial, const char* key, pralis_key_changed_cb callback);

// For reports.
std::string written(const char* key, int value);

// A failure is a finding.
bool write(Trial& trial, const char* key, int value);
int subscribe(Trial& trial, const char* key, pralis_key_changed_cb callback, void* data);
void unsubscribe(Trial& trial, const char* key, pralis_key_changed_cb callback);

} // namespace platformcheck

#endif
