// The end of the service, which the entry of the daemon has and a unit test stands in for.
#ifndef TESTS_SUPPORT_SERVICE_FINALIZE_H
#define TESTS_SUPPORT_SERVICE_FINALIZE_H

// How often it was asked for since the last reset; it returns at once.
int serviceFinalizeCount();
void resetServiceFinalizeCount();

#endif
