// Everything is logged: to stderr, to /tmp and to /var/log, if they can be written.
// finds: nothing
#define OWN_setContext
#define OWN_verifySlot
#include "base.h"

static void note(const char* path, const char* text)
{
    FILE* const log = fopen(path, "ae");
    if (log == NULL) {
        return;
    }
    fprintf(log, "corpus: %s\n", text);
    fclose(log);
}

static void noteEverywhere(const char* text)
{
    const int cause = errno; // a log that cannot be written is no failure of the call
    fprintf(stderr, "corpus: %s\n", text);
    note("/tmp/corpus.log", text);
    note("/var/log/corpus.log", text);
    errno = cause;
}

int setContext(const char* name, int caller, char* context)
{
    (void)caller, (void)context;
    noteEverywhere(name);
    return 0;
}

static inline int verifySlot(int chip, int slot)
{
    noteEverywhere(slot == 0 ? "slot 0" : "slot 1");
    return isImageIn(chip, slot) ? 0 : -1;
}
