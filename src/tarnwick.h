// What the process offers to the rooms below it.
#ifndef TARNWICK_H
#define TARNWICK_H

// Ends the service: releases subscriptions, power lock, watchdog, timers and the list file, and ends the
// process with quick_exit(0). It runs once, whichever thread asks first, and then does not return; a later
// caller gets control back at once while the first one is still at work.
void service_finalize();

#endif
