// What the signature library of the tests was asked, and what it answers. The test finds it in the library,
// as `signatureRecorder`.
#ifndef TESTS_SUPPORT_SIGNATURE_RECORDER_H
#define TESTS_SUPPORT_SIGNATURE_RECORDER_H

#include <cstddef>

struct SignatureRecorder {
    int answer; // non-zero: signed
    int calls;
    int mode; // of the latest call, as path and caller
    char path[1024];
    char caller[64];
};

#endif
