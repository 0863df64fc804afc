// What the set is doing when it is hit.
#ifndef TESTS_PROOF_CRASHES_STORY_H
#define TESTS_PROOF_CRASHES_STORY_H

#include <string>
#include <vector>

namespace proof
{

struct CrashStory {
    const char* name;
    const char* summary;
    const char* chip;     // that gets version 1.1 in the end
    const char* firmware; // its images' name
    enum class Source { kFeed, kDelivered, kBuiltIn } source;
};
const std::vector<CrashStory>& crashStories();
const CrashStory& crashStoryNamed(const std::string& name); // std::invalid_argument: there is none

} // namespace proof

#endif
