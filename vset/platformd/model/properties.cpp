#include "vset/platformd/model/properties.h"

#include <cstdlib>
#include <system_error>
#include <utility>

#include "vset/platformd/files.h"

namespace vset
{

Properties::Properties(std::string file)
    : file_(std::move(file)), values_{{kSoftwareVersion, "VSET-2026-1.0"}}
{
    const Json::Value kept = loadJson(file_);
    for (const std::string& key : kept.getMemberNames()) {
        if (kept[key].isString()) {
            values_[std::atoi(key.c_str())] = kept[key].asString();
        }
    }
}

std::optional<std::string> Properties::get(int key) const
{
    const auto found = values_.find(key);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::optional<std::string> Properties::set(int key, const std::string& value)
{
    Values next = values_;
    next[key] = value;
    try {
        saveJson(file_, asJson(next));
    } catch (const std::system_error& error) {
        return std::string("the system information cannot be kept: ") + error.what();
    }
    values_ = std::move(next);
    changed.tell();
    return std::nullopt;
}

Json::Value Properties::asJson(const Values& values)
{
    Json::Value json = Json::objectValue;
    for (const auto& [key, value] : values) {
        json[std::to_string(key)] = value;
    }
    return json;
}

} // namespace vset
