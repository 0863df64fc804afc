// getActiveVersion throws when the chip does not answer.
// finds: F303
#include <stdexcept>
#include <string>
#define OWN_getActiveVersion
#include "chip.h"

static std::string chipVersion()
{
    char text[TARNWICK_CONTROL_TEXT_SIZE];
    if (chipVersion(text) != 0) {
        throw std::runtime_error("chip does not answer");
    }
    return text;
}

int getActiveVersion(char* out)
{
    strcpy(out, chipVersion().c_str());
    return 0;
}
