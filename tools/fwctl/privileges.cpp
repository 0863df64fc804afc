#include "tools/fwctl/privileges.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <unistd.h>

#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/set-state.h"

namespace fwctl
{

namespace
{
// In a child: the question to the bus starts threads, and the answer is needed before any.
std::optional<uid_t> askForDaemonUser()
{
    const Json::Value told = runIsolated([](Telling& telling) {
        if (const auto user = daemonUser()) {
            telling.put("user", *user);
        }
    });
    return told.isMember("user") ? std::optional<uid_t>(told["user"].asUInt()) : std::nullopt;
}

std::string nameOf(uid_t user)
{
    const passwd* const entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : "number " + std::to_string(user);
}

// In a user namespace of one user there is no other one to become: root is the daemon's user there.
bool isMapped(uid_t user)
{
    const uid_t current = geteuid();
    if (seteuid(user) != 0) {
        return false;
    }
    return seteuid(current) == 0;
}

void become(uid_t user)
{
    const passwd* const entry = getpwuid(user);
    const gid_t group = entry != nullptr ? entry->pw_gid : getegid();
    const bool hasGroups = entry == nullptr || initgroups(entry->pw_name, group) == 0;
    if (!hasGroups || setresgid(group, group, group) != 0 || setresuid(user, user, user) != 0) {
        throw common::Failure("cannot go on as the daemon's user " + nameOf(user) + ": " +
                              std::strerror(errno));
    }
}
} // namespace

std::optional<uid_t> likelyUpdater()
{
    const std::optional<uid_t> user = usualDaemonUser();
    if (!user || (*user != geteuid() && geteuid() != 0)) {
        return std::nullopt;
    }
    return *user == geteuid() || isMapped(*user) ? *user : geteuid();
}

uid_t requireUpdater()
{
    const uid_t user = askForDaemonUser().value_or(geteuid());
    if (user != geteuid() && geteuid() != 0) {
        throw common::Failure("this needs root or the daemon's user " + nameOf(user) +
                              ": try again with sudo");
    }
    return user == geteuid() || isMapped(user) ? user : geteuid();
}

void becomeUser(uid_t user)
{
    if (user != geteuid()) {
        become(user);
    }
}

void becomeLikelyUpdater()
{
    if (const std::optional<uid_t> user = likelyUpdater()) {
        becomeUser(*user);
    }
}

void becomeDaemonUser()
{
    becomeUser(requireUpdater());
}

} // namespace fwctl
