// Identifier and version have 127 characters (the package for them: CMakeLists.txt).
// finds: nothing
#define TWENTY "Abcdefghij0123456789"
#define IDENTIFIER "empLong" TWENTY TWENTY TWENTY TWENTY TWENTY TWENTY
#include "base.h"
