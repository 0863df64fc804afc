#include "vset/platformd/model/packages.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

#include "common/terminal/visible-text.h"
#include "vset/platformd/files.h"
#include "vset/platformd/guarded.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

// A name that can be a file's: nothing that leads out of the feed.
bool isPackageName(const std::string& name)
{
    constexpr size_t kLongestName = 200;
    const auto isAllowed = [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.';
    };
    return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isAllowed);
}

} // namespace

struct Packages::Delivery {
    Packages* packages = nullptr;
    unsigned int id = 0;
    std::string source;
    std::string target;
    std::string error;

    void copy()
    {
        try {
            copyIntoPlace(source, target);
        } catch (const std::exception& failure) {
            error = failure.what();
        }
    }

    static gboolean onCopied(gpointer data)
    {
        const std::unique_ptr<Delivery> delivery(static_cast<Delivery*>(data));
        const char* const state = delivery->error.empty() ? "delivered" : "failed";
        guarded("a delivery", [&] { delivery->packages->finish(delivery->id, state, delivery->error); });
        return G_SOURCE_REMOVE;
    }
};

Packages::Packages(Places places) : places_(std::move(places)), boot_(monotonicMilliseconds())
{
    removeUnfinished(places_.target);
    const Json::Value kept = loadJson(places_.options);
    if (kept["delay_ms"].isUInt()) {
        options_.delay = kept["delay_ms"].asUInt();
    }
    if (kept["manager_delay_ms"].isInt()) {
        options_.managerDelay = kept["manager_delay_ms"].asInt();
    }
    std::error_code ignored;
    isReady_ = fs::exists(places_.readyMarker, ignored); // this service has crashed since the boot
    if (!isReady_) {
        scheduleMarker();
    }
}

// ---- Requests ----

void Packages::request(const Client& client, unsigned int token, const std::string& package)
{
    PackageRequest request;
    request.id = ++lastId_;
    request.token = token;
    request.package = package;
    request.client = client;
    request.time = wallMilliseconds();
    request.state = "waiting";
    requests_.add(request);

    auto waiting = std::make_unique<Waiting>();
    waiting->id = request.id;
    waiting->timer.start(options_.delay, [this, id = request.id] { deliver(id); });
    waiting_.push_back(std::move(waiting));
    changed.tell();
}

PackageRequest* Packages::find(unsigned int id)
{
    for (PackageRequest& request : requests_) {
        if (request.id == id) {
            return &request;
        }
    }
    return nullptr; // fell out of the history
}

void Packages::deliver(unsigned int id)
{
    waiting_.remove_if([id](const std::unique_ptr<Waiting>& waiting) { return waiting->id == id; });
    PackageRequest* const request = find(id);
    if (request == nullptr) {
        return;
    }
    const std::string file = request->package + ".img";
    const fs::path source = fs::path(places_.feed) / file;
    std::error_code ignored;
    if (!isPackageName(request->package) || !fs::exists(source, ignored)) {
        fprintf(stderr, "platformd: package \"%s\" is not in the feed\n",
                common::visible(request->package).c_str());
        finish(id, "unknown", "the feed has no " + file);
        return;
    }
    request->state = "delivering";
    changed.tell();
    // A large image takes its time, in which the other services go on.
    auto delivery = std::make_unique<Delivery>();
    delivery->packages = this;
    delivery->id = id;
    delivery->source = source;
    delivery->target = fs::path(places_.target) / file;
    std::thread([work = std::move(delivery)]() mutable {
        work->copy();
        g_idle_add(Delivery::onCopied, work.release());
    }).detach();
}

void Packages::finish(unsigned int id, const char* state, const std::string& error)
{
    if (!error.empty() && std::string(state) == "failed") {
        fprintf(stderr, "platformd: a package cannot be delivered: %s\n", common::visible(error).c_str());
    }
    PackageRequest* const request = find(id);
    if (request == nullptr) {
        return;
    }
    request->state = state;
    request->error = error;
    request->end = wallMilliseconds();
    done.tell(*request);
    changed.tell();
}

// ---- Options and the ready marker ----

std::optional<std::string> Packages::setDelay(unsigned int milliseconds)
{
    Options next = options_;
    next.delay = milliseconds;
    return setOptions(next);
}

std::optional<std::string> Packages::setManagerDelay(int milliseconds)
{
    Options next = options_;
    next.managerDelay = milliseconds;
    auto fault = setOptions(next);
    if (!fault && !isReady_) {
        scheduleMarker();
    }
    return fault;
}

std::optional<std::string> Packages::setOptions(const Options& next)
{
    Json::Value json;
    json["delay_ms"] = next.delay;
    json["manager_delay_ms"] = next.managerDelay;
    try {
        saveJson(places_.options, json);
    } catch (const std::system_error& error) {
        return std::string("the package service's options cannot be kept: ") + error.what();
    }
    options_ = next;
    changed.tell();
    return std::nullopt;
}

void Packages::scheduleMarker()
{
    markerTimer_.stop();
    if (options_.managerDelay < 0) {
        return;
    }
    const int64_t left = boot_ + options_.managerDelay - monotonicMilliseconds();
    if (left <= 0) {
        raiseMarker();
    } else {
        markerTimer_.start(left, [this] { raiseMarker(); });
    }
}

void Packages::raiseMarker()
{
    const int file = open(places_.readyMarker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (file < 0) {
        fprintf(stderr, "platformd: cannot make %s: %s\n", places_.readyMarker.c_str(),
                std::generic_category().message(errno).c_str());
        return;
    }
    close(file);
    isReady_ = true;
    changed.tell();
}

Json::Value Packages::snapshot() const
{
    Json::Value json;
    json["delay_ms"] = options_.delay;
    json["manager_delay_ms"] = options_.managerDelay;
    json["manager_ready"] = isReady_;
    json["requests"] = Json::arrayValue;
    for (const PackageRequest& request : requests_) {
        Json::Value entry;
        entry["id"] = request.id;
        entry["package"] = request.package;
        entry["client"] = toJson(request.client);
        entry["time_ms"] = Json::Int64(request.time);
        entry["end_ms"] = request.end != 0 ? Json::Value(Json::Int64(request.end)) : Json::Value();
        entry["state"] = request.state;
        entry["error"] = request.error;
        json["requests"].append(entry);
    }
    return json;
}

} // namespace vset
