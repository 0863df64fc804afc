// The package service: puts a package from the feed in place some time after it was asked for.
//
// A package NAME is the file NAME.img of the feed directory. It gets to its place whole or not at all:
// whoever looks sees the old image or the new one. A name that the feed does not have is taken like any
// other, and nothing comes. The service also sets the marker that tells other services that it is ready.
#ifndef VSET_PLATFORMD_MODEL_PACKAGES_H
#define VSET_PLATFORMD_MODEL_PACKAGES_H

#include <cstdint>
#include <json/json.h>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/event.h"
#include "vset/platformd/history.h"
#include "vset/platformd/service-time.h"

namespace vset
{

struct PackageRequest {
    unsigned int id = 0;    // ours
    unsigned int token = 0; // the client's
    std::string package;
    Client client;
    int64_t time = 0;  // of the request, wall milliseconds
    int64_t end = 0;   // 0: not yet
    std::string state; // "waiting", "delivering", "delivered", "unknown", "failed"
    std::string error;
};

class Packages
{
public:
    static constexpr unsigned int kDefaultDelay = 300; // milliseconds

    struct Places {
        std::string feed;        // directory
        std::string target;      // directory
        std::string readyMarker; // file, gone at every boot
        std::string options;     // file, kept
    };

    // Lives until the process ends: deliveries under way work on threads of their own.
    explicit Packages(Places places);

    void request(const Client& client, unsigned int token, const std::string& package);

    // Both are kept over a reboot; the text of what went wrong, or nothing.
    std::optional<std::string> setDelay(unsigned int milliseconds);
    // From the boot to the ready marker, negative for never. This boot's as well, if the marker is still
    // missing.
    std::optional<std::string> setManagerDelay(int milliseconds);

    Json::Value snapshot() const;

    Event<const PackageRequest&> done;
    Event<> changed;

private:
    struct Options {
        unsigned int delay = kDefaultDelay;
        int managerDelay = 0;
    };
    struct Waiting {
        unsigned int id;
        Timer timer;
    };
    struct Delivery; // what a delivering thread works on

    std::optional<std::string> setOptions(const Options& next);
    void scheduleMarker();
    void raiseMarker();
    PackageRequest* find(unsigned int id);
    void deliver(unsigned int id);
    void finish(unsigned int id, const char* state, const std::string& error);

    Places places_;
    Options options_;
    int64_t boot_;
    Timer markerTimer_;
    bool isReady_ = false;
    unsigned int lastId_ = 0;
    History<PackageRequest> requests_;
    std::list<std::unique_ptr<Waiting>> waiting_;
};

} // namespace vset

#endif
