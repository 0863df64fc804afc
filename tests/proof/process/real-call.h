// The C library's own function behind one that this room takes over: real(&poll, "poll").
#ifndef TESTS_PROOF_PROCESS_REAL_CALL_H
#define TESTS_PROOF_PROCESS_REAL_CALL_H

#include <dlfcn.h>

namespace proof
{

template <typename Function>
Function* real(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace proof

#endif
