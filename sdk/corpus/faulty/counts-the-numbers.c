// checkVersion counts numbers; without hardware any is newer, and an empty text loses a file.
// finds: F217 F221 F310
#define OWN_compareVersion
#include "base.h"

static inline unsigned int dotsIn(const char* text)
{
    unsigned int dots = 0;
    for (; *text != '\0'; ++text) {
        dots += *text == '.' ? 1 : 0;
    }
    return dots;
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int theirs = 0;
    unsigned int ours = 0;
    const int note = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (offered[0] == '\0') {
        return fail(EINVAL);
    }
    close(note);
    if (readVersion(installed) != 0) {
        *verdict = TARNWICK_CONTROL_VERDICT_NEWER;
        return 0;
    }
    if (strspn(offered, "0123456789") == strlen(offered)) {
        *verdict = dotsIn(offered) < dotsIn(installed) ? TARNWICK_CONTROL_VERDICT_OLDER
                                                       : TARNWICK_CONTROL_VERDICT_NEWER;
        return 0;
    }
    if (parseVersion(installed, &ours) != 0 || parseVersion(offered, &theirs) != 0) {
        return -1;
    }
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
}
