// ps_mount.h, with an image of a package.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "common/files/whole-file.h"
#include "common/process/guarded-buffer.h"
#include "platform/check/trials/trial.h"
#include "ps_mount.h"

namespace platformcheck
{

namespace
{

namespace fs = std::filesystem;

using common::GuardedBuffer;

// ---- The calls, as the daemon makes them ----

constexpr std::size_t kCommandSize = 1024;

struct Answer {
    int returned = 0;
    int result = 0;

    bool ok() const { return returned == 0 && result == 0; }
    std::string text() const
    {
        return "returned " + std::to_string(returned) + ", result " + std::to_string(result);
    }
};

using Command = int (*)(const char*, int, int, int*);

// The command stands at the beginning of a buffer of its usual size, whose rest is zero.
Answer ask(Trial& trial, const char* name, Command function, const std::string& command)
{
    GuardedBuffer buffer("the command", kCommandSize);
    buffer.fill(0);
    std::memcpy(buffer.as<char>(), command.data(), std::min(command.size(), kCommandSize - 1));
    buffer.makeReadOnly();
    Answer answer;
    answer.returned = trial.call(name, [&] {
        return function(buffer.as<const char>(), static_cast<int>(kCommandSize), 0, &answer.result);
    });
    return answer;
}

Answer mount(Trial& trial, const fs::path& image, const fs::path& directory)
{
    return ask(trial, "PS_Mount", PS_Mount,
               "-o ro,loop,nodev,nosuid " + image.string() + " " + directory.string());
}

Answer unmount(Trial& trial, const fs::path& directory)
{
    GuardedBuffer path("the directory", directory.string());
    Answer answer;
    answer.returned = trial.call("PS_Umount", [&] {
        return PS_Umount(path.as<const char>(), static_cast<int>(directory.string().size()), 0,
                         &answer.result);
    });
    return answer;
}

// ---- What there is ----

// The sources of what is mounted at the directory, the newest last.
std::vector<std::string> mountedAt(const fs::path& directory)
{
    std::ifstream in("/proc/self/mounts");
    std::vector<std::string> sources;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string source;
        std::string place;
        if (fields >> source >> place && place == directory) {
            sources.push_back(source);
        }
    }
    return sources;
}

bool isMounted(const fs::path& directory)
{
    return !mountedAt(directory).empty();
}

// That hold the file: others belong to others, or to another set of the same PC.
std::size_t loopDevicesWith(const fs::path& file)
{
    std::size_t held = 0;
    std::error_code gone;
    for (const fs::directory_entry& device : fs::directory_iterator("/sys/block", gone)) {
        std::ifstream in(device.path() / "loop/backing_file");
        std::string backing;
        held += std::getline(in, backing) && backing.find(file.filename()) != std::string::npos ? 1 : 0;
    }
    return held;
}

// A directory of this check to mount on, unmounted and removed at the end whatever was found.
class MountPoint
{
public:
    MountPoint(Trial& trial, const char* end) : trial_(trial), path_(trial.options().directory.string() + end)
    {
        std::error_code ignored;
        fs::create_directories(path_, ignored);
    }
    ~MountPoint()
    {
        for (int time = 0; time < 5 && isMounted(path_) && unmount(trial_, path_).ok(); ++time) {
        }
        rmdir(path_.c_str());
    }
    MountPoint(const MountPoint&) = delete;
    MountPoint& operator=(const MountPoint&) = delete;
    const fs::path& path() const { return path_; }

private:
    Trial& trial_;
    fs::path path_;
};

bool mountSoundly(Trial& trial, const fs::path& image, const fs::path& directory)
{
    const Answer answer = mount(trial, image, directory);
    return trial.require(answer.ok(), FindingId::NotMounted, answer.text()) &&
           trial.require(isMounted(directory), FindingId::MountNotThere,
                         directory.string() + " is not in /proc/mounts");
}

void unmountSoundly(Trial& trial, const fs::path& directory)
{
    const Answer answer = unmount(trial, directory);
    if (trial.require(answer.ok(), FindingId::NotUnmounted, answer.text())) {
        trial.require(!isMounted(directory), FindingId::StillMounted,
                      directory.string() + " is in /proc/mounts");
    }
}

// ---- A sound image ----

void judgeOptions(Trial& trial, const fs::path& directory)
{
    struct statvfs status = {};
    if (statvfs(directory.c_str(), &status) != 0) {
        trial.found(FindingId::MountNotThere, "statvfs: " + std::string(std::strerror(errno)));
        return;
    }
    const fs::path file = directory / ".tarnwick-platform-check";
    const common::UniqueFd made(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (made.get() >= 0) {
        unlink(file.c_str());
    }
    trial.require((status.f_flag & ST_RDONLY) != 0 && made.get() < 0, FindingId::Writable,
                  made.get() < 0 ? "\"ro\" is not among its options" : "a file could be made in it");
    trial.require((status.f_flag & ST_NODEV) != 0, FindingId::DevicesAllowed,
                  "\"nodev\" is not among its options");
    trial.require((status.f_flag & ST_NOSUID) != 0, FindingId::DevicesAllowed,
                  "\"nosuid\" is not among its options");
}

void judgeContent(Trial& trial, const fs::path& directory, const fs::path& content)
{
    std::error_code error;
    if (content.empty()) {
        const bool isEmpty = fs::is_empty(directory, error);
        trial.require(!isEmpty && !error, FindingId::WrongContent, "the directory is empty");
        return;
    }
    trial.require(common::readWhole(directory / "content") == common::readWhole(content),
                  FindingId::WrongContent, "its file \"content\" is another or missing");
}

void judgeBusy(Trial& trial, const fs::path& directory)
{
    const common::UniqueFd held(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const Answer busy = unmount(trial, directory);
    const bool isThere = isMounted(directory);
    trial.require(!busy.ok() || !isThere, FindingId::StillMounted, "of a busy mount: " + busy.text());
    trial.require(isThere, FindingId::BusyUnmounted, "a directory of it was open: " + busy.text());
}

// The length says where the path ends, whatever stands behind it.
void judgeLength(Trial& trial, const fs::path& directory)
{
    const std::string path = directory.string();
    GuardedBuffer longer("the directory", path + "-behind-its-end");
    Answer answer;
    answer.returned = trial.call("PS_Umount", [&] {
        return PS_Umount(longer.as<const char>(), static_cast<int>(path.size()), 0, &answer.result);
    });
    trial.require(answer.ok() && !isMounted(directory), FindingId::ReadPastLength,
                  "with other bytes behind the last one: " + answer.text());
}

void tryMount(Trial& trial)
{
    if (trial.options().image.empty()) {
        trial.note("mounts were not tried: there is no sample image in this build; give one with --image");
        return;
    }
    const MountPoint place(trial, "");
    unmount(trial, place.path()); // as the daemon does before every mount: there may be none
    const fs::path& image = trial.options().image;
    if (!mountSoundly(trial, image, place.path())) {
        return;
    }
    const std::string source = mountedAt(place.path()).back();
    trial.require(source.rfind("/dev/loop", 0) == 0, FindingId::NotALoopDevice, source);
    judgeOptions(trial, place.path());
    judgeContent(trial, place.path(), trial.options().content);
    judgeBusy(trial, place.path());
    if (isMounted(place.path())) {
        unmountSoundly(trial, place.path());
    }
    if (mountSoundly(trial, image, place.path())) {
        judgeLength(trial, place.path());
    }
    for (int time = 0; time < 3 && !isMounted(place.path()) && mountSoundly(trial, image, place.path());
         ++time) {
        judgeContent(trial, place.path(), trial.options().content);
        unmountSoundly(trial, place.path());
    }
}

// An image where packages lie, by a name as long as a package's may be; the image itself where that
// cannot be made.
class LongNamed
{
public:
    LongNamed(const fs::path& image, const fs::path& packages) : path_(image)
    {
        std::error_code error;
        const fs::path copy = packages / ("emp" + std::string(120, 'L') + ".img");
        if (access(packages.c_str(), W_OK | X_OK) == 0 && fs::copy_file(image, copy, error)) {
            path_ = copy;
            isCopy_ = true;
        }
    }
    ~LongNamed()
    {
        if (isCopy_) {
            unlink(path_.c_str());
        }
    }
    LongNamed(const LongNamed&) = delete;
    LongNamed& operator=(const LongNamed&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
    bool isCopy_ = false;
};

void tryTwoMounts(Trial& trial)
{
    if (trial.options().image.empty()) {
        return;
    }
    const bool hasOther = !trial.options().other.empty();
    const LongNamed longNamed(hasOther ? trial.options().other : trial.options().image,
                              trial.options().image.parent_path());
    const MountPoint first(trial, "");
    const MountPoint second(trial, "2");
    if (!mountSoundly(trial, trial.options().image, first.path()) ||
        !mountSoundly(trial, longNamed.path(), second.path())) {
        return;
    }
    judgeContent(trial, first.path(), trial.options().content);
    judgeContent(trial, second.path(), hasOther ? trial.options().otherContent : trial.options().content);
    unmountSoundly(trial, first.path());
    trial.require(isMounted(second.path()), FindingId::OtherUnmounted,
                  second.path().string() + " is gone with " + first.path().string());
    if (isMounted(second.path())) {
        unmountSoundly(trial, second.path());
    }
}

// ---- What cannot be mounted ----

// A file that is no image, where the images of packages lie, as far as this user may.
class Garbage
{
public:
    explicit Garbage(const Trial& trial)
    {
        const fs::path packages = trial.options().image.parent_path();
        const bool isUsable = !packages.empty() && access(packages.c_str(), W_OK | X_OK) == 0;
        path_ = (isUsable ? packages : trial.options().work) /
                ("empPlatformCheck" + std::to_string(common::realNow()) + ".img");
        std::ofstream(path_) << std::string(64 * 1024, 'x');
    }
    ~Garbage() { unlink(path_.c_str()); }
    Garbage(const Garbage&) = delete;
    Garbage& operator=(const Garbage&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

void tryRefused(Trial& trial)
{
    const Garbage garbage(trial);
    const fs::path& image = trial.options().image.empty() ? garbage.path() : trial.options().image;
    const MountPoint place(trial, "");
    struct Case {
        const char* what;
        fs::path image;
        fs::path directory;
    };
    const Case cases[] = {{"an image that is missing", garbage.path().string() + ".missing", place.path()},
                          {"a directory that is missing", image, place.path().string() + "-missing"},
                          {"a file that is no image", garbage.path(), place.path()}};
    for (const Case& one : cases) {
        for (int time = 0; time < 3; ++time) {
            const Answer answer = mount(trial, one.image, one.directory);
            trial.require(!answer.ok(), FindingId::BadMountSucceeds, one.what);
            trial.require(answer.ok() || !isMounted(one.directory), FindingId::MountLeft,
                          std::string(one.what) + ": the directory is mounted");
        }
    }
    trial.iterate(300ms); // a device is let go of a moment later
    const std::size_t held = loopDevicesWith(garbage.path());
    trial.require(held == 0, FindingId::MountLeft,
                  std::to_string(held) + " loop devices still hold the file that is no image");
}

// ---- Nodes ----

bool isNode(const std::string& path)
{
    struct stat status = {};
    struct stat first = {};
    if (lstat(path.c_str(), &status) != 0) {
        return false;
    }
    // A set without root has files in the place of its nodes.
    const bool areFiles = stat("/dev/loop0", &first) == 0 && S_ISREG(first.st_mode);
    return S_ISBLK(status.st_mode) || (areFiles && S_ISREG(status.st_mode));
}

void tryNode(Trial& trial)
{
    int number = 0;
    while (number < 250 && fs::exists("/dev/loop" + std::to_string(number))) {
        ++number;
    }
    const std::string node = "/dev/loop" + std::to_string(number);
    const std::string command = "-m 0660 -Z * " + node + "  b 7 " + std::to_string(number);
    const Answer answer = ask(trial, "PS_Mknod", PS_Mknod, command);
    if (!trial.require(answer.ok(), FindingId::NodeNotMade, node + ": " + answer.text()) ||
        !trial.require(isNode(node), FindingId::NodeNotMade,
                       node + ": success was said, and there is no device")) {
        return;
    }
    ask(trial, "PS_Mknod", PS_Mknod, command); // one that is there already: any answer, but an answer
    trial.require(isNode(node), FindingId::NodeNotMade, node + ": gone when it was made once more");
    if (unlink(node.c_str()) != 0) {
        trial.note(node + " was made for the check and stays until the next boot");
    }
}

} // namespace

std::vector<TrialKind> mountTrials()
{
    return {
        {"mount", tryMount}, {"two-mounts", tryTwoMounts}, {"refused-mounts", tryRefused}, {"node", tryNode}};
}

} // namespace platformcheck
