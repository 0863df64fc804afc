/* System information. */
#ifndef SYSPROP_H
#define SYSPROP_H

#ifdef __cplusplus
extern "C" {
#endif

/* 0 = success: `*value` is allocated with malloc and freed by the caller, a text of its own for each call. A
 * key without a value is a failure. Key 128 is the software's version, "MODEL-VERSION", with a dash between
 * the two: encrypted images are refused without it. */
int sysprop_get_value_string(int key, char** value);

#ifdef __cplusplus
}
#endif

#endif
