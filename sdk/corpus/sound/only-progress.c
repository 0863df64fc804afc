// Of the optional functions there is only getUpdateProgress.
// finds: nothing
#define OWN_doUpdate_decryption
#define OWN_getExpectedTime
#define OWN_allUpdateDone
#include "base.h"
