// Exports the five required functions only.
// finds: nothing
#define OWN_allUpdateDone
#define OWN_doUpdate_decryption
#define OWN_getExpectedTime
#define OWN_getUpdateProgress
#include "chip.h"
