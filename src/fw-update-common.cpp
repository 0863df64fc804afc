#include "fw-update-common.h"

#include <cstring>
#include <fcntl.h>
#include <stdexcept>

#include "fw-update-log.h"

UPDATE_TYPE CallerToUpdateType(FWUpdateCallerTypes caller, const char* context)
{
    switch (caller) {
    case FW_CALLER_USB:
        return UPDATE_TYPE_USB;
    case FW_CALLER_CONTEXT:
        if (context == nullptr) {
            throw std::logic_error("an update by context needs a context");
        }
        return strcmp(context, "USB") == 0 ? UPDATE_TYPE_USB : UPDATE_TYPE_EMP;
    case FW_CALLER_BUILTIN_MENU:
    case FW_CALLER_BUILTIN:
    case FW_CALLER_BUILTIN_FACTORY:
        return UPDATE_TYPE_BUILTIN;
    case FW_CALLER_SBOX:
        return UPDATE_TYPE_SBOX;
    case FW_CALLER_EMP:
    case FW_CALLER_USB_IMAGE:
        break;
    }
    return UPDATE_TYPE_EMP;
}

// ---- Item list entry ----

namespace
{

// Fills the rest of the field with zeros, so that no old byte of memory reaches another program.
void copyField(char (&field)[FWUpdateItem::kFieldSize], const char* text)
{
    memset(field, 0, sizeof field);
    if (text != nullptr) {
        memcpy(field, text, strnlen(text, sizeof field - 1));
    }
}

} // namespace

FWUpdateItem::FWUpdateItem(const char* itemName, const char* itemVersion, const char* itemFirmwareName)
{
    copyField(name, itemName);
    copyField(version, itemVersion);
    copyField(firmwareName, itemFirmwareName);
}

FWUpdateItem::FWUpdateItem(const FWUpdateItem& other)
    : FWUpdateItem(other.name, other.version, other.firmwareName)
{
}

// ---- Update semaphore ----

namespace
{

sem_t* openUpdateSemaphore()
{
    sem_t* const semaphore = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
    if (semaphore == SEM_FAILED) {
        FWLOGE("Parent\t: [sem_open] Failed\n");
        return nullptr;
    }
    return semaphore;
}

} // namespace

FWUpdateCommon* FWUpdateCommon::getInstance()
{
    static FWUpdateCommon instance;
    return &instance;
}

sem_t* FWUpdateCommon::create_semaphore()
{
    return openUpdateSemaphore();
}

int FWUpdateCommon::destroy_semaphore()
{
    sem_t* const semaphore = openUpdateSemaphore();
    if (semaphore == nullptr) {
        errno = EINVAL; // as closing a handle that is none would
        return -1;
    }
    return sem_close(semaphore); // the name stays: another process may be holding it
}
