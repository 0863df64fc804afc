// Marks the definition of a platform call: all else in the library is hidden.
#ifndef PLATFORM_HOST_EXPORTED_H
#define PLATFORM_HOST_EXPORTED_H

#define PLATFORM_EXPORT __attribute__((visibility("default")))

#endif
