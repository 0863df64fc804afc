#include "tests/proof/failures/exceptions.h"

#include <algorithm>

namespace proof
{

namespace
{

constexpr const char* kNotTakenBack = "the platform does not take it back, and is asked once";
constexpr const char* kDecryption =
    "decryption goes on over what fails in it: header and library judge the rest";

} // namespace

const std::vector<Exception>& exceptions()
{
    static const std::vector<Exception> all = {
        {"released", "subscription of the power state", "pwrctl_unsubscribe_state_changed_event", nullptr,
         nullptr, kNotTakenBack},
        {"released", "subscription of power-off", "pwrctl_unsubscribe_poweroff_event", nullptr, nullptr,
         kNotTakenBack},
        {"released", "power lock", "pwrctl_unlock_state", nullptr, nullptr, kNotTakenBack},
        {"released", "the watchdog", "hangwatch_unregister_watchdog_service", nullptr, nullptr,
         kNotTakenBack},
        {"released", "subscription of the status key", "pralis_ignore_key_changed", nullptr, nullptr,
         kNotTakenBack},
        {"released", "a launch request", "applaunch_destroy", nullptr, nullptr, kNotTakenBack},
        {"list", "the list file", "remove", nullptr, nullptr, kNotTakenBack},
        {"semaphore", "at 0", "sem_post", nullptr, nullptr, kNotTakenBack},
        {"working", "at 1", "pralis_set_int", nullptr, nullptr, kNotTakenBack},
        {"working", "at 1", "pralis_get_int", nullptr, nullptr,
         "the key is released when it reads 1: what cannot be read may be another component's"},
        {"mounts", "is mounted", "PS_Umount", nullptr, nullptr,
         "an unmount is tried once: what stays mounted is mounted over, and one of the two is left"},
        {"mounts", "is mounted", "stat", nullptr, nullptr,
         "a mount point that cannot be looked at is taken for none"},
        {"mounts", "is mounted 1 times", "new", nullptr, nullptr,
         "memory that is short between a write and its unmount leaves the package as after a failed update"},
        {"exit", "has not ended", "pwrctl_subscribe_poweroff_event", nullptr, "factory",
         "in the factory's mode nothing but power-off ends a service that waits for its standby"},
        {"written", "is not whole", "EVP_CipherUpdate", nullptr, "stick", kDecryption},
        {"written", "is not whole", "EVP_CipherFinal_ex", nullptr, "stick", kDecryption},
        {"written", "is not whole", "read", nullptr, "stick", kDecryption},
        {"exit", "has not ended", "pwrctl_subscribe_poweroff_event", "pwrctl_subscribe_state_changed_event",
         nullptr, "a service that waits for its standby, and is told of no change of the power, waits on"},
    };
    return all;
}

const Exception* exceptionOf(const Breach& breach, const Run& run)
{
    const auto hasFailed = [&](const char* call) {
        return std::any_of(run.faults.begin(), run.faults.end(),
                           [&](const Fault& fault) { return fault.call == call; });
    };
    const auto fits = [&](const Exception& exception) {
        return breach.invariant == exception.invariant &&
               breach.text.find(exception.text) != std::string::npos &&
               (exception.story == nullptr || run.story == exception.story) && hasFailed(exception.call) &&
               (exception.beside == nullptr || hasFailed(exception.beside));
    };
    const auto found = std::find_if(exceptions().begin(), exceptions().end(), fits);
    return found != exceptions().end() ? &*found : nullptr;
}

} // namespace proof
