// The settings store: integer keys. Keys under "memory/" are forgotten at a reboot of the set.
#ifndef VSET_PLATFORMD_MODEL_SETTINGS_H
#define VSET_PLATFORMD_MODEL_SETTINGS_H

#include <cstdint>
#include <json/json.h>
#include <map>
#include <optional>
#include <string>

#include "vset/platformd/event.h"

namespace vset
{

class Settings
{
public:
    static constexpr size_t kLongestKey = 255;

    // Reads the kept keys from `file`, and adds the set's own keys with the value 0 of a boot.
    explicit Settings(std::string file);

    // Nothing for a key that nobody has set.
    std::optional<int> get(const std::string& key) const;

    // Writes a key. A kept one is on the disk when this returns. The text of what went wrong, or nothing; the
    // value is unchanged then.
    std::optional<std::string> set(const std::string& key, int value, const std::string& writer);

    std::optional<std::string> remove(const std::string& key);

    Json::Value snapshot() const;
    // Takes from a snapshot of this boot what is in no file: the keys that are not kept over a boot, and who
    // has written the others. Tells nobody.
    void restore(const Json::Value& snapshot);

    // Every write, also of the same value: a second "declined" is an event, not a state.
    Event<const std::string&, int> written;
    Event<> changed;

private:
    struct Setting {
        int value = 0;
        int64_t time = 0; // of the last write, 0 for none since the boot
        std::string writer;
    };
    using Values = std::map<std::string, Setting>;

    void save(const Values& values) const;

    std::string file_;
    Values values_;
};

} // namespace vset

#endif
