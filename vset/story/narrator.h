// Tells the daemon's log in sentences for somebody who does not know its messages.
#pragma once

#include <string>

namespace vset
{

class Narrator
{
public:
    // The sentence for a message of the platform log, without the location in front of it. Empty for a
    // message that carries the story no further: a repeated state, or one that only an engineer needs.
    std::string tell(const std::string& message);

private:
    std::string tellState(int state);

    int state_ = -1;
};

} // namespace vset
