#include <cstdio>

#include "tests/support/signature-recorder.h"

extern "C" SignatureRecorder signatureRecorder;
SignatureRecorder signatureRecorder = {1, 0, 0, "", ""};

#if defined(NULL_ENTRY)
__asm__(".globl verifyFile\n.set verifyFile, 0\n");
#elif !defined(WITHOUT_ENTRY)
extern "C" int verifyFile(int mode, const char* path, const char* caller)
{
    ++signatureRecorder.calls;
    signatureRecorder.mode = mode;
    snprintf(signatureRecorder.path, sizeof signatureRecorder.path, "%s", path);
    snprintf(signatureRecorder.caller, sizeof signatureRecorder.caller, "%s", caller);
    return signatureRecorder.answer;
}
#endif
