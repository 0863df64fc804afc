// System information: texts by number, kept over a reboot.
#ifndef VSET_PLATFORMD_MODEL_PROPERTIES_H
#define VSET_PLATFORMD_MODEL_PROPERTIES_H

#include <json/json.h>
#include <map>
#include <optional>
#include <string>

#include "vset/platformd/event.h"

namespace vset
{

class Properties
{
public:
    static constexpr int kSoftwareVersion = 128;

    // Reads what was set before from `file`.
    explicit Properties(std::string file);

    std::optional<std::string> get(int key) const;
    // The text of what went wrong, or nothing; then the value is on the disk.
    std::optional<std::string> set(int key, const std::string& value);

    // Keys are texts of numbers: {"128": "..."}.
    Json::Value snapshot() const { return asJson(values_); }

    Event<> changed;

private:
    using Values = std::map<int, std::string>;

    static Json::Value asJson(const Values& values);

    std::string file_;
    Values values_;
};

} // namespace vset

#endif
