// Context, path and head are longer than the buffers that they are copied into.
// finds: F204 F302 F401
#define OWN_setContext
#define OWN_doUpdate
#define OWN_doUpdate_decryption
#include "chip.h"

static char lastContext[16];

int setContext(const char* name, int caller, char* context)
{
    char copy[16] = "";
    char* to = copy;
    (void)name;
    (void)caller;
    for (volatile const char* from = context; from != NULL && *from != '\0'; ++from) {
        *to++ = *from;
    }
    memcpy(lastContext, copy, sizeof lastContext);
    return 0;
}

int doUpdate(const char* name, unsigned long value)
{
    char path[128];
    size_t n = 0;
    snprintf(path, sizeof path, "%.*s", (int)sizeof path - 1, name);
    unsigned char* data = slurp(path, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    unsigned char head[32];
    if (length < 16) {
        return fail(EBADMSG);
    }
    memcpy(head, data, sizeof head);
    return memcmp(head, MAGIC, strlen(MAGIC)) == 0 ? install(data, (size_t)length) : fail(EBADMSG);
}
