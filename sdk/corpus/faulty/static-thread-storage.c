// A large variable per thread in the model for programs, which finds no room in a running process.
// finds: F107
#define OWN_allUpdateDone
#include "base.h"

static __thread volatile unsigned char scratch[1 << 20] __attribute__((tls_model("initial-exec")));

int allUpdateDone(void)
{
    return scratch[progress] == 0 ? 0 : fail(EIO);
}
