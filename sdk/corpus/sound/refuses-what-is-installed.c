// doUpdate refuses the version that the hardware has: it is never asked for that.
// finds: nothing
#define OWN_checkImage
#include "base.h"

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    char offered[TARNWICK_CONTROL_TEXT_SIZE] = "";
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    const size_t end = size - strlen(kEnd);
    if (size != IMAGE_SIZE || versionInHead(bytes, offered) != 0 ||
        memcmp(bytes + end, kEnd, strlen(kEnd)) != 0) {
        return fail(EBADMSG);
    }
    if (readVersion(installed) == 0 && strcmp(offered, installed) == 0) {
        return fail(EALREADY);
    }
    char line[TARNWICK_CONTROL_TEXT_SIZE + 32];
    const size_t length = (size_t)snprintf(line, sizeof line, "firmware %s of the corpus\n", offered);
    for (size_t at = strlen(kMagic) + strlen(offered) + 1, i = 0; at < end; ++at, ++i) {
        if (bytes[at] != (unsigned char)line[i % length]) {
            return fail(EBADMSG);
        }
    }
    return 0;
}
