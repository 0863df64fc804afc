// The end of the service, which the entry of the daemon has and a unit test stands in for.
#ifndef SERVICE_FINALIZE_H
#define SERVICE_FINALIZE_H

// How often it was asked for since the last reset; it returns at once.
int serviceFinalizeCount();
void resetServiceFinalizeCount();

#endif
