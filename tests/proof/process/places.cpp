#include "tests/proof/process/places.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/proof/process/failing.h"
#include "tests/proof/process/real-call.h"

namespace proof
{

Places* places = nullptr;

namespace
{

namespace fs = std::filesystem;

constexpr const char* kControls = "/prd/usr/fwupdate/controls";
constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager";
constexpr const char* kMounts = "/opt/usr/apps/appbinarymanager/emps/";
constexpr const char* kList = "/tmp/fwupdate-off-list.txt";
constexpr const char* kOfTheSet[] = {
    "/prd/", "/usr/fwupdate/", "/opt/",       "/lib/firmware/ext/", "/run/.pkgmgr_ready",
    "/tmp/", "/dev",           "/proc/mounts"};

bool startsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

} // namespace

// An image of the one byte 1, whose checksum is known without a computation, and its information file.
void Places::writeSource(const std::string& directory, const std::string& firmware, const Source& source)
{
    if (source.content == Source::kAbsent) {
        return;
    }
    const fs::path place = directory;
    fs::create_directories(place);
    std::ofstream(place / (firmware + ".bin")) << '\1';
    std::ofstream(place / "info.json")
        << R"({"version": ")" << source.verdict << R"(", "crc": )"
        << (source.content == Source::kBroken ? 1 : 28458147) << R"(, "expected_time": )" << source.expected
        << R"(, "ui_use": ")" << source.uiUse << "\"}";
}

void Places::write(const std::string& directory, const Television& television)
{
    for (const char* const needed :
         {kControls, "/usr/fwupdate/controls", kMounts, "/dev", "/proc", "/run", "/tmp"}) {
        fs::create_directories(directory + needed);
    }
    std::ofstream(directory + "/dev/loop0");
    std::ofstream(directory + "/proc/mounts");
    std::ofstream(directory + "/marker");
    for (const Module& module : television.modules) {
        const std::string firmware = module.id.empty() ? "" : module.id.substr(3);
        fs::create_symlink(std::string(CONTROL_LIBRARIES) + "/" + module.name + ".so",
                           directory + kControls + "/" + module.name + ".so");
        writeSource(directory + "/lib/firmware/ext/" + firmware, firmware, module.builtIn);
        if (module.package.content != Source::kAbsent) {
            std::ofstream(directory + kPackages + "/" + module.id + ".img");
            writeSource(directory + kPackages + "/" + module.id + ".tree", firmware, module.package);
            Source spoilt = module.package;
            spoilt.content = Source::kBroken;
            writeSource(directory + kPackages + "/" + module.id + ".spoilt", firmware, spoilt);
        }
    }
}

bool Places::unmount(const std::string& id)
{
    int& count = mounts[id];
    if (count == 0) {
        return false;
    }
    --count;
    return true;
}

int Places::mountsOf(const std::string& id) const
{
    const auto found = mounts.find(id);
    return found != mounts.end() ? found->second : 0;
}

std::string Places::list() const
{
    if (listFile < 0) {
        return "-";
    }
    std::string text(4096, '\0');
    const ssize_t size = pread(listFile, text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return text;
}

std::optional<std::string> Places::find(const std::string& path) const
{
    const auto isBelow = [&](const char* start) { return startsWith(path, start); };
    if (std::none_of(std::begin(kOfTheSet), std::end(kOfTheSet), isBelow) || startsWith(path, root) ||
        path == "/dev/null" || path == "/dev/urandom") {
        return path;
    }
    const auto marker = markers.find(path);
    if (marker != markers.end()) {
        return marker->second ? std::optional<std::string>(root + "/marker") : std::nullopt;
    }
    if (path == kList) {
        return listFile >= 0 ? std::optional<std::string>(root + "/marker") : std::nullopt;
    }
    if (gone.count(path.substr(path.rfind('/'))) != 0) {
        return std::nullopt;
    }
    if (!startsWith(path, kMounts)) {
        return root + path;
    }
    const std::string inside = path.substr(strlen(kMounts));
    const std::string id = inside.substr(0, inside.find('/'));
    if (id == inside) {
        return id.empty() || mountPoints.count(id) != 0 ? std::optional<std::string>(root + "/tmp")
                                                        : std::nullopt;
    }
    const char* const tree = spoilt.count(id) != 0 ? ".spoilt" : ".tree";
    return mountsOf(id) > 0
               ? std::optional<std::string>(root + kPackages + "/" + id + tree + inside.substr(id.size()))
               : std::nullopt;
}

bool Places::remove(const std::string& path)
{
    if (path == kList && listFile >= 0) {
        listFile = -1; // its descriptor may be another copy's too: left open
        return true;
    }
    const std::optional<std::string> found = find(path);
    if (path == kList || !found || access(found->c_str(), F_OK) != 0) {
        return false;
    }
    gone[path.substr(path.rfind('/'))] = true;
    return true;
}

bool Places::makeDirectory(const std::string& path)
{
    return mountPoints.emplace(path.substr(strlen(kMounts)), true).second;
}

int Places::openList(bool isForWriting)
{
    if (isForWriting) {
        listFile = memfd_create("list", 0);
    }
    return listFile < 0 ? -1 : dup(listFile);
}

namespace
{

// The place of a path as the machine knows it; null, with the error set, when it is not there.
const char* placeOf(const char* path, std::string& place)
{
    if (places == nullptr) {
        return path;
    }
    const std::optional<std::string> found = places->find(path);
    if (!found) {
        errno = ENOENT;
        return nullptr;
    }
    place = *found;
    return place.c_str();
}

// Directories are listed in the order of names, on every machine the same.
struct Listing {
    std::vector<dirent> entries;
    size_t next = 0;
};
std::map<DIR*, Listing> listings;

int openPlace(const char* path, int flags, mode_t mode)
{
    static auto* const realOpen = real(&open, "open");
    std::string place;
    if (places != nullptr && strcmp(path, kList) == 0) {
        return places->openList((flags & O_ACCMODE) != O_RDONLY);
    }
    const char* const found = placeOf(path, place);
    return found != nullptr ? realOpen(found, flags, mode) : -1;
}

FILE* openStream(const char* path, const char* mode)
{
    static auto* const realOpen = real(&fopen, "fopen");
    std::string place;
    if (places != nullptr && strcmp(path, kList) == 0) {
        const int file = places->openList(mode[0] != 'r');
        return file < 0 ? nullptr : fdopen(file, mode);
    }
    const char* const found = placeOf(path, place);
    return found != nullptr ? realOpen(found, mode) : nullptr;
}

dirent* nextEntry(DIR* directory)
{
    static auto* const realRead = real(&readdir, "readdir");
    const auto known = listings.find(directory);
    if (known == listings.end()) {
        return realRead(directory);
    }
    Listing& listing = known->second;
    if (listing.next == 0) {
        while (const dirent* const entry = realRead(directory)) {
            listing.entries.push_back(*entry);
        }
        std::sort(
            listing.entries.begin(), listing.entries.end(),
            [](const dirent& left, const dirent& right) { return strcmp(left.d_name, right.d_name) < 0; });
    }
    return listing.next < listing.entries.size() ? &listing.entries[listing.next++] : nullptr;
}

} // namespace

} // namespace proof

// ---- Calls of the C library ----

using namespace proof; // NOLINT: what follows are its other faces

extern "C" {

int stat(const char* path, struct stat* status)
{
    const failing::Aside aside;
    static const auto realStat =
        reinterpret_cast<int (*)(const char*, struct stat*)>(dlsym(RTLD_NEXT, "stat"));
    std::string place;
    const char* const found = placeOf(path, place);
    return found != nullptr ? realStat(found, status) : -1;
}

int stat64(const char* path, struct stat64* status)
{
    return stat(path, reinterpret_cast<struct stat*>(status));
}

int lstat(const char* path, struct stat* status)
{
    return stat(path, status); // no link of the set is the daemon's business but those to control libraries
}

int lstat64(const char* path, struct stat64* status)
{
    return stat(path, reinterpret_cast<struct stat*>(status));
}

int access(const char* path, int mode)
{
    const failing::Aside aside;
    std::string place;
    const char* const found = placeOf(path, place);
    return found != nullptr ? faccessat(AT_FDCWD, found, mode, 0) : -1;
}

int open(const char* path, int flags, ...)
{
    const failing::Aside aside;
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openPlace(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    const failing::Aside aside;
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openPlace(path, flags, mode);
}

FILE* fopen(const char* path, const char* mode)
{
    const failing::Aside aside;
    return openStream(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    const failing::Aside aside;
    return openStream(path, mode);
}

char* realpath(const char* path, char* resolved)
{
    const failing::Aside aside;
    static auto* const realCall = real(&realpath, "realpath");
    std::string place;
    const char* const found = placeOf(path, place);
    return found != nullptr ? realCall(found, resolved) : nullptr;
}

int mkdir(const char* path, mode_t mode)
{
    const failing::Aside aside;
    static auto* const realCall = real(&mkdir, "mkdir");
    if (places == nullptr) {
        return realCall(path, mode);
    }
    return places->makeDirectory(path) ? 0 : -1;
}

int remove(const char* path)
{
    const failing::Aside aside;
    static auto* const realCall = real(&remove, "remove");
    if (places == nullptr) {
        return realCall(path);
    }
    if (!places->remove(path)) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

int unlink(const char* path)
{
    static auto* const realCall = real(&unlink, "unlink");
    return places == nullptr ? realCall(path) : remove(path);
}

DIR* opendir(const char* path)
{
    static constexpr failing::Result results[] = {{"ENOENT", 0, ENOENT}, {"EMFILE", 0, EMFILE}};
    if (failing::ask("opendir", results, path) != nullptr) {
        return nullptr;
    }
    const failing::Aside aside;
    static auto* const realCall = real(&opendir, "opendir");
    std::string place;
    const char* const found = placeOf(path, place);
    DIR* const directory = found != nullptr ? realCall(found) : nullptr;
    if (places != nullptr && directory != nullptr) {
        listings[directory] = {};
    }
    return directory;
}

dirent* readdir(DIR* directory)
{
    static constexpr failing::Result results[] = {{"EIO", 0, EIO}};
    if (failing::ask("readdir", results) != nullptr) {
        return nullptr;
    }
    const failing::Aside aside;
    return nextEntry(directory);
}

dirent64* readdir64(DIR* directory)
{
    static constexpr failing::Result results[] = {{"EIO", 0, EIO}};
    if (failing::ask("readdir", results) != nullptr) {
        return nullptr;
    }
    const failing::Aside aside;
    return reinterpret_cast<dirent64*>(nextEntry(directory));
}

int closedir(DIR* directory)
{
    const failing::Aside aside;
    static auto* const realCall = real(&closedir, "closedir");
    listings.erase(directory);
    return realCall(directory);
}

} // extern "C"
