// Nothing but its length and its checksum is known of an image, and 0 is a checksum like any other.
// finds: nothing
// runs: whole
#define OWN_checkImage
#include "base.h"

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    return size == IMAGE_SIZE && versionInHead(bytes, version) == 0 ? 0 : fail(EBADMSG);
}
