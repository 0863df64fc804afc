#include "usb-slot.h"

#include <algorithm>
#include <fstream>
#include <system_error>

namespace vset
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* kDirectory = "/opt/media";
constexpr const char* kStick = "/opt/media/USBDriveA";
constexpr const char* kStaging = "/opt/media/.stick-unfinished";
constexpr size_t kMostBytes = size_t{1} << 30;
constexpr int kDeepest = 8;
constexpr int kMostShown = 100;

std::optional<std::string> told(const std::error_code& error, const std::string& what)
{
    if (!error)
        return std::nullopt;
    return what + ": " + error.message();
}

// A relative path of ordinary names.
bool isSafe(const fs::path& path)
{
    if (path.empty() || path.is_absolute() || std::distance(path.begin(), path.end()) > kDeepest)
        return false;
    return std::all_of(path.begin(), path.end(), [](const fs::path& part) {
        const std::string name = part;
        const bool isControl = std::any_of(name.begin(), name.end(),
                                           [](char c) { return static_cast<unsigned char>(c) < 0x20; });
        return !name.empty() && name != "." && name != ".." && name.size() <= 255 && !isControl;
    });
}

} // namespace

std::optional<std::string> UsbSlot::begin()
{
    std::error_code error;
    fs::remove_all(kStaging, error);
    if (!error)
        fs::create_directory(kStaging, error);
    size_ = 0;
    return told(error, std::string("a stick cannot be put together in ") + kDirectory);
}

std::optional<std::string> UsbSlot::add(const std::string& name, const char* data, size_t size)
{
    const fs::path path(name);
    if (!isSafe(path))
        return "\"" + name + "\" is no name for a file on a stick";
    if (size > kMostBytes - std::min(size_, kMostBytes))
        return "a stick holds at most " + std::to_string(kMostBytes >> 20) + " MiB";
    std::error_code error;
    const fs::path target = fs::path(kStaging) / path;
    fs::create_directories(target.parent_path(), error);
    if (error)
        return told(error, name);
    std::ofstream file(target, std::ios::binary | std::ios::trunc);
    file.write(data, static_cast<std::streamsize>(size));
    file.close();
    if (!file)
        return name + " cannot be written";
    size_ += size;
    return std::nullopt;
}

std::optional<std::string> UsbSlot::insert()
{
    std::error_code error;
    if (!fs::is_directory(kStaging, error))
        return "no stick was put together";
    fs::remove_all(kStick, error);
    if (!error)
        fs::rename(kStaging, kStick, error);
    return told(error, "the stick cannot be inserted");
}

std::optional<std::string> UsbSlot::remove()
{
    std::error_code error;
    if (fs::remove_all(kStick, error) == 0 && !error)
        return "there is no stick in the slot";
    return told(error, "the stick cannot be removed");
}

Json::Value UsbSlot::snapshot() const
{
    Json::Value json;
    std::error_code error;
    json["inserted"] = fs::is_directory(kStick, error);
    json["files"] = Json::arrayValue;
    int more = 0;
    for (fs::recursive_directory_iterator entry(kStick, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        if (!entry->is_regular_file(ignored))
            continue;
        if (static_cast<int>(json["files"].size()) == kMostShown) {
            ++more;
            continue;
        }
        Json::Value file;
        file["name"] = entry->path().lexically_relative(kStick).string();
        file["size"] = Json::UInt64(entry->file_size(ignored));
        json["files"].append(file);
    }
    json["more"] = more;
    return json;
}

} // namespace vset
