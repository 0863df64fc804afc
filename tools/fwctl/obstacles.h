// What keeps the daemon from updating a pending module just now, for every command that speaks of pending
// modules.
#ifndef TOOLS_FWCTL_OBSTACLES_H
#define TOOLS_FWCTL_OBSTACLES_H

#include <json/json.h>
#include <string>
#include <vector>

#include "tools/fwctl/set-state.h"
#include "tools/fwctl/turn/turn-holder.h"

namespace fwctl
{

struct Obstacle {
    const char* id;     // one word, for a program
    std::string text;   // what is so, and what follows from it
    std::string advice; // what to do; empty when it passes by itself
};

// What the set is doing, found out once.
struct SetScene {
    DaemonState daemon;
    TurnState turn;
    bool isMirrored = false;
    bool isFactory = false;
    bool isListALink = false;
    int powerState = 0; // negative when it cannot be read
};

// Asks over the bus: see set-state.h.
SetScene lookAtSet();

// Empty for a module that is not pending. `module` is as examine() gives it.
std::vector<Obstacle> findObstacles(const SetScene& scene, const Json::Value& module);

// "text; advice"
std::string sentenceOf(const Obstacle& obstacle);

// Looks at the set, when one of the modules is pending, and adds "obstacles", an array of sentences, to each.
void addObstacles(std::vector<Json::Value>& modules);

} // namespace fwctl

#endif
