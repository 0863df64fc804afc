// An update that was cut off is gone on with, whichever image it was of: blocks have a checksum each.
// finds: F502
//
// Nothing but the length is known of an image beside its checksum.
#define OWN_checkImage
#define OWN_writeSlot
#include "notes.h"

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    return size == IMAGE_SIZE && versionInHead(bytes, version) == 0 ? 0 : fail(EBADMSG);
}
