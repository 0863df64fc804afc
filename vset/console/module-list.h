// The modules of the set: what is installed, as their own control libraries say, and what is offered to them.
//
// A library is asked by `module-probe`, a process that may hang or crash, as this service's user, who cannot
// write the hardware. The progress that it tells is the true one where a library keeps it in its hardware.
#ifndef VSET_CONSOLE_MODULE_LIST_H
#define VSET_CONSOLE_MODULE_LIST_H

#include <functional>
#include <json/json.h>
#include <map>
#include <string>
#include <vector>

#include "vset/platformd/event.h"

namespace vset
{

class ModuleList
{
public:
    // Asks every library; `done` (may be empty) is called when all have answered. A round that is asked for
    // while one is under way joins it.
    void ask(std::function<void()> done = nullptr);

    // As of the last round. [{"name", "directory", "external", "identifier", "installed", "progress",
    // "error", "pending", "offers": [{"source", "version", "ui_use", "expected_time"}]}]
    Json::Value snapshot() const;

    Event<> changed;

private:
    struct Package {
        std::string key; // of the file that was read: path, size and time
        Json::Value information;
    };

    void take(const std::string& library, const Json::Value& answer);
    void finishRound();
    void addOffers(Json::Value& module);
    Json::Value informationOfPackage(const std::string& path);

    std::map<std::string, Json::Value> modules_; // by the library's path
    std::map<std::string, Package> packages_;    // by the image's path
    std::vector<std::function<void()>> waiting_;
    size_t unanswered_ = 0;
    Json::Value shown_; // null until the first round has ended
};

} // namespace vset

#endif
