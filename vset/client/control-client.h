// Sees and steers a set: from outside by its directory, or from a program inside.
//
// Every failure is a ControlError with a text for a person. A client belongs to one thread at a time; several
// clients may be used at once. No main loop is needed.
#ifndef VSET_CLIENT_CONTROL_CLIENT_H
#define VSET_CLIENT_CONTROL_CLIENT_H

#include <chrono>
#include <functional>
#include <json/json.h>
#include <stdexcept>
#include <string>

#include "common/glib-pointers.h"

namespace vset
{

class ControlError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A text for callConsole(), as long as `text`: GLib would send another one in the place of bytes that are no
// UTF-8, which are refused here. Throws ControlError.
const char* busText(const std::string& text);

class ControlClient
{
public:
    // Of the running set in the directory `set`, as `vset run` got it. So long a call, and the way to the
    // bus, may take.
    static ControlClient ofSet(const std::string& set,
                               std::chrono::milliseconds longest = std::chrono::seconds(10));
    // Of the set that this process runs in.
    static ControlClient inside();

    ~ControlClient();
    ControlClient(ControlClient&& other) noexcept;
    ControlClient& operator=(ControlClient&&) = delete;

    // Everything that the platform knows; docs/vset-commands.md lists the sections.
    Json::Value snapshot() const;

    void setSetting(const std::string& key, int value) const;
    void removeSetting(const std::string& key) const;
    void setPowerState(int state) const;
    void powerOff(int reason) const;
    void reboot(unsigned int reason) const;
    void setProperty(int key, const std::string& value) const;
    void setPackageDelay(unsigned int milliseconds) const;
    void setPackageManagerDelay(int milliseconds) const; // negative: never
    void replyLaunch(unsigned int launch, int result) const;

    // `call` as its header declares it; PS_Mount, PS_Mknod and PS_Umount too (root only, and no `argument`).
    // `argument` empty: whatever the call is about. `count` below 0: until it is reset.
    void setFault(const std::string& call, int result, int count = -1,
                  const std::string& argument = "") const;
    void setDelay(const std::string& call, unsigned int milliseconds, int count = -1,
                  const std::string& argument = "") const;
    void resetFaults(const std::string& call = "") const;

    // A method of the set's console, org.pellor.platform.Console. Takes `parameters` over.
    common::GlibPointer<GVariant> callConsole(const char* method, GVariant* parameters = nullptr,
                                              const char* replyType = "()") const;

    // Waits until `condition` is true of a snapshot, which it is asked at every change of the set, and gives
    // that snapshot. Throws ControlError when it is not after `limit`, of this process's time.
    Json::Value waitUntil(const std::function<bool(const Json::Value&)>& condition,
                          std::chrono::milliseconds limit) const;

private:
    ControlClient(const std::string& socketPath, const std::string& whereabouts,
                  std::chrono::milliseconds longest);

    common::GlibPointer<GVariant> call(const char* method, GVariant* parameters,
                                       const char* replyType = "()") const;
    common::GlibPointer<GVariant> callInterface(const char* interface, const char* method,
                                                GVariant* parameters, const char* replyType) const;
    void setMountFault(const std::string& call, int returned, int result, int count) const;

    std::string whereabouts_; // of the set, for error texts
    int longest_;             // milliseconds of a call
    common::GlibPointer<GMainContext> context_;
    common::GlibPointer<GDBusConnection> bus_;
};

} // namespace vset

#endif
