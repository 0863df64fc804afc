#include "tests/proof/crashes/story.h"

#include <algorithm>
#include <stdexcept>

namespace proof
{

const std::vector<CrashStory>& crashStories()
{
    using Source = CrashStory::Source;
    static const std::vector<CrashStory> all = {
        {"check", "a boot that asks for a package, has none yet, and ends", "tuner", "Tuner", Source::kFeed},
        {"standby", "a boot with a package, the check, and its unattended update", "tuner", "Tuner",
         Source::kDelivered},
        {"accept", "a boot with a new system image, its offer, the accepted update, and the reboot", "panel",
         "Panel", Source::kBuiltIn},
    };
    return all;
}

const CrashStory& crashStoryNamed(const std::string& name)
{
    const auto found = std::find_if(crashStories().begin(), crashStories().end(),
                                    [&](const CrashStory& story) { return story.name == name; });
    if (found == crashStories().end()) {
        throw std::invalid_argument("there is no story \"" + name + "\"; --list has them");
    }
    return *found;
}

} // namespace proof
