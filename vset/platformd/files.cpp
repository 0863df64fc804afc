#include "vset/platformd/files.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/files/file-copy.h"
#include "common/files/regular-file.h"
#include "common/files/unique-fd.h"
#include "common/json-text.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* kUnfinished = ".unfinished-";

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

common::UniqueFd opened(int number, const std::string& path)
{
    if (number < 0) {
        fail(path);
    }
    return common::UniqueFd(number);
}

void writeAll(int file, const char* data, size_t size, const std::string& path)
{
    while (size > 0) {
        const ssize_t written = write(file, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            fail(path);
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
}

void synchronizeDirectory(const fs::path& directory)
{
    const common::UniqueFd descriptor =
        opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), directory);
    if (fsync(descriptor.get()) != 0) {
        fail(directory);
    }
}

// Lets `fill` write a new file and puts it in place of `target`.
void replaceFile(const fs::path& target, const std::function<void(int file, const std::string& name)>& fill,
                 Keeping keeping = Keeping::kForGood)
{
    const bool isForGood = keeping == Keeping::kForGood;
    std::string name = target.parent_path() / (kUnfinished + target.filename().string() + "-XXXXXX");
    const common::UniqueFd file = opened(mkostemp(name.data(), O_CLOEXEC), name);
    try {
        fill(file.get(), name);
        if (fchmod(file.get(), 0644) != 0 || (isForGood && fsync(file.get()) != 0)) {
            fail(name);
        }
        if (rename(name.c_str(), target.c_str()) != 0) {
            fail(target);
        }
    } catch (...) {
        unlink(name.c_str());
        throw;
    }
    if (isForGood) {
        synchronizeDirectory(target.parent_path());
    }
}

} // namespace

// With its holes: a large file with little in it does not fill the disk.
void copyIntoPlace(const std::string& source, const std::string& target)
{
    std::error_code ignored;
    if (!fs::is_regular_file(fs::symlink_status(source, ignored))) {
        throw std::system_error(EINVAL, std::generic_category(), source + " is not a file");
    }
    replaceFile(target, [&](int, const std::string& name) { common::copyFile(source, name); });
}

void saveText(const std::string& path, const std::string& text, Keeping keeping)
{
    const auto fill = [&](int file, const std::string& name) {
        writeAll(file, text.data(), text.size(), name);
    };
    replaceFile(path, fill, keeping);
}

void saveJson(const std::string& path, const Json::Value& value, Keeping keeping)
{
    saveText(path, common::indentedJson(value) + "\n", keeping);
}

std::optional<std::string> readFile(const std::string& path, size_t limit)
{
    std::string problem;
    return common::readRegularFile(path, limit, problem);
}

Json::Value loadJson(const std::string& path)
{
    std::error_code ignored;
    if (!fs::exists(fs::symlink_status(path, ignored))) {
        return Json::objectValue;
    }
    std::string why = "no file, or longer than 16 MiB";
    if (const auto text = readFile(path, common::JsonLimits().bytes)) {
        if (auto value = common::parseJsonObject(*text, &why)) {
            return *std::move(value);
        }
    }
    fs::rename(path, path + ".broken", ignored);
    fprintf(stderr, "platformd: %s is not readable (%s) and starts empty; it was kept as %s.broken\n",
            path.c_str(), why.c_str(), path.c_str());
    return Json::objectValue;
}

void removeUnfinished(const std::string& directory)
{
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, ignored)) {
        if (entry.path().filename().string().rfind(kUnfinished, 0) == 0) {
            fs::remove(entry.path(), ignored);
        }
    }
}

} // namespace vset
