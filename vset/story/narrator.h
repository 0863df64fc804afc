// Tells the daemon's log in sentences for somebody who does not know its messages.
#ifndef VSET_STORY_NARRATOR_H
#define VSET_STORY_NARRATOR_H

#include <string>

#include "common/daemon/daemon-events.h"

namespace vset
{

class Narrator
{
public:
    // The sentence for an event. Empty for one that carries the story no further: a repeated state, or one
    // that only an engineer needs.
    std::string tell(const common::DaemonEvent& event);

private:
    std::string tellState(int state);

    int state_ = -1;
};

} // namespace vset

#endif
