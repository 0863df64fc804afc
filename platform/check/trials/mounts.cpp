// ps_mount.h, with an image of a package.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/loop.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "common/files/whole-file.h"
#include "common/process/guarded-buffer.h"
#include "platform/check/trials/calls-once.h"
#include "platform/check/trials/garbage.h"
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

Answer answerOf(Trial& trial, const char* name, Command function, const char* text, std::size_t length)
{
    Place<int> result("the result", 0);
    Answer answer;
    answer.returned =
        trial.call(name, [&] { return function(text, static_cast<int>(length), 0, result.get()); });
    answer.result = *result;
    return answer;
}

// The command stands at the beginning of a buffer of its usual size, whose rest is zero.
Answer ask(Trial& trial, const char* name, Command function, const std::string& command)
{
    GuardedBuffer buffer("the command", kCommandSize);
    buffer.fill(0);
    std::memcpy(buffer.as<char>(), command.data(), std::min(command.size(), kCommandSize - 1));
    buffer.makeReadOnly();
    return answerOf(trial, name, function, buffer.as<const char>(), kCommandSize);
}

Answer mount(Trial& trial, const fs::path& image, const fs::path& directory)
{
    return ask(trial, "PS_Mount", PS_Mount,
               "-o ro,loop,nodev,nosuid " + image.string() + " " + directory.string());
}

Answer unmount(Trial& trial, const fs::path& directory)
{
    GuardedBuffer path("the directory", directory.string());
    return answerOf(trial, "PS_Umount", PS_Umount, path.as<const char>(), directory.string().size());
}

// ---- What there is ----

// The sources of what is mounted at the directory, the newest last, as that process sees it.
std::vector<std::string> mountedAt(const fs::path& directory, const std::string& process = "self")
{
    std::ifstream in("/proc/" + process + "/mounts");
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

// Nodes of those that hold the file, whose name is its own: others belong to others, or to another set of the
// same PC.
std::vector<std::string> loopDevicesWith(const fs::path& file)
{
    std::vector<std::string> held;
    std::error_code gone;
    for (const fs::directory_entry& device : fs::directory_iterator("/sys/block", gone)) {
        std::ifstream in(device.path() / "loop/backing_file");
        std::string backing;
        if (std::getline(in, backing) && backing.find(file.filename()) != std::string::npos) {
            held.push_back("/dev/" + device.path().filename().string());
        }
    }
    return held;
}

// A device is let go of a moment later.
std::vector<std::string> stillHolding(Trial& trial, const fs::path& file)
{
    std::vector<std::string> held;
    trial.iterate(2s, [&] {
        held = loopDevicesWith(file);
        return held.empty();
    });
    return held;
}

// They would outlive the check, and a set of this PC as well.
void letGo(Trial& trial, const std::vector<std::string>& devices)
{
    for (const std::string& device : devices) {
        const common::UniqueFd opened(open(device.c_str(), O_RDONLY | O_CLOEXEC));
        if (opened.get() < 0 || ioctl(opened.get(), LOOP_CLR_FD, 0) != 0) {
            trial.note("a loop device stays taken: losetup -d " + device);
        }
    }
}

// A directory of this check to mount on, unmounted and removed at the end whatever was found.
class MountPoint
{
public:
    MountPoint(Trial& trial, const char* end) : trial_(trial), path_(trial.options().directory.string() + end)
    {
        std::error_code ignored;
        fs::create_directories(path_, ignored);
        leave(); // what the check of another platform could not unmount
    }
    ~MountPoint()
    {
        leave();
        rmdir(path_.c_str());
    }
    MountPoint(const MountPoint&) = delete;
    MountPoint& operator=(const MountPoint&) = delete;
    const fs::path& path() const { return path_; }

private:
    void leave()
    {
        for (int time = 0; time < 5 && isMounted(path_) && unmount(trial_, path_).ok(); ++time) {
        }
    }

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

bool unmountSoundly(Trial& trial, const fs::path& directory)
{
    const Answer answer = unmount(trial, directory);
    return trial.require(answer.ok(), FindingId::NotUnmounted, answer.text()) &&
           trial.require(!isMounted(directory), FindingId::StillMounted,
                         directory.string() + " is in /proc/mounts");
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
    const Answer answer = answerOf(trial, "PS_Umount", PS_Umount, longer.as<const char>(), path.size());
    trial.require(answer.ok() && !isMounted(directory), FindingId::ReadPastLength,
                  "with other bytes behind the last one: " + answer.text());
}

// An unmounted image holds no device, or they run out.
void judgeDevices(Trial& trial, const fs::path& image)
{
    const std::vector<std::string> held = stillHolding(trial, image);
    if (!trial.require(held.empty(), FindingId::DeviceKept,
                       "a loop device still holds the image 2 s after the unmount")) {
        letGo(trial, held);
    }
}

constexpr const char* kBeside = "4"; // behind the directory's name

// In a second process: the daemon's own, as it was before it has ended, or whoever else.
void mountBeside(Trial& trial)
{
    mountSoundly(trial, trial.options().image, trial.options().directory.string() + kBeside);
}

void tryOtherProcess(Trial& trial)
{
    const MountPoint place(trial, kBeside);
    trial.runBeside("mounter");
    if (trial.require(isMounted(place.path()), FindingId::MountNotThere,
                      place.path().string() + " was mounted by a process that has ended")) {
        judgeContent(trial, place.path(), trial.options().content);
        unmountSoundly(trial, place.path());
    }
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
    trial.require(!mountedAt(place.path(), std::to_string(getppid())).empty(), FindingId::MountNotThere,
                  place.path().string() + " is in no other process's /proc/mounts");
    const std::string source = mountedAt(place.path()).back();
    trial.require(source.rfind("/dev/loop", 0) == 0, FindingId::NotALoopDevice, source);
    judgeOptions(trial, place.path());
    judgeContent(trial, place.path(), trial.options().content);
    judgeBusy(trial, place.path());
    if (isMounted(place.path()) && !unmountSoundly(trial, place.path())) {
        return; // what is still there would be taken for the next
    }
    if (mountSoundly(trial, image, place.path())) {
        judgeLength(trial, place.path());
    }
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(2s).count();
    for (int time = 0; time < 3 && common::realNow() < end && !isMounted(place.path()) &&
                       mountSoundly(trial, image, place.path());
         ++time) {
        judgeContent(trial, place.path(), trial.options().content);
        unmountSoundly(trial, place.path());
    }
    if (!isMounted(place.path())) {
        tryOtherProcess(trial);
        for (const Trial::Context context : {Trial::Context::kNone, Trial::Context::kOwn}) {
            trial.onThread([&] { mountedOnce(trial); }, context); // as the daemon does
        }
    }
}

// A package that comes anew has the name of the one before.
void tryReplaced(Trial& trial)
{
    const TrialOptions& options = trial.options();
    if (options.image.empty() || options.other.empty()) {
        return;
    }
    const bool isUsable = access(options.image.parent_path().c_str(), W_OK | X_OK) == 0;
    const fs::path copy = (isUsable ? options.image.parent_path() : options.work) /
                          ("empPlatformCheckNew" + std::to_string(common::realNow()) + ".img");
    const MountPoint place(trial, "3");
    const std::pair<fs::path, fs::path> both[] = {{options.image, options.content},
                                                  {options.other, options.otherContent}};
    std::error_code error;
    for (const auto& [image, content] : both) {
        fs::remove(copy, error);
        if (!fs::copy_file(image, copy, error) || !mountSoundly(trial, copy, place.path())) {
            break;
        }
        judgeContent(trial, place.path(), content);
        unmountSoundly(trial, place.path());
        judgeDevices(trial, copy);
    }
    fs::remove(copy, error);
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
    tryReplaced(trial);
}

// Each thread has a directory of its own.
void tryTogether(Trial& trial)
{
    const fs::path image = trial.options().image;
    if (image.empty()) {
        return;
    }
    const MountPoint first(trial, "");
    const MountPoint second(trial, "2");
    const auto wrongWith = [&](const fs::path& directory) -> std::string {
        const Answer mounted = mount(trial, image, directory);
        const bool isThere = isMounted(directory);
        const Answer unmounted = unmount(trial, directory);
        const bool isRight = mounted.ok() && isThere && unmounted.ok() && !isMounted(directory);
        return isRight ? "" : mounted.text() + ", then unmounted: " + unmounted.text();
    };
    if (!wrongWith(first.path()).empty()) {
        return; // what is wrong alone is told elsewhere
    }
    const auto work = [&](const fs::path& directory) {
        const std::int64_t end = common::realNow() + std::chrono::nanoseconds(400ms).count();
        std::string wrong;
        for (int time = 0; wrong.empty() && time < 6 && (time == 0 || common::realNow() < end); ++time) {
            wrong = wrongWith(directory);
        }
        trial.require(wrong.empty(), FindingId::NotTogether, "mounts of two threads: " + wrong);
    };
    std::thread beside(work, second.path());
    work(first.path());
    beside.join();
}

// ---- What cannot be mounted ----

// A slow service is asked for each once.
void refuse(Trial& trial, const char* what, const fs::path& image, const fs::path& directory)
{
    if (isMounted(directory)) {
        return; // by what was found elsewhere
    }
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(500ms).count();
    for (int time = 0; time < 3 && (time == 0 || common::realNow() < end); ++time) {
        const Answer answer = mount(trial, image, directory);
        trial.require(!answer.ok(), FindingId::BadMountSucceeds, what);
        trial.require(answer.ok() || !isMounted(directory), FindingId::MountLeft,
                      std::string(what) + ": the directory is mounted");
    }
}

std::set<std::string> namesIn(const fs::path& directory)
{
    std::set<std::string> names;
    std::error_code unreadable;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, unreadable)) {
        names.insert(entry.path().filename());
    }
    return names;
}

// What is there now and was not before.
void judgeLeft(Trial& trial, const fs::path& directory, const std::set<std::string>& before)
{
    for (const std::string& name : namesIn(directory)) {
        trial.require(before.count(name) > 0, FindingId::MountLeft, (directory / name).string());
    }
}

void tryRefused(Trial& trial)
{
    const std::string sample =
        trial.options().image.empty() ? "" : common::readWhole(trial.options().image).substr(0, 4096);
    const Garbage garbage(trial, "empPlatformCheckX", std::string(64UL * 1024, 'x'));
    const Garbage empty(trial, "empPlatformCheckY", "");
    const Garbage head(trial, "empPlatformCheckZ", sample.substr(0, 64) + std::string(8192, '\0'));
    const fs::path& image = trial.options().image.empty() ? garbage.path() : trial.options().image;
    const MountPoint place(trial, "");
    const fs::path around[] = {place.path().parent_path(), garbage.path().parent_path()};
    const std::set<std::string> before[] = {namesIn(around[0]), namesIn(around[1])};
    refuse(trial, "an image that is missing", garbage.path().string() + ".missing", place.path());
    refuse(trial, "a directory that is missing", image, place.path().string() + "-missing");
    refuse(trial, "a file that is no image", garbage.path(), place.path());
    refuse(trial, "an empty file", empty.path(), place.path());
    refuse(trial, "a directory in the place of the image", place.path(), place.path());
    if (!sample.empty()) {
        refuse(trial, "an image of which only the beginning is there", head.path(), place.path());
    }
    judgeLeft(trial, around[0], before[0]);
    judgeLeft(trial, around[1], before[1]);
    for (const Garbage* const one : {&garbage, &empty, &head}) {
        const std::vector<std::string> held = stillHolding(trial, one->path());
        trial.require(held.empty(), FindingId::MountLeft,
                      std::to_string(held.size()) + " loop devices still hold a file that is no image");
        letGo(trial, held);
    }
    if (!trial.options().image.empty() && mountSoundly(trial, image, place.path())) { // after all that
        judgeContent(trial, place.path(), trial.options().content);
        unmountSoundly(trial, place.path());
    }
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

// What stands in the place of a node on a set without root has no number, and a virtual set counts from a
// number of its own.
void judgeNode(Trial& trial, const std::string& node, unsigned int number)
{
    struct stat status = {};
    struct stat first = {};
    if (stat(node.c_str(), &status) != 0 || !S_ISBLK(status.st_mode) || stat("/dev/loop0", &first) != 0) {
        return;
    }
    constexpr unsigned int kLoop = 7;
    trial.require(major(status.st_rdev) == kLoop && minor(status.st_rdev) == minor(first.st_rdev) + number,
                  FindingId::NodeNotMade,
                  node + ": its numbers are " + std::to_string(major(status.st_rdev)) + " and " +
                      std::to_string(minor(status.st_rdev)));
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned int>(status.st_mode & 07777));
    trial.require((status.st_mode & 07777) == 0660, FindingId::NodeNotMade, node + ": its mode is " + mode);
}

void makeNode(Trial& trial, unsigned int first)
{
    unsigned int number = first;
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
    judgeNode(trial, node, number);
    if (unlink(node.c_str()) != 0) {
        trial.note(node + " was made for the check and stays until the next boot");
    }
}

void tryNode(Trial& trial)
{
    makeNode(trial, 0);
    makeNode(trial, 43); // of two digits
}

} // namespace

std::vector<TrialKind> mountTrials()
{
    return {{"mount", tryMount}, {"two-mounts", tryTwoMounts},     {"refused-mounts", tryRefused},
            {"node", tryNode},   {"mounts-together", tryTogether}, {"mounter", mountBeside}};
}

} // namespace platformcheck
