// The soundbar: an external module. The daemon hands it no image; it knows itself where its image lies, and
// only a direct request (doUpdate with the library's name and 0) updates it.
#include <tarnwick/control.h>

#include "common/firmware.h"

namespace
{
constexpr char kImagePath[] = "/lib/firmware/ext/Soundbar/Soundbar.bin";

Firmware firmware{"soundbar", std::chrono::milliseconds(25)};
} // namespace

int setContext(const char*, int, char*)
{
    return 0; // the same work for every caller
}

int getEMPID(char* out)
{
    out[0] = '\0'; // never asked, but every library exports it
    return 0;
}

int getActiveVersion(char* out)
{
    return firmware.activeVersion(out);
}

int checkVersion(const char* version, int* result)
{
    return firmware.checkVersion(version, result);
}

int doUpdate(const char*, unsigned long)
{
    return firmware.updateFromFile(kImagePath, std::nullopt); // the image vouches for itself
}

int getUpdateProgress(unsigned int* out)
{
    return firmware.progress(out);
}
