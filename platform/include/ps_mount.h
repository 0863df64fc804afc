/* Privileged mount service. A call succeeded when its return value and `*result` are both 0.
 *
 * `command` holds the arguments of the mount or mknod utility as one text in a buffer of `length`
 * bytes; `directory` is a path of `length` bytes. `flags` is 0. */
#ifndef PS_MOUNT_H
#define PS_MOUNT_H

#ifdef __cplusplus
extern "C" {
#endif

int PS_Mount(const char* command, int length, int flags, int* result);
int PS_Mknod(const char* command, int length, int flags, int* result);
int PS_Umount(const char* directory, int length, int flags, int* result);

#ifdef __cplusplus
}
#endif

#endif
