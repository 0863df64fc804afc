#include "vset/launcher/set-directory.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "common/plain-words.h"
#include "common/process/run-program.h"
#include "common/terminal/visible-text.h"
#include "vset/client/set-file.h"
#include "vset/client/set-lock.h"
#include "vset/television/workshop.h"

namespace vset
{

namespace
{

struct Directory {
    const char* path;
    uid_t owner;
    gid_t group;
    mode_t mode;
};

constexpr Directory kDirectories[] = {
    {".vset", 0, 0, 0755},
    {"usr", 0, 0, 0755},
    {"usr/fwupdate", 0, 0, 0755},
    {"usr/fwupdate/controls", 0, 0, 0755},
    {"usr/lib", 0, 0, 0755},
    {"usr/lib/firmware", 0, 0, 0755},
    {"usr/lib/firmware/ext", 0, 0, 0755},
    {"root", 0, 0, 0755},
    {"root/tmp", 0, 0, 01777},
    // The platform service leaves the address of its console here.
    {"root/run", 0, kSystemGroup, 0775},
    // Open to be passed through: a directory of the PC under /root may be visible in it.
    {"root/root", 0, 0, 0711},
    {"root/home", 0, 0, 0755},
    {"root/prd", 0, 0, 0755},
    {"root/prd/usr", 0, 0, 0755},
    {"root/prd/usr/fwupdate", 0, 0, 0755},
    {"root/prd/usr/fwupdate/controls", 0, 0, 0755},
    {"root/opt", 0, 0, 0755},
    {"root/opt/media", kPlatformUser, kSystemGroup, 0755}, // its USB slot
    {"root/opt/usr", 0, 0, 0755},
    {"root/opt/usr/apps", 0, 0, 0755},
    // The package service delivers here, the update daemon makes mount points here: both by group.
    {"root/opt/usr/apps/appbinarymanager", kPlatformUser, kSystemGroup, 02775},
    {"root/opt/usr/apps/appbinarymanager/emps", kPlatformUser, kSystemGroup, 02775},
    {"root/opt/usr/share", 0, 0, 0755},
    {"root/opt/usr/share/sbox", 0, 0, 0755},
    {"root/srv", 0, 0, 0755},
    {"root/srv/feed", 0, 0, 0755},
    {"root/var", 0, 0, 0755},
    {"root/var/tmp", 0, 0, 01777},
    {"root/var/log", 0, 0, 0755},
    {"root/var/lib", 0, 0, 0755},
    {"root/var/lib/platform", kPlatformUser, kSystemGroup, 0755},
    {"root/var/lib/fwupdate", kUpdateUser, kSystemGroup, 0755},
    {"root/var/lib/hardware", kUpdateUser, kSystemGroup, 0755},
};

// What the set's programs write from the first moment on.
constexpr const char* kLogs[] = {"platform.log", "dbus-daemon.out", "psmountd.out", "platformd.out",
                                 "tarnwick.out"};

void makeDirectory(const fs::path& path, const Directory& directory)
{
    if (!makePlainDirectory(path)) {
        return;
    }
    if (geteuid() == 0) {
        check(chown(path.c_str(), directory.owner, directory.group), "cannot give away " + path.string());
    }
    check(chmod(path.c_str(), directory.mode), "cannot set the mode of " + path.string());
}

// All users of a set log; whoever has put another file in the place of the log may have forgotten that, and
// nothing of the set would be told any more. A link is left as it is: it may lead out of the set.
void openToAllUsers(const fs::path& log)
{
    constexpr mode_t kMode = 0666;
    const std::string failure = "the set's programs cannot write " + log.string();
    const UniqueFd file(open(log.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file && errno == ELOOP) {
        return;
    }
    check(file.get(), failure);
    struct stat status{};
    check(fstat(file.get(), &status), failure);
    if ((status.st_mode & kMode) != kMode && fchmod(file.get(), kMode) != 0 && geteuid() == 0) {
        failWithErrno(failure);
    }
}

std::string randomMachineId()
{
    unsigned char bytes[16];
    check(getrandom(bytes, sizeof bytes, 0), "cannot get random bytes");
    std::string text;
    for (const unsigned char byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text + "\n";
}

constexpr size_t kMachineIdSize = 33; // with the end of its line

// The bus does without none, nor with another text: what somebody has spoilt is made anew.
bool isMachineId(const std::string& text)
{
    return text.size() == kMachineIdSize &&
           text.find_first_not_of("0123456789abcdef") == kMachineIdSize - 1 && text.back() == '\n';
}

using common::Outcome;

// cmake says what it cannot write ("ulimit -f") when the signal does not end it.
Outcome runCmake(const std::vector<std::string>& words)
{
    const auto before = std::signal(SIGXFSZ, SIG_IGN);
    Outcome outcome = common::runProgram(words);
    std::signal(SIGXFSZ, before);
    if (outcome.status < 0) {
        throw Error("cannot start " + words[0] + ": " + outcome.err);
    }
    return outcome;
}

// What went wrong, in one line, of what cmake says around it: "CMake Error at FILE:LINE (file):", then the
// text in lines of their own, then "Call Stack".
std::string reasonIn(const std::string& said)
{
    const size_t error = said.find("CMake Error");
    const size_t begin = error == std::string::npos ? error : said.find(":\n", error);
    std::istringstream words(begin == std::string::npos ? said : said.substr(begin + 1));
    std::string reason;
    for (std::string word; words >> word && word != "Call";) {
        reason += (reason.empty() ? "" : " ") + word;
    }
    constexpr const char* kCaller = "file INSTALL ";
    return reason.rfind(kCaller, 0) == 0 ? reason.substr(std::strlen(kCaller)) : reason;
}

std::string whyNot(const Outcome& ended)
{
    const bool isSaid = ended.err.find("CMake Error") != std::string::npos;
    return isSaid               ? reasonIn(ended.err)
           : ended.status > 128 ? "cmake was ended by signal " + std::to_string(ended.status - 128)
                                : "cmake ended with status " + std::to_string(ended.status);
}

// The same, and what to do.
std::string withCure(std::string reason)
{
    const std::string cure = common::cureOf(common::errorIn(reason));
    if (cure.empty()) {
        return reason;
    }
    if (reason.back() == '.') {
        reason.pop_back();
    }
    return reason + ": " + cure;
}

// At the end cmake lists in its build tree what it has put where, which nobody reads here, and a plain user
// may not write there.
bool lacksOnlyTheList(const Outcome& ended)
{
    constexpr const char* kError = "CMake Error";
    const size_t first = ended.err.find(kError);
    return first != std::string::npos && ended.err.find(kError, first + 1) == std::string::npos &&
           ended.err.find("install_manifest_", first) != std::string::npos;
}

// A component of the build tree, with `what` in it, which `target` builds.
void install(const BuildTree& tree, const char* component, const fs::path& prefix, const std::string& what,
             const std::string& target)
{
    const Outcome ended =
        runCmake({tree.cmake, "--install", tree.build, "--prefix", prefix, "--component", component});
    if (ended.status == 0 || lacksOnlyTheList(ended)) {
        return;
    }
    const std::string reason = whyNot(ended);
    const bool isBuilt = reason.rfind("cannot find", 0) != 0;
    throw Error(what + (isBuilt ? " cannot be put into the set: " + withCure(reason)
                                : " is not built: build it first with `cmake --build " + tree.build.string() +
                                      target + "`"));
}

// Puts the files of `tree`, which is in the set, into `usr`. Each is a new file there, in one step: a set
// that runs keeps using the old ones, and another command that does the same is not in the way.
void moveTree(const fs::path& tree, const fs::path& usr)
{
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        if (entry.is_directory() && !entry.is_symlink()) {
            makePlainDirectory(usr / entry.path().lexically_relative(tree));
        } else {
            files.push_back(entry.path());
        }
    }
    for (const fs::path& file : files) {
        const fs::path target = usr / file.lexically_relative(tree);
        if (fs::is_directory(fs::symlink_status(target))) {
            throw Error(target.string() + " is in the way: a set has a file there");
        }
        fs::rename(file, target);
    }
}

// What a set is made of, from the kit or the build tree. A television does without fwctl: who builds only the
// daemon gets a set all the same.
void stage(const fs::path& directory)
{
    if (const fs::path kit = kitDirectory(); !kit.empty()) {
        fs::copy(kit / "set/usr", directory, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        return;
    }
    const BuildTree tree = buildTree();
    install(tree, "daemon", directory, "the daemon", "");
    if (access((tree.build / "tools/fwctl/fwctl").c_str(), X_OK) == 0) {
        install(tree, "fwctl", directory, "fwctl", " --target fwctl");
    }
}

// Else the first file of another user's would be told, and not why.
void requireOwn(const fs::path& set)
{
    struct stat status{};
    check(stat((set / "usr").c_str(), &status), "cannot look at " + set.string());
    if (geteuid() != 0 && geteuid() != status.st_uid) {
        throw Error("the set " + set.string() +
                    " belongs to another user: choose another name for one of your own");
    }
}

} // namespace

namespace
{

// Whoever asks whether a set is on holds the lock for some microseconds.
int flockPatiently(int file)
{
    int result = 0;
    for (int tries = 0; tries < 20; ++tries) {
        result = flock(file, LOCK_EX | LOCK_NB);
        if (result == 0 || errno != EWOULDBLOCK) {
            break;
        }
        usleep(5000);
        errno = EWOULDBLOCK;
    }
    return result;
}

// The first of a process namespace of its own, by its last number.
bool isFirstOfNamespace(const fs::path& process)
{
    std::ifstream status(process / "status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("NSpid:", 0) == 0) {
            return line.substr(line.find_last_of(" \t") + 1) == "1";
        }
    }
    return false;
}

// Nothing when there is none any more, or only what is left of a process that has ended.
std::optional<struct stat> look(const fs::path& ofProcess)
{
    struct stat status{};
    if (stat(ofProcess.c_str(), &status) == 0) {
        return status;
    }
    if (errno != ENOENT && errno != ESRCH) {
        failWithErrno("cannot look at the set's first process (it belongs to another user? then use sudo)");
    }
    return std::nullopt;
}

// Who entered another process in the belief that it is the set's would be on the PC, as root. Nothing when it
// has just ended.
std::optional<bool> isFirstProcessOf(const RunningSet& running, const fs::path& root)
{
    const fs::path process = "/proc/" + std::to_string(running.init);
    const auto mounts = look(process / "ns/mnt");
    const auto itsRoot = look(process / "root/.");
    const bool isFirst = isFirstOfNamespace(process);
    // What was looked at was this process, and not a later one of the same number.
    const bool isThere =
        syscall(SYS_pidfd_send_signal, running.process.get(), 0, nullptr, 0) == 0 || errno == EPERM;
    if (!mounts || !itsRoot || !isThere) {
        return std::nullopt;
    }
    struct stat own{};
    struct stat wanted{};
    check(stat("/proc/self/ns/mnt", &own), "cannot look at this process's namespace");
    check(stat(root.c_str(), &wanted), "cannot look at " + root.string());
    const bool isRoot = itsRoot->st_dev == wanted.st_dev && itsRoot->st_ino == wanted.st_ino;
    return isFirst && isRoot && mounts->st_ino != own.st_ino;
}

// A set whose first process has ended is locked until all of it is put away; who else has locked it stays.
bool endsSoon(const fs::path& set)
{
    constexpr int kTries = 100;
    constexpr useconds_t kPauseUs = 10000;
    for (int tries = 0; tries < kTries; ++tries) {
        if (!isOn(set)) {
            return true;
        }
        usleep(kPauseUs);
    }
    return false;
}

} // namespace

UniqueFd openOwnFile(const fs::path& path, int flags)
{
    requireOwnFileOrNothing(path);
    constexpr int kOpening = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    UniqueFd file(open(path.c_str(), flags | kOpening, 0644));
    if (!file) {
        failWithErrno("cannot open " + path.string());
    }
    return file;
}

void SetLock::publish(const RunningSet& running) const
{
    const std::string text = std::to_string(running.init) + (running.rootless ? " rootless" : " root") +
                             (running.clock ? " clock" : " no-clock") + "\n";
    constexpr const char* kFailure = "cannot write the set's .vset/lock";
    check(pwrite(file_.get(), text.data(), text.size(), 0), kFailure); // first: nobody reads an empty file
    check(ftruncate(file_.get(), static_cast<off_t>(text.size())), kFailure);
}

SetDirectory SetDirectory::makeTemporary()
{
    const char* parent = std::getenv("TMPDIR");
    std::string name = std::string(parent != nullptr && *parent == '/' ? parent : "/tmp") + "/vset-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        failWithErrno("no temporary set can be made in " + fs::path(name).parent_path().string() +
                      " (TMPDIR names another directory)");
    }
    try {
        check(chmod(name.c_str(), 0755), "cannot set the mode of " + name);
        return make(name, Content::kNothing);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(name, ignored);
        throw;
    }
}

namespace
{
// As a set is, and no PC, which has the other directories of one as well. What is there may be in the way.
bool isMarked(const fs::path& directory)
{
    std::error_code none;
    return fs::exists(fs::symlink_status(directory / ".vset", none));
}
} // namespace

SetDirectory SetDirectory::open(const fs::path& path)
{
    std::error_code error;
    const fs::path canonical = fs::canonical(path, error);
    if (error && error != std::errc::no_such_file_or_directory) {
        throw Error("the set " + path.string() + " cannot be opened: " + error.message());
    }
    const auto isThere = [&](const char* name) { return fs::is_directory(canonical / name, error); };
    if (error || !isMarked(canonical) || !isThere("root") || !isThere("usr")) {
        throw Error("there is no set at " + path.string() + ": make one with `vset new " +
                    common::inShell(path.string()) + "`");
    }
    return SetDirectory(canonical);
}

namespace
{

// The directory of a set that is about to be made. What was made is removed unless it is kept, and nothing
// that was there before, or that another command has made.
class NewDirectory
{
public:
    explicit NewDirectory(const fs::path& path) : path_(fs::absolute(path))
    {
        path_ = path_.has_filename() ? path_ : path_.parent_path();
        std::error_code error;
        fs::path missing = path_;
        while (!fs::exists(missing, error) && missing.has_relative_path()) {
            missing = missing.parent_path();
            parents_.push_back(missing);
        }
        if (!parents_.empty()) {
            parents_.pop_back(); // that one is there
        }
        isNew_ = fs::create_directories(path_, error);
        if (error) {
            const int reason = error.value();
            undo();
            throw Error("cannot make " + path.string() + ": " + common::reasonOf(reason));
        }
        wasEmpty_ = isNew_ || fs::is_empty(path_, error);
    }
    ~NewDirectory() { undo(); }
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;
    void keep() { isKept_ = true; }

private:
    void undo()
    {
        std::error_code ignored;
        if (isKept_ || (!isNew_ && !wasEmpty_)) {
            return;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(path_, ignored)) {
            fs::remove_all(entry.path(), ignored);
        }
        if (isNew_) {
            fs::remove(path_, ignored);
            for (const fs::path& parent : parents_) { // somebody may have put something else there
                fs::remove(parent, ignored);
            }
        }
    }

    fs::path path_;
    std::vector<fs::path> parents_; // that were missing, the longest first
    bool isNew_ = false;
    bool wasEmpty_ = false;
    bool isKept_ = false;
};

} // namespace

SetDirectory SetDirectory::make(const fs::path& path, Content content)
{
    std::error_code error;
    if (fs::absolute(path, error).string().find('\\') != std::string::npos) {
        throw Error(path.string() + ": cmake, which puts the daemon there, takes no path with a backslash");
    }
    if (fs::exists(path, error) && !fs::is_directory(path, error)) {
        throw Error(path.string() + " is not a directory: choose another name for the set");
    }
    // Of a set that another command is just making there is .vset alone, at first.
    const bool foreign = fs::is_directory(path, error) && !fs::is_empty(path, error) && !isMarked(path);
    if (foreign) {
        throw Error(path.string() +
                    " is a directory with something else in it: choose another name for the set");
    }
    NewDirectory made(path);
    SetDirectory set(fs::canonical(path));
    set.complete();
    if (content == Content::kDaemon) {
        set.installDaemon();
    }
    made.keep();
    return set;
}

void SetDirectory::installDaemon() const
{
    umask(022); // the set's users must be able to enter what is put there, whoever makes the set
    requireOwn(path_);
    try {
        const Workshop workshop(path_);
        stage(workshop.at("usr"));
        moveTree(workshop.at("usr"), usr());
    } catch (const fs::filesystem_error& error) {
        throw Error("the daemon cannot be put into the set: " + common::plainWords(error));
    }
}

SetLock SetDirectory::lock() const
{
    makeDirectory(path_ / kDirectories[0].path, kDirectories[0]); // the lock file's
    const auto take = [this](const UniqueFd& file) {
        if (flockPatiently(file.get()) == 0) {
            return;
        }
        if (errno != EWOULDBLOCK) {
            failWithErrno("cannot lock " + path_.string());
        }
        throw Error("set " + path_.string() +
                    " is already running: use `vset exec`, or end it first (or whoever else has locked its "
                    "directory)");
    };
    requireOwnFileOrNothing(path_ / kLockFile);
    UniqueFd directory = openToLock(path_);
    take(directory); // first: who is refused makes no file
    UniqueFd lockFd = openOwnFile(path_ / kLockFile, O_RDWR | O_CREAT);
    take(lockFd);
    SetLock lock(std::move(lockFd), std::move(directory));
    lock.publish({}); // a set that was killed left its process identifier
    return lock;
}

RunningSet SetDirectory::running() const
{
    const std::string set = "set " + path_.string();
    const Error off(set + " is not running: start it with `vset run " + common::inShell(path_.string()) +
                    "`");
    if (!isOn(path_)) {
        throw off;
    }
    const fs::path file = path_ / kLockFile;
    const Error spoilt(file.string() + " does not name the first process of " + set +
                       ", which is on: somebody has changed it; end the set, and run it again");
    const std::optional<std::string> text = readSetFile(file);
    std::istringstream words(text.value_or("lost"));
    RunningSet running;
    std::string mode;
    std::string clock;
    words >> running.init >> mode >> clock;
    if (running.init <= 0) {
        const bool isStarting = text && (text->empty() || *text == "0 root no-clock\n");
        throw isStarting ? Error(set + " is starting: wait for it with `vset wait " +
                                 common::inShell(path_.string()) + " on`")
                         : spoilt;
    }
    running.rootless = mode == "rootless";
    running.clock = clock == "clock";
    running.process = UniqueFd(syscall(SYS_pidfd_open, running.init, 0));
    const std::optional<bool> isIt =
        running.process ? isFirstProcessOf(running, root()) : std::optional<bool>();
    if (!isIt) {
        throw endsSoon(path_) ? off : spoilt;
    }
    if (!*isIt) {
        throw spoilt;
    }
    return running;
}

void SetDirectory::complete() const
{
    for (const Directory& directory : kDirectories) {
        makeDirectory(path_ / directory.path, directory);
    }
    const fs::path varRun = root() / "var/run";
    // Where older programs look for the system bus. Another command may be making the same set.
    if (symlink("../run", varRun.c_str()) != 0 && errno != EEXIST) {
        failWithErrno("cannot make " + varRun.string());
    }
    for (const char* name : kLogs) {
        requireFileOrNothing(root() / "var/log" / name);
    }
    const fs::path platformLog = root() / "var/log/platform.log";
    if (!fs::exists(fs::symlink_status(platformLog))) {
        writeFile(platformLog, "");
    }
    openToAllUsers(platformLog);
    if (!isMachineId(readSetFile(machineIdFile(), kMachineIdSize).value_or(""))) {
        writeFile(machineIdFile(), randomMachineId());
    }
}

void SetDirectory::giveToUsers(bool isRootless) const
{
    for (const Directory& directory : kDirectories) {
        const bool hasOwner = directory.owner != 0 && geteuid() == 0;
        const fs::path path = path_ / directory.path;
        struct stat status{};
        check(lstat(path.c_str(), &status), "cannot look at " + path.string());
        if (hasOwner && isRootless && status.st_uid == directory.owner) {
            giveTree(path, 0, 0);
        } else if (hasOwner && !isRootless && status.st_uid == 0) {
            giveTree(path, directory.owner, directory.group);
        }
    }
}

void SetDirectory::wipeVolatile() const
{
    for (const char* name : {"tmp", "run"}) {
        for (const fs::directory_entry& entry : fs::directory_iterator(root() / name)) {
            fs::remove_all(entry.path());
        }
    }
}

void SetDirectory::remove() const
{
    std::error_code error;
    fs::remove_all(path_, error);
    if (error) {
        note("cannot remove " + path_.string() + ": " + error.message());
    }
}

} // namespace vset
