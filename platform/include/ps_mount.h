/* Privileged mount service. A call succeeded when its return value and `*result` are both 0.
 *
 * The daemon calls from a thread of its own; answers come within ten seconds. `*result` is 0 before every
 * call, and a platform may tell a failure by either. Success is said of what is done: a mount that is there
 * when the call has returned, an unmount after which it is gone and its loop device is free. A mount outlives
 * the process that has asked for it, and any process unmounts it. A mount that is busy, an image or a
 * directory that is missing, and a file that is no image are refused.
 *
 * A package is mounted by "-o ro,loop,nodev,nosuid IMAGE DIRECTORY": a loop device (/dev/loopN in
 * /proc/mounts) that is read-only, without device files and without set-user-ID, with the image's content
 * as it is at the mount, seen by every process. A refused mount leaves nothing behind. Nodes are made by
 * "-m 0660 -Z * /dev/loopN  b 7 N".
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
