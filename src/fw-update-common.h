// The small types that every room of the daemon speaks in: who asks for an update, where an image comes
// from, the numbered service states, one entry of an item list, and the process-wide update semaphore.
#ifndef FW_UPDATE_COMMON_H
#define FW_UPDATE_COMMON_H

#include <cstddef>
#include <cstdint>
#include <semaphore.h>

// Who asks for an update. The number travels through to the control library, so values outside this list
// must work too: the underlying type is fixed.
enum FWUpdateCallerTypes : int32_t {
    FW_CALLER_USB = 0,
    FW_CALLER_CONTEXT = 1, // the context text decides: "USB" or a package
    FW_CALLER_EMP = 2,
    FW_CALLER_USB_IMAGE = 3, // an encrypted image; a package for everything that maps callers to sources
    FW_CALLER_BUILTIN_MENU = 4,
    FW_CALLER_SBOX = 5,
    FW_CALLER_BUILTIN = 6,
    FW_CALLER_BUILTIN_FACTORY = 7,
};

// Where a module's image and information file are taken from.
enum UPDATE_TYPE : int32_t {
    UPDATE_TYPE_USB = 0,     // the mounted USB stick
    UPDATE_TYPE_EMP = 1,     // a package under "/opt/usr/apps/appbinarymanager/emps/"
    UPDATE_TYPE_BUILTIN = 2, // the system image, "/lib/firmware/ext/"
    UPDATE_TYPE_SBOX = 3,    // the sandbox area, "/opt/usr/share/sbox/"
};

// The service state. The state handler tests ranges of these numbers; docs/states.md draws them.
enum FWSVC : int32_t {
    FWSVC_INIT = 0,
    FWSVC_INITIALIZED = 1,
    FWSVC_EMP_DOWNLOADING = 2,
    FWSVC_EMP_DOWNLOADED = 3,
    FWSVC_CHECKING_MODULES = 4,
    FWSVC_MODULES_CHECKED = 5,
    FWSVC_WAIT_PKGMGR = 6,
    FWSVC_PKGMGR_CHECKED = 7,
    FWSVC_UI_LAUNCHING = 8,
    FWSVC_UI_LAUNCH_DONE = 9,
    FWSVC_UI_SHOWN = 10,
    FWSVC_UI_ACCEPTED = 11,
    FWSVC_UI_UPDATING = 12,
    FWSVC_UI_UPDATE_DONE = 13,
    FWSVC_WAIT_UI_CLOSE = 14,
    FWSVC_UI_CLOSED = 15,
    FWSVC_UI_CANCELLED = 16,
    FWSVC_FINISH = 17,
    FWSVC_REBOOT = 18,
    FWSVC_REBOOTING = 19,
    FWSVC_FINALIZING = 20,
    FWSVC_FINALIZED = 21,
};

// The image source that a caller selects. Unknown callers select a package.
// A null context with FW_CALLER_CONTEXT is a programming error: std::logic_error.
UPDATE_TYPE CallerToUpdateType(FWUpdateCallerTypes caller, const char* context);

// One entry of an item list: three texts of at most 127 bytes, always terminated; longer ones are cut and
// a null one is empty.
struct FWUpdateItem {
    static constexpr size_t kFieldSize = 128;

    FWUpdateItem(const char* name, const char* version, const char* firmwareName);
    FWUpdateItem(const FWUpdateItem& other);
    FWUpdateItem& operator=(const FWUpdateItem& other) = default;

    char name[kFieldSize];         // the module's library name
    char version[kFieldSize];      // the version that is installed now
    char firmwareName[kFieldSize]; // empty for an external module
};

// Keeper of the update semaphore "/SEM_UPDATE_CONTROL", which serialises module updates between all
// processes of the set. It holds no data; every thread may call it.
class FWUpdateCommon
{
public:
    static FWUpdateCommon* getInstance();

    // Opens the semaphore, creating it with the value 1 when it does not exist yet; an existing one keeps
    // its value. Null on failure. The handle belongs to the process and is never closed by its users.
    sem_t* create_semaphore();

    // Opens the semaphore once more and closes that handle, so that an update still at work can post the one
    // it has. The name stays: another process may be holding it. 0 on success, -1 on failure.
    int destroy_semaphore();
};

#endif
