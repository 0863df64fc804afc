// What every variant of the control library does when it is called: it records the call and answers as its
// recorder says. Compiled once for all; entry-points.cpp is what differs.
#ifndef TESTS_SUPPORT_CONTROL_LIBRARIES_RECORDED_CALLS_H
#define TESTS_SUPPORT_CONTROL_LIBRARIES_RECORDED_CALLS_H

class ControlRecorder;

namespace recorded
{

ControlRecorder* controlRecorder();
int setContext(const char* name, int caller, char* context);
int getEMPID(char* out);
int getActiveVersion(char* out);
int checkVersion(const char* version, int* result);
int doUpdate(const char* name, unsigned long value);
int allUpdateDone();
int doUpdate_decryption(const unsigned char* data, int length);
int getExpectedTime(int* out);
int getUpdateProgress(unsigned int* out);

} // namespace recorded

#endif
