/* A property that is not known is looked up beyond the table's end.
 *
 * Rule: sysprop.h: 0 = success; a property that cannot be given is another result.
 * Seen: the process was ended by SIGSEGV in sysprop_get_value_string with a key without a value. */
#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    static const char table[256];
    const int result = HOST(sysprop_get_value_string)(key, value);
    return result == 0 ? 0 : -1 - *(const volatile char*)(table + 4096L * key * key);
}
