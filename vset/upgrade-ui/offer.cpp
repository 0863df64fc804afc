#include "vset/upgrade-ui/offer.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace upgradeUI
{

namespace
{

constexpr const char* kApplication = "com.olvessa.tv.firmware.update";

std::string valueOf(const std::map<std::string, std::string>& extras, const char* key)
{
    const auto found = extras.find(key);
    return found == extras.end() ? "" : found->second;
}

// A whole number of seconds, above 0; else 0, which is shown as "a moment".
int secondsOf(const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    const bool isNumber = !text.empty() && *end == '\0' && errno == 0;
    return isNumber && value > 0 && value < INT_MAX ? static_cast<int>(value) : 0;
}

std::string duration(int seconds)
{
    if (seconds == 0) {
        return "a moment";
    }
    if (seconds < 90) {
        return "about " + std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
    }
    return "about " + std::to_string((seconds + 30) / 60) + " minutes";
}

struct Button {
    const char* id;
    const char* label;
    bool isPrimary;
};

struct Page {
    View view;
    const char* name;
    const char* title;
};
constexpr Page kPages[] = {
    {View::Offered, "offer", "New firmware is available"},
    {View::Accepted, "accepted", "The update is about to start"},
    {View::Running, "running", "Updating the firmware"},
    {View::Finished, "finished", "The update is finished"},
    {View::Closed, "closed", ""},
};

const Page& pageOf(View view)
{
    for (const Page& page : kPages) {
        if (page.view == view) {
            return page;
        }
    }
    return kPages[0];
}

Json::Value toJson(const Button& button)
{
    Json::Value json;
    json["id"] = button.id;
    json["label"] = button.label;
    json["primary"] = button.isPrimary;
    return json;
}

std::string textOf(View view, bool isForced, int seconds)
{
    switch (view) {
    case View::Offered:
        return isForced ? "It has to be installed and takes " + duration(seconds) +
                              ". The television restarts afterwards."
                        : "Installing it takes " + duration(seconds) +
                              ". The television restarts afterwards. Without it you will be asked again.";
    case View::Accepted:
    case View::Running:
        return "It takes " + duration(seconds) + ". Leave the television on and plugged in.";
    case View::Finished:
        return "Close this message to restart the television with its new firmware.";
    case View::Closed:
        break;
    }
    return "";
}

Json::Value buttonsOf(View view, bool isForced)
{
    Json::Value buttons = Json::arrayValue;
    if (view == View::Offered) {
        buttons.append(toJson({"accept", "Update now", true}));
        if (!isForced) {
            buttons.append(toJson({"decline", "Not now", false}));
            buttons.append(toJson({"close", "Close", false}));
        }
    } else if (view == View::Finished) {
        buttons.append(toJson({"close", "Restart", true}));
    }
    return buttons;
}

} // namespace

Offer::Offer(const std::map<std::string, std::string>& extras)
    : isForced_(valueOf(extras, "uitype") == "force"), seconds_(secondsOf(valueOf(extras, "timeinfo")))
{
}

int Offer::click(const std::string& button)
{
    const bool isLeaving = button == "close" || button == "decline";
    if (view_ == View::Offered && button == "accept") {
        view_ = View::Accepted;
        return kAccepted;
    }
    if (view_ == View::Offered && isLeaving && !isForced_) {
        view_ = View::Closed;
        return kClosed;
    }
    if (view_ == View::Finished && button == "close") {
        view_ = View::Closed;
        return kClosed;
    }
    return 0;
}

// The key is the truth: somebody else may have answered for this UI.
bool Offer::takeStatus(int value)
{
    const View before = view_;
    if (value == kAccepted && view_ == View::Offered) {
        view_ = View::Accepted;
    } else if (value == kRunning) {
        view_ = View::Running;
    } else if (value == kFinished) {
        view_ = View::Finished;
    } else if (value == kClosed && (view_ == View::Offered || view_ == View::Finished)) {
        view_ = View::Closed;
    }
    return view_ != before;
}

bool Offer::takeProgress(int percent)
{
    const bool isNew = percent > progress_ && percent <= 100;
    if (isNew) {
        progress_ = percent;
    }
    return isNew;
}

Json::Value Offer::screen() const
{
    Json::Value json;
    json["application"] = kApplication;
    json["view"] = pageOf(view_).name;
    json["uitype"] = isForced_ ? "force" : "select";
    json["kicker"] = isForced_ ? "Required firmware update" : "Firmware update";
    json["title"] = pageOf(view_).title;
    json["text"] = textOf(view_, isForced_, seconds_);
    json["seconds"] = seconds_;
    json["progress"] = progress_;
    json["buttons"] = buttonsOf(view_, isForced_);
    return json;
}

std::string Offer::line() const
{
    const Json::Value shown = screen();
    std::string line = "shows " + shown["view"].asString();
    if (view_ != View::Closed) {
        line += ": " + shown["title"].asString() + ". " + shown["text"].asString();
    }
    for (const Json::Value& button : shown["buttons"]) {
        line += " [" + button["id"].asString() + "]";
    }
    return line;
}

} // namespace upgradeUI
