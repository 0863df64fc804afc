/*
 * tarnwick/control.h - the plug-in interface between the firmware-update daemon and a control library.
 *
 * A control library is a shared library that knows one piece of hardware: it reads the firmware version that
 * is installed there and writes a new image into it. The daemon knows no hardware; it finds control libraries
 * in two directories, loads them with immediate binding of all symbols, and drives them all through the nine
 * plain C functions declared below. This file is all that a maker needs of the daemon; it needs nothing of it
 * in return: a control library is linked to nothing of ours.
 *
 *
 * Names
 *
 *   /prd/usr/fwupdate/controls/NAME.so   libraries of the product
 *   /usr/fwupdate/controls/NAME.so       libraries of the system image
 *
 * The file name is the whole declaration. NAME is the module's library name: the daemon hands it to
 * setContext and names the module by it. Two kinds of module are told apart by it:
 *
 *   - NAME contains "EXT-" anywhere, in any mix of cases: an external module. Only setContext, the version
 *     functions, doUpdate(NAME, 0), getUpdateProgress and allUpdateDone are ever called; the library finds
 *     and checks its image itself, and takes no part in the unattended and the offered update.
 *   - any other NAME: a module with an identifier (getEMPID), whose images the daemon fetches, mounts and
 *     checks.
 *
 *
 * Results
 *
 * Every function returns int: 0 is success, any other value failure. A failure is logged by the daemon with
 * the value and, after doUpdate, with errno, so set errno to the cause, not to what tidying up behind it has
 * left there. Nothing is retried. No exception may leave a function (the daemon calls through C linkage), and
 * no function may end the process, change its directory, its signal handlers, its locale, its environment,
 * its file mode mask or its limits (setrlimit), not even for a moment (system(3) changes handlers), or leave
 * a timer or an alarm running: the process is shared with every other module, and other threads are at work.
 * Close what a call has opened, and nothing else; change no flag (O_NONBLOCK) of another descriptor; wait for
 * its children. The daemon's own libraries (GLib, Boost, JsonCpp and what they need) are in that process, and
 * their names come first: export nothing but the nine functions.
 *
 *
 * Threads
 *
 * A library must work when it is called on another thread than the one that loaded it. Loading, checks,
 * updates and notices each come from a different thread of the daemon, but one after the other for a given
 * module, with three exceptions: getUpdateProgress is called while doUpdate runs; allUpdateDone is called on
 * the main thread when the set is switched off, also while a check or a write of the same module runs; and
 * after a time-out (below) anything may be. Make progress an atomic variable; guard the hardware with a
 * mutex, but let allUpdateDone not wait for it. Do not start threads that outlive a call.
 *
 *
 * Memory
 *
 * Every pointer belongs to the daemon and is valid during the call only: copy what is needed later, free
 * nothing. Behind the call the memory may hold something else. Text is terminated, without a declared
 * encoding; keep to ASCII.
 *
 *
 * Time, time-outs, power
 *
 *   - The daemon waits for doUpdate for the module's expected time plus two seconds. The expected time is
 *     "expected_time" of the image's information file (300 when it has none), in seconds; choose it with a
 *     margin.
 *   - A call that takes longer is reported as a time-out but not cancelled: it runs on, no longer covered by
 *     the update semaphore and the power lock, the updates of later modules wait behind it, and its result is
 *     lost.
 *   - doUpdate(NAME, 0) and doUpdate_decryption are called without a time-out; the rest holds for them too.
 *   - An update that ends within a few milliseconds may be counted as timed out although it succeeded. Let
 *     every doUpdate take 100 ms or more.
 *   - The questions (every function but the two that update) are asked module after module, while a viewer
 *     may be waiting: answer within a second.
 *   - The process may end, or the power be cut, between any two writes, also in the middle of doUpdate. The
 *     next start must cope: write in an order in which the old or the new firmware is complete at every
 *     moment, and let the next doUpdate start over or resume. What a cut-off update has left, also in a file
 *     that only carries the image, may be of another one: do not take it for this one. Flush the new firmware
 *     (fsync) before the write that makes it the active one, and that write (of a name: the directory) before
 *     you return, and before the old firmware is removed or overwritten. An msync without MS_SYNC flushes
 *     nothing, and sync_file_range not enough. Hardware that has room for one firmware only tells a version
 *     below every other, such as 0.0, until there is a whole one again. Destructors and exit handlers do not
 *     run.
 *
 * The interface is frozen: names, types and numbers below do not change.
 */
#ifndef TARNWICK_CONTROL_H
#define TARNWICK_CONTROL_H

/* Size in bytes of every text buffer that the daemon passes to be filled, the terminator included. */
#define TARNWICK_CONTROL_TEXT_SIZE 128

/* Size in bytes of the version text at the head of an encrypted USB image's content, filled up with zeros. */
#define TARNWICK_CONTROL_VERSION_HEADER_SIZE 64

/* What checkVersion writes: 1 or more = install the offered version, 0 or less = not needed. */
#define TARNWICK_CONTROL_VERDICT_NEWER 1
#define TARNWICK_CONTROL_VERDICT_SAME 0
#define TARNWICK_CONTROL_VERDICT_OLDER (-1)

/*
 * Values of `caller` that the daemon itself uses; a library seldom needs them. The whole range is 0 to 7: 0
 * and 1 (with the context "USB") name an image on a USB stick, 1 to 3 a package, 4, 6 and 7 the system image,
 * 5 the sandbox area. Treat an unknown value like TARNWICK_CONTROL_CALLER_PACKAGE.
 */
#define TARNWICK_CONTROL_CALLER_PACKAGE 2
#define TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE 3
#define TARNWICK_CONTROL_CALLER_SYSTEM_IMAGE 6

/* The nine functions are exported also from a library that is compiled with -fvisibility=hidden. */
#if defined(__GNUC__)
#define TARNWICK_CONTROL_EXPORT __attribute__((visibility("default")))
#else
#define TARNWICK_CONTROL_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Required. Says who asks before the calls that follow: once after loading, then before every check, version
 * query and update. name is the library name; caller as above; context is a text that refines it, usually
 * empty, and may be null. A failure makes the update that would follow fail; elsewhere the result is not
 * looked at. It must be cheap and must not touch the hardware.
 */
TARNWICK_CONTROL_EXPORT int setContext(const char* name, int caller, char* context);

/*
 * Required. Writes the module's identifier into out, a zeroed buffer of TARNWICK_CONTROL_TEXT_SIZE bytes.
 * Called once, when the module is loaded; not at all for an external module. The identifier consists of
 * [0-9A-Za-z] only and contains "emp" in lower case, as in "empTuner"; without its first "emp" it is the
 * firmware name ("Tuner"), after which images are named. The package is the file IDENTIFIER.img. A module
 * whose identifier breaks these rules is not updated. The result is not looked at: leave out empty to report
 * a failure.
 */
TARNWICK_CONTROL_EXPORT int getEMPID(char* out);

/*
 * Required. Writes the version that the hardware runs now into out, a buffer of TARNWICK_CONTROL_TEXT_SIZE
 * bytes. Read it from the hardware, not from a note of the last update: it is what tells whether an update
 * worked. When the hardware does not answer, return a failure instead of what it told before, or of 0.0 for
 * what could not be read. Called on the thread that checks or asks, before and after updates.
 */
TARNWICK_CONTROL_EXPORT int getActiveVersion(char* out);

/*
 * Required. Compares the offered version with the installed one and writes the verdict into *result:
 * TARNWICK_CONTROL_VERDICT_NEWER to have it installed, SAME or OLDER when it is not needed. Values above 1
 * are taken as "install" by an update that is already running, but do not make the module pending: do not use
 * them. Always write *result, also with a failure. A version that cannot be understood, to its last
 * character, is a failure, not a verdict. Versions of numbers and dots are compared number by number from the
 * left, in base 10 and without regard to leading zeros: 1.10 is newer than 1.9, 2.0 newer than 1.1, and 0.9
 * older than both.
 *
 * The text need not be spelled as getActiveVersion spells its own, nor does getActiveVersion's have to be
 * understood here. It comes from "version" in the image's information file, of any length. For an encrypted
 * USB image it is the 64-byte version header, and there any negative verdict counts as "needs an update" in
 * the list of pending modules, although it is not installed. Called at boot for every image found, and again
 * immediately before doUpdate.
 */
TARNWICK_CONTROL_EXPORT int checkVersion(const char* version, int* result);

/*
 * Required. Installs the image and returns when the hardware holds it, verified. Two forms:
 *
 *   doUpdate(path, checksum)   path of the image file, mounted read-only, and "crc" of its information file.
 *                              The daemon has compared the file with that checksum; compare again what was
 *                              read and written. The checksum is a CRC with 32 bits, polynomial 0x01B23CA3,
 *                              initial value 0, most significant bit first, nothing reflected, no final
 *                              exclusive-or; it may be 0.
 *   doUpdate(NAME, 0)          NAME is the library name: find and check the image yourself. External modules
 *                              only ever see this form.
 *
 * Hardware may take a write and hold something else: read back what was written. A write or a flush that
 * fails is a failure of the update.
 *
 * Runs on a worker thread of its own; the updates of two modules do not overlap, but see "Time, time-outs,
 * power" for how long it may and must take and for what happens when it is interrupted. When it fails, the
 * old firmware must still work. Further calls may follow in the same process, after a success as after a
 * failure, and each begins from the beginning.
 */
TARNWICK_CONTROL_EXPORT int doUpdate(const char* name, unsigned long value);

/*
 * Optional. Notice that the update pass is over, sent to every module, updated or not, also when nothing was
 * pending, possibly several times. When the set is switched off it comes on the daemon's main thread, whose
 * watchdog waits meanwhile: return within a second. Then a check or a write of this very module may be at
 * work on another thread, and the process ends right after the notice: it does not mean that the write is
 * over, so release nothing that the write needs, and leave its progress as it is.
 */
TARNWICK_CONTROL_EXPORT int allUpdateDone(void);

/*
 * Optional. Installs the content of an encrypted USB image: data points to length bytes after the version
 * header, decrypted in memory, its signature checked but nothing else. Check it like any input. length can be
 * below 0 for a file that is too short; data is a valid pointer even then. Not called for an external module.
 * Here the daemon sets no time-out.
 */
TARNWICK_CONTROL_EXPORT int doUpdate_decryption(const unsigned char* data, int length);

/*
 * Optional. Writes the duration of an update in seconds into *out. Asked for encrypted USB images, which have
 * no information file; without it they are not offered. Not called for an external module.
 */
TARNWICK_CONTROL_EXPORT int getExpectedTime(int* out);

/*
 * Optional. Writes the progress of the running update in percent, 0 to 100, never falling, into *out; 0
 * before the first update. Called from another thread while doUpdate runs: return at once, never wait for the
 * write.
 */
TARNWICK_CONTROL_EXPORT int getUpdateProgress(unsigned int* out);

/* The types of the functions above, for a program that looks them up by name. */
typedef int tarnwick_setContext_fn(const char* name, int caller, char* context);
typedef int tarnwick_getEMPID_fn(char* out);
typedef int tarnwick_getActiveVersion_fn(char* out);
typedef int tarnwick_checkVersion_fn(const char* version, int* result);
typedef int tarnwick_doUpdate_fn(const char* name, unsigned long value);
typedef int tarnwick_allUpdateDone_fn(void);
typedef int tarnwick_doUpdate_decryption_fn(const unsigned char* data, int length);
typedef int tarnwick_getExpectedTime_fn(int* out);
typedef int tarnwick_getUpdateProgress_fn(unsigned int* out);

#ifdef __cplusplus
}
#endif

#endif /* TARNWICK_CONTROL_H */
