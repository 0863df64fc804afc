// What the upgrade UI shows, and what its buttons do, without screen, bus or clock.
//
//   Offered --accept--> Accepted --key 2--> Running --key 3--> Finished --close--> Closed
//      |  decline, close (not when the update is forced)                             ^
//      +------------------------------------------------------------------------------+
#ifndef VSET_UPGRADE_UI_OFFER_H
#define VSET_UPGRADE_UI_OFFER_H

#include <json/json.h>
#include <map>
#include <string>

namespace upgradeUI
{

// Values of the status key: what the UI says to the daemon, and the daemon to the UI.
inline constexpr int kAccepted = 1;
inline constexpr int kRunning = 2;
inline constexpr int kFinished = 3;
inline constexpr int kClosed = 4;

enum class View { Offered, Accepted, Running, Finished, Closed };

class Offer
{
public:
    // As the launch request has them: "updatetype", "timeinfo" (seconds) and "uitype" ("force" or "select").
    // What is missing or malformed counts as "select" and as no known time.
    explicit Offer(const std::map<std::string, std::string>& extras);

    View view() const { return view_; }
    bool isForced() const { return isForced_; }
    int seconds() const { return seconds_; }

    // A click: the value that the status key gets for it, or 0 when there is no such button now.
    int click(const std::string& button);

    // What the keys have become. Each is true when the UI shows something new.
    bool takeStatus(int value);
    bool takeProgress(int percent);

    // What is on the screen: {"application", "view", "uitype", "kicker", "title", "text", "seconds",
    // "progress", "buttons": [{"id", "label", "primary"}]}
    Json::Value screen() const;

    // The same for a terminal, in one line.
    std::string line() const;

private:
    bool isForced_ = false;
    int seconds_ = 0;
    int progress_ = 0;
    View view_ = View::Offered;
};

} // namespace upgradeUI

#endif
