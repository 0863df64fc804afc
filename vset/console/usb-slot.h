// The USB slot: /opt/media/USBDriveA is there while a stick is in it.
//
// Files come over the console in the browser, one by one, into a place beside it, and appear together when
// the stick is inserted. `vset usb` puts a directory there in the same way. Main thread only.
#ifndef VSET_CONSOLE_USB_SLOT_H
#define VSET_CONSOLE_USB_SLOT_H

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <json/json.h>
#include <memory>
#include <optional>
#include <string>

namespace vset
{

class StickFile;

class UsbSlot
{
public:
    static constexpr size_t kMostOfFile = size_t{256} << 20; // bytes
    static constexpr size_t kMostOfStick = size_t{1} << 30;

    // Removes what an earlier life has left unfinished.
    UsbSlot();

    // Each gives the text of what is wrong, or nothing.
    std::optional<std::string> begin();  // a new stick, empty
    std::optional<std::string> insert(); // takes the place of one that is in
    std::optional<std::string> remove();

    // A file for the stick that was begun: a path of at most eight ordinary names. On a fault there is no
    // file.
    struct NewFile {
        std::unique_ptr<StickFile> file;
        std::string fault;
    };
    NewFile add(const std::string& name);

    // {"inserted", "files": [{"name", "size"}]}, of at most a hundred files, with "more" beyond.
    Json::Value snapshot() const;

private:
    friend class StickFile;

    unsigned int stick_ = 0; // counts the calls of begin()
    unsigned int files_ = 0; // that were ever added
    size_t size_ = 0;        // of what was added since begin(), unfinished files too
};

// A file that arrives in pieces: on the stick once it is whole, and nowhere when it is given up before. The
// slot must outlive it.
class StickFile
{
public:
    ~StickFile();
    StickFile(const StickFile&) = delete;
    StickFile& operator=(const StickFile&) = delete;

    // Each gives the text of what is wrong, or nothing.
    std::optional<std::string> write(const char* data, size_t size);
    std::optional<std::string> finish();

private:
    friend class UsbSlot;
    StickFile(UsbSlot& slot, std::string name, const std::filesystem::path& unfinished);

    UsbSlot& slot_;
    const unsigned int stick_;
    const std::string name_;
    const std::filesystem::path unfinished_;
    std::ofstream file_;
    size_t size_ = 0;
    bool isFinished_ = false;
};

} // namespace vset

#endif
