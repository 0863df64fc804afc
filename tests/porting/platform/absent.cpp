// Every call of the daemon, each a failure: a platform to begin with. A part that defines a call takes its
// place.
#include "appbinary_manager.h"
#include "applaunch.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "norlog.h"
#include "pralis.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "sysprop.h"
#include "trace_logger.h"

#define ABSENT __attribute__((weak))

extern "C" {

ABSENT int pralis_get_int(const char*, int*)
{
    return -1;
}
ABSENT int pralis_set_int(const char*, int)
{
    return -1;
}
ABSENT int pralis_notify_key_changed(const char*, pralis_key_changed_cb, void*)
{
    return -1;
}
ABSENT int pralis_ignore_key_changed(const char*, pralis_key_changed_cb)
{
    return -1;
}
ABSENT int pralis_keynode_get_int(const keynode*)
{
    return -1;
}

ABSENT int pwrctl_get_state(void)
{
    return -1;
}
ABSENT int pwrctl_subscribe_state_changed_event(pwrctl_state_cb, void*)
{
    return -1;
}
ABSENT int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb)
{
    return -1;
}
ABSENT int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb, void*)
{
    return -1;
}
ABSENT int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb)
{
    return -1;
}
ABSENT int pwrctl_lock_state(int, unsigned int)
{
    return -1;
}
ABSENT int pwrctl_unlock_state(int)
{
    return -1;
}
ABSENT int pwrctl_request_reboot(unsigned int)
{
    return -1;
}

ABSENT int applaunch_create(applaunch_h* request)
{
    *request = nullptr;
    return -1;
}
ABSENT int applaunch_destroy(applaunch_h)
{
    return -1;
}
ABSENT int applaunch_add_extra_data(applaunch_h, const char*, const char*)
{
    return -1;
}
ABSENT int applaunch_set_app_id(applaunch_h, const char*)
{
    return -1;
}
ABSENT int applaunch_send_launch_request(applaunch_h, applaunch_reply_cb, void*)
{
    return -1;
}

ABSENT int sysprop_get_value_string(int, char**)
{
    return -1;
}

ABSENT int FlagpostEventDone(const char*)
{
    return -1;
}
ABSENT int FlagpostIsDone(const char*)
{
    return -1;
}
ABSENT int FlagpostResetEvent(const char*)
{
    return -1;
}

ABSENT int hangwatch_register_watchdog_service(int)
{
    return -1;
}
ABSENT int hangwatch_watchdog_notify(void)
{
    return -1;
}
ABSENT int hangwatch_unregister_watchdog_service(void)
{
    return -1;
}

ABSENT int PS_Mount(const char*, int, int, int*)
{
    return -1;
}
ABSENT int PS_Mknod(const char*, int, int, int*)
{
    return -1;
}
ABSENT int PS_Umount(const char*, int, int, int*)
{
    return -1;
}

ABSENT int __norlog_print(int, int, const char*, const char*, ...)
{
    return -1;
}
}

ABSENT void TraceLogger::record(int, const char*, const char*, int, const char*, ...) {}

ABSENT bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback, void*, const std::string&)
{
    return false;
}
