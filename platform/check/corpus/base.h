/* The way from a platform of this corpus to the sound one, whose functions stand behind its own. */
#ifndef PLATFORM_CHECK_CORPUS_BASE_H
#define PLATFORM_CHECK_CORPUS_BASE_H

#include <dlfcn.h>

/* The sound platform's function of that name. */
#define HOST(function) (__extension__(__typeof__(&function)) dlsym(RTLD_NEXT, #function))

#endif
