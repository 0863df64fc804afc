// Files that must be whole or not there at all, also when the power goes in the middle of a write.
#ifndef VSET_PLATFORMD_FILES_H
#define VSET_PLATFORMD_FILES_H

#include <cstddef>
#include <json/json.h>
#include <optional>
#include <string>

namespace vset
{

// Puts a copy of `source` in place of `target`: written beside it, synchronised, renamed, and the directory
// synchronised. Throws std::system_error; nothing is left behind then. Any thread.
void copyIntoPlace(const std::string& source, const std::string& target);

// The same for a text. With kUntilPowerOff nothing is synchronised: whole for whoever looks, gone with
// the power.
enum class Keeping { kForGood, kUntilPowerOff };
void saveText(const std::string& path, const std::string& text, Keeping keeping = Keeping::kForGood);
void saveJson(const std::string& path, const Json::Value& value, Keeping keeping = Keeping::kForGood);

// What is in a regular file; nothing when there is none, when it is something else, which might never end, or
// longer than `limit` bytes.
std::optional<std::string> readFile(const std::string& path, size_t limit = size_t{1} << 20);

// The JSON object of a file; an empty object when there is none. One that cannot be read is told on stderr,
// kept aside under the name with ".broken", and counts as empty: the set must come up.
Json::Value loadJson(const std::string& path);

// Removes what a killed process left beside `directory`'s files.
void removeUnfinished(const std::string& directory);

} // namespace vset

#endif
