// Marks the definition of a platform call: all else in the library is hidden.
#pragma once

#define PLATFORM_EXPORT __attribute__((visibility("default")))
