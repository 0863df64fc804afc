// Locale and signal mask are changed for this thread, and put back before the call returns.
// finds: nothing
#define OWN_verifySlot
#include <locale.h>
#include <signal.h>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const locale_t locale = newlocale(LC_ALL_MASK, "C.UTF-8", (locale_t)0);
    const locale_t usual = locale == (locale_t)0 ? (locale_t)0 : uselocale(locale);
    const double share = strtod("0.95", NULL);
    pause_ms(10);
    if (locale != (locale_t)0) {
        uselocale(usual);
        freelocale(locale);
    }
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    return share > 0.9 && isImageIn(chip, slot) ? 0 : fail(EIO);
}
