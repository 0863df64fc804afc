#include "vset/console/screen.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/glib-pointers.h"
#include "common/json-text.h"
#include "common/process/program.h"
#include "common/process/this-program.h"
#include "common/terminal/visible-text.h"
#include "vset/console/program.h"
#include "vset/platformd/guarded.h"

namespace vset
{

namespace
{

constexpr common::JsonLimits kScreenLimits{65536, 8};
constexpr unsigned int kLongestWait = 3600 * 1000;
constexpr const char* kBehaviours[] = {"interactive", "accept", "decline", "close", "ignore"};

std::vector<std::string> commandLine(const Launch& request, const UiBehaviour& behaviour)
{
    std::vector<std::string> words{common::directoryOfThisProgram() / "upgrade-ui", "--behaviour",
                                   behaviour.name, "--after", std::to_string(behaviour.after)};
    for (const auto& [key, value] : request.extras) {
        words.emplace_back("--extra");
        words.push_back(key);
        words.back().append("=").append(value);
    }
    return words;
}

} // namespace

std::optional<std::string> faultOf(const UiBehaviour& behaviour)
{
    const auto isNamed = [&](const char* name) { return behaviour.name == name; };
    if (std::none_of(std::begin(kBehaviours), std::end(kBehaviours), isNamed)) {
        return "the upgrade UI can be told: interactive, accept, decline, close, ignore; not \"" +
               behaviour.name + "\"";
    }
    if (behaviour.after > kLongestWait) {
        return "the upgrade UI clicks within an hour: at most " + std::to_string(kLongestWait) + " ms";
    }
    return std::nullopt;
}

Json::Value Screen::nothing()
{
    Json::Value json;
    json["shown"] = false;
    return json;
}

Screen::~Screen()
{
    g_clear_object(&process_);
}

bool Screen::launch(const Launch& request, const UiBehaviour& behaviour)
{
    if (process_ != nullptr) {
        return true;
    }
    const std::vector<std::string> command = commandLine(request, behaviour);
    const std::vector<char*> words = common::argumentsOf(command);
    common::ErrorSlot error;
    process_ = g_subprocess_newv(words.data(), G_SUBPROCESS_FLAGS_NONE, error.address());
    if (process_ == nullptr) {
        fprintf(stderr, "platformd: the upgrade UI cannot be started: %s\n", error.text().c_str());
        return false;
    }
    g_subprocess_wait_async(process_, nullptr, onEnd, this);
    return true;
}

void Screen::onEnd(GObject* process, GAsyncResult* result, gpointer self)
{
    g_subprocess_wait_finish(G_SUBPROCESS(process), result, nullptr);
    auto* const screen = static_cast<Screen*>(self);
    g_clear_object(&screen->process_);
    guarded("the end of an application", [&] { screen->clear(); });
}

int Screen::processId() const
{
    const char* const identifier = process_ == nullptr ? nullptr : g_subprocess_get_identifier(process_);
    return identifier == nullptr ? 0 : std::atoi(identifier);
}

std::optional<std::string> Screen::update(const std::string& application, int process,
                                          const std::string& json)
{
    if (process_ != nullptr && process != processId()) {
        return "another application is on the screen";
    }
    std::string why;
    auto shown = common::parseJsonObject(json, &why, kScreenLimits);
    if (!shown) {
        return "what an application shows is one JSON object: " + why;
    }
    (*shown)["shown"] = true;
    shown_ = *std::move(shown);
    application_ = application;
    changed.tell();
    return std::nullopt;
}

std::optional<std::string> Screen::click(const std::string& button)
{
    if (application_.empty()) {
        return "no application is on the screen";
    }
    std::string names;
    for (const Json::Value& shown : shown_["buttons"]) {
        if (!shown.isObject() || !shown["id"].isString()) {
            continue;
        }
        if (shown["id"].asString() == button) {
            send_(application_, button);
            return std::nullopt;
        }
        names += (names.empty() ? "" : ", ") + common::visible(shown["id"].asString());
    }
    return "there is no button \"" + button + "\" on the screen now" +
           (names.empty() ? "; there is none at all" : "; there are: " + names);
}

void Screen::drop(const std::string& application)
{
    if (!application.empty() && application == application_) {
        clear();
    }
}

void Screen::clear()
{
    application_.clear();
    shown_ = nothing();
    changed.tell();
}

} // namespace vset
