// A set with a signature library, which the daemon loads once per process and from the system image.
#ifndef TESTS_SUPPORT_SIGNATURE_SET_H
#define TESTS_SUPPORT_SIGNATURE_SET_H

#include <functional>
#include <string>

#include "tests/support/signature-recorder.h"

// Runs `test` in a process of its own that sees the library (signature, signature-without-entry or
// signature-null-entry; none with an empty name) as /usr/lib/libkZORUser.so, in mounts of its own. Failed
// expectations of the test make the call false; what they say is on the output.
bool runWithSignatureLibrary(const std::string& variant, const std::function<void()>& test);

// In such a process: the library's recorder, which stays loaded.
SignatureRecorder& signatureRecorder();

#endif
