#include "vset/platformd/model/settings.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "common/daemon/places.h"
#include "vset/platformd/files.h"
#include "vset/platformd/service-time.h"

namespace vset
{

namespace
{

// Keys that other services of a television write at boot.
constexpr const char* kKeysOfTheSet[] = {
    common::places::kProgressKey,
    common::places::kStatusKey,
    common::places::kWorkingKey,
    common::places::kMirroringKey,
};

bool isVolatile(const std::string& key)
{
    return key.rfind("memory/", 0) == 0;
}

std::optional<std::string> faultOf(const std::string& key)
{
    if (key.empty()) {
        return "a settings key has at least one character";
    }
    if (key.size() > Settings::kLongestKey) {
        return "a settings key has at most " + std::to_string(Settings::kLongestKey) + " bytes";
    }
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (std::any_of(key.begin(), key.end(), isControl)) {
        return "a settings key has no control characters";
    }
    return std::nullopt;
}

} // namespace

Settings::Settings(std::string file) : file_(std::move(file))
{
    const Json::Value kept = loadJson(file_);
    for (const std::string& key : kept.getMemberNames()) {
        if (kept[key].isInt() && !faultOf(key) && !isVolatile(key)) {
            values_[key].value = kept[key].asInt();
        }
    }
    for (const char* key : kKeysOfTheSet) {
        values_[key];
    }
}

std::optional<int> Settings::get(const std::string& key) const
{
    const auto found = values_.find(key);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return found->second.value;
}

std::optional<std::string> Settings::set(const std::string& key, int value, const std::string& writer)
{
    if (auto fault = faultOf(key)) {
        return fault;
    }
    const Setting setting = {value, wallMilliseconds(), writer};
    if (isVolatile(key)) {
        values_[key] = setting;
    } else {
        Values next = values_;
        next[key] = setting;
        try {
            save(next);
        } catch (const std::system_error& error) {
            return std::string("the settings cannot be kept: ") + error.what();
        }
        values_ = std::move(next);
    }
    written.tell(key, value);
    changed.tell();
    return std::nullopt;
}

std::optional<std::string> Settings::remove(const std::string& key)
{
    Values next = values_;
    if (next.erase(key) == 0) {
        return "there is no settings key \"" + key + "\"";
    }
    try {
        if (!isVolatile(key)) {
            save(next);
        }
    } catch (const std::system_error& error) {
        return std::string("the settings cannot be kept: ") + error.what();
    }
    values_ = std::move(next);
    changed.tell();
    return std::nullopt;
}

void Settings::save(const Values& values) const
{
    Json::Value kept = Json::objectValue;
    for (const auto& [key, setting] : values) {
        if (!isVolatile(key)) {
            kept[key] = setting.value;
        }
    }
    saveJson(file_, kept);
}

Json::Value Settings::snapshot() const
{
    Json::Value json = Json::objectValue;
    for (const auto& [key, setting] : values_) {
        Json::Value& entry = json[key];
        entry["value"] = setting.value;
        entry["volatile"] = isVolatile(key);
        entry["time_ms"] = Json::Int64(setting.time);
        entry["writer"] = setting.writer;
    }
    return json;
}

void Settings::restore(const Json::Value& snapshot)
{
    if (!snapshot.isObject()) {
        return;
    }
    for (const std::string& key : snapshot.getMemberNames()) {
        const Json::Value& entry = snapshot[key];
        const bool isSetting = entry.isObject() && entry["value"].isInt() && entry["time_ms"].isInt64() &&
                               entry["writer"].isString();
        if (isSetting && !faultOf(key) && (isVolatile(key) || get(key) == entry["value"].asInt())) {
            values_[key] = {entry["value"].asInt(), entry["time_ms"].asInt64(), entry["writer"].asString()};
        }
    }
}

} // namespace vset
