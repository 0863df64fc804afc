/* System information. */
#ifndef SYSPROP_H
#define SYSPROP_H

#ifdef __cplusplus
extern "C" {
#endif

/* 0 = success: `*value` is allocated with malloc and freed by the caller. */
int sysprop_get_value_string(int key, char** value);

#ifdef __cplusplus
}
#endif

#endif
