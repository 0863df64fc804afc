#include "vset/console/usb-slot.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "common/daemon/places.h"
#include "common/terminal/visible-text.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

using common::places::kStick;
using common::places::kUsbSlot;
constexpr const char* kStaging = "/opt/media/.stick-unfinished";
constexpr const char* kUnfinished = ".upload-"; // beside the stick, so that a file gets its name in one step
constexpr int kDeepest = 8;
constexpr int kMostShown = 100;

std::optional<std::string> told(const std::error_code& error, const std::string& what)
{
    if (!error) {
        return std::nullopt;
    }
    return what + ": " + error.message();
}

// A relative path of ordinary names.
bool isSafe(const fs::path& path)
{
    if (path.empty() || path.is_absolute() || std::distance(path.begin(), path.end()) > kDeepest) {
        return false;
    }
    return std::all_of(path.begin(), path.end(), [](const fs::path& part) {
        const std::string name = part;
        const bool isControl = std::any_of(name.begin(), name.end(),
                                           [](char c) { return static_cast<unsigned char>(c) < 0x20; });
        return !name.empty() && name != "." && name != ".." && name.size() <= 255 && !isControl;
    });
}

} // namespace

UsbSlot::UsbSlot()
{
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(kUsbSlot, error)) {
        std::error_code ignored;
        if (entry.path().filename().string().rfind(kUnfinished, 0) == 0) {
            fs::remove(entry.path(), ignored);
        }
    }
}

std::optional<std::string> UsbSlot::begin()
{
    std::error_code error;
    fs::remove_all(kStaging, error);
    if (!error) {
        fs::create_directory(kStaging, error);
    }
    size_ = 0;
    ++stick_;
    return told(error, std::string("a stick cannot be put together in ") + kUsbSlot);
}

UsbSlot::NewFile UsbSlot::add(const std::string& name)
{
    if (!isSafe(fs::path(name))) {
        return {nullptr, "\"" + common::visible(name) + "\" is no name for a file on a stick"};
    }
    const fs::path unfinished = fs::path(kUsbSlot) / (kUnfinished + std::to_string(++files_));
    std::unique_ptr<StickFile> file(new StickFile(*this, name, unfinished));
    if (!file->file_) {
        return {nullptr, common::visible(name) + " cannot be written"};
    }
    return {std::move(file), ""};
}

std::optional<std::string> UsbSlot::insert()
{
    std::error_code error;
    if (!fs::is_directory(kStaging, error)) {
        return "no stick was put together";
    }
    fs::remove_all(kStick, error);
    if (!error) {
        fs::rename(kStaging, kStick, error);
    }
    return told(error, "the stick cannot be inserted");
}

std::optional<std::string> UsbSlot::remove()
{
    std::error_code error;
    if (fs::remove_all(kStick, error) == 0 && !error) {
        return "there is no stick in the slot";
    }
    return told(error, "the stick cannot be removed");
}

// ---- A file that arrives ----

StickFile::StickFile(UsbSlot& slot, std::string name, const fs::path& unfinished)
    : slot_(slot), stick_(slot.stick_), name_(std::move(name)), unfinished_(unfinished),
      file_(unfinished, std::ios::binary | std::ios::trunc)
{
}

StickFile::~StickFile()
{
    if (isFinished_) {
        return;
    }
    file_.close();
    std::error_code ignored;
    fs::remove(unfinished_, ignored);
    if (stick_ == slot_.stick_) {
        slot_.size_ -= size_;
    }
}

std::optional<std::string> StickFile::write(const char* data, size_t size)
{
    if (stick_ != slot_.stick_) {
        return "another stick was begun meanwhile";
    }
    if (size > UsbSlot::kMostOfFile - size_) {
        return "a file of a stick holds at most " + std::to_string(UsbSlot::kMostOfFile >> 20) + " MiB";
    }
    if (size > UsbSlot::kMostOfStick - slot_.size_) {
        return "a stick holds at most " + std::to_string(UsbSlot::kMostOfStick >> 20) + " MiB";
    }
    if (!file_.write(data, static_cast<std::streamsize>(size))) {
        return common::visible(name_) + " cannot be written: is the disk full?";
    }
    size_ += size;
    slot_.size_ += size;
    return std::nullopt;
}

std::optional<std::string> StickFile::finish()
{
    file_.close();
    if (!file_) {
        return common::visible(name_) + " cannot be written: is the disk full?";
    }
    std::error_code error;
    if (stick_ != slot_.stick_ || !fs::is_directory(kStaging, error)) {
        return "no stick was begun for " + common::visible(name_);
    }
    const fs::path target = fs::path(kStaging) / name_;
    fs::create_directories(target.parent_path(), error);
    if (!error) {
        fs::rename(unfinished_, target, error);
    }
    isFinished_ = !error;
    return told(error, common::visible(name_));
}

// ---- What is shown ----

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
        if (!entry->is_regular_file(ignored)) {
            continue;
        }
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
