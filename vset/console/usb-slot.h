// The USB slot: /opt/media/USBDriveA is there while a stick is in it.
//
// Files come over the console in the browser, one by one, into a place beside it, and appear together when
// the stick is inserted. `vset usb` puts a directory there in the same way.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <json/json.h>

namespace vset
{

class UsbSlot
{
public:
    // Each gives the text of what is wrong, or nothing.
    std::optional<std::string> begin(); // a new stick, empty
    std::optional<std::string> add(const std::string& name, const char* data, size_t size);
    std::optional<std::string> insert(); // takes the place of one that is in
    std::optional<std::string> remove();

    // {"inserted", "files": [{"name", "size"}]}, of at most a hundred files, with "more" beyond.
    Json::Value snapshot() const;

private:
    size_t size_ = 0; // of what was added since begin()
};

} // namespace vset
