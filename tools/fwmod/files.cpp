#include "tools/fwmod/files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gio/gio.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/files/regular-file.h"
#include "common/files/unique-fd.h"
#include "common/glib-pointers.h"
#include "common/plain-words.h"
#include "common/process/pipe.h"
#include "common/process/program.h"
#include "common/terminal/reading-progress.h"
#include "common/terminal/visible-text.h"
#include "src/src/fw-update-checksum.h"
#include "tools/fwmod/commands/command.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
[[noreturn]] void failOn(const fs::path& path, const std::string& action)
{
    throw common::Failure("cannot " + action + " " + common::shown(path) + ": " + common::reasonOf(errno));
}

// mksquashfs takes its times from this variable as well, and then refuses those of its command line.
common::GlibStrings reproducibleEnvironment()
{
    return common::GlibStrings(g_environ_unsetenv(g_get_environ(), "SOURCE_DATE_EPOCH"));
}

// ---- Interruption ----

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU};

// What a remover is told. Nothing, when the program was killed.
constexpr char kKeep = 'k';
constexpr char kRemove = 'r';

// What has to be put away, for the handler, which may call little more than unlink.
char unfinishedName[PATH_MAX];
volatile sig_atomic_t isUnfinished = 0;
volatile sig_atomic_t remover = 0; // its process, or 0
volatile sig_atomic_t lifeOfRemover = -1;

void putAway(int signal)
{
    if (remover != 0) {
        [[maybe_unused]] const ssize_t written = write(lifeOfRemover, &kRemove, 1);
        close(lifeOfRemover);
        waitpid(remover, nullptr, 0);
    }
    if (isUnfinished != 0) {
        unlink(unfinishedName);
    }
    // Restored only now: a second signal, taken by another thread, must not end the program before the file
    // is gone.
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// Only of signals that would end the program: others are ignored, or seen to by whoever watches them.
void watchInterruptions()
{
    struct sigaction action = {};
    action.sa_handler = putAway;
    for (const int signal : kEndingSignals) {
        struct sigaction before = {};
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL) {
            sigaction(signal, &action, nullptr);
        }
    }
}

void watchUnfinished(const fs::path& unfinished)
{
    if (unfinished.string().size() >= sizeof unfinishedName) {
        return; // the file system will refuse the name
    }
    std::memcpy(unfinishedName, unfinished.c_str(), unfinished.string().size() + 1);
    isUnfinished = 1;
    watchInterruptions();
}

} // namespace

fs::file_status statusOf(const fs::path& path)
{
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() != fs::file_type::not_found && error) {
        throw common::Failure("cannot look at " + common::shown(path) + ": " + error.message());
    }
    return status;
}

void requireReadable(const fs::path& path)
{
    if (!fs::exists(statusOf(path))) {
        throw common::Failure(common::shown(path) + " does not exist: check the path");
    }
    const std::string special = common::problemOfSpecialFile(path);
    if (!special.empty()) {
        throw common::Failure(common::shown(path) + " " + special + ": name the file itself");
    }
    if (!std::ifstream(path)) {
        failOn(path, "read");
    }
}

void requireDirectory(const fs::path& path, const char* option)
{
    if (!path.empty() && !fs::is_directory(statusOf(path))) {
        throw common::Failure(std::string(option) + " " + common::shown(path) +
                              " is not a directory: check the path");
    }
}

void requireRoomForSet(const fs::path& directory)
{
    constexpr std::uintmax_t kMegabyte = 1024UL * 1024;
    constexpr std::uintmax_t kNeeded = 64 * kMegabyte;
    std::error_code unknown;
    const fs::space_info room = fs::space(directory, unknown);
    if (!unknown && room.available < kNeeded) {
        throw common::Failure("a virtual set needs " + std::to_string(kNeeded / kMegabyte) + " MB in " +
                              common::shown(directory.parent_path()) + ", where " +
                              std::to_string(room.available / kMegabyte) +
                              " MB are left: make room, or set TMPDIR to another directory");
    }
}

// By what it takes on the disk: hardware is often a large file with little in it.
void refuseTooMuchForSet(const fs::path& directory, std::optional<std::uintmax_t> mostRead)
try {
    if (directory.empty()) {
        return;
    }
    constexpr std::size_t kMostEntries = 10000;
    constexpr std::int64_t kMostBytes = std::int64_t{4} << 30;
    std::size_t entries = 0;
    std::int64_t bytes = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        struct stat status = {};
        bytes += lstat(entry.path().c_str(), &status) == 0 ? std::int64_t{status.st_blocks} * 512 : 0;
        if (mostRead && entry.is_regular_file() && entry.file_size() > *mostRead) {
            throw common::Failure(
                common::shown(entry.path()) + " is " + std::to_string(entry.file_size() >> 20) +
                " MiB long, and is read again and again: " + std::to_string(*mostRead >> 20) +
                " MiB are the most; give a shorter one, with what the module uses of it");
        }
        if (++entries > kMostEntries || bytes > kMostBytes) {
            throw common::Failure(common::shown(directory) + " holds more than " +
                                  (entries > kMostEntries ? "10000 files" : "4 GiB") +
                                  ", too much to copy into a set: name the module's own directory");
        }
    }
} catch (const fs::filesystem_error& error) {
    throw common::Failure("cannot look through " + common::shown(directory) + ": " + error.code().message());
}

namespace
{

// By the daemon's own function; its own reading of a file tells nobody how far it is, nor that it failed.
unsigned int checksumOf(const fs::path& path)
{
    const common::RegularFile file(path);
    common::ReadingProgress progress(path.filename(), fs::file_size(path));
    unsigned int checksum = 0;
    std::vector<unsigned char> chunk(std::size_t{1} << 18);
    for (ssize_t count = 1; count != 0;) {
        count = read(file.descriptor(), chunk.data(), chunk.size());
        if (count < 0 && errno != EINTR) {
            throw common::Failure("cannot read all of " + common::shown(path) + ": " + std::strerror(errno));
        }
        const auto length = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        checksum = extendChecksum(checksum, chunk.data(), length);
        progress.add(length);
    }
    return checksum;
}

} // namespace

unsigned int imageChecksum(const fs::path& path)
{
    requireReadable(path);
    return common::readToTheEnd([&path] { return checksumOf(path); });
}

NewFile::NewFile(fs::path target)
    : target_(std::move(target)), unfinished_(target_.string() + "." + std::to_string(getpid()) + ".new")
{
    // Renaming onto a device or a pipe would put a file in its place.
    const fs::file_status status = statusOf(target_);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        throw common::Failure(common::shown(target_) + " exists and is not a file: name the file to write");
    }
    const fs::path directory = target_.has_parent_path() ? target_.parent_path() : ".";
    const fs::file_status parent = statusOf(directory);
    if (!fs::is_directory(parent)) {
        throw common::Failure("cannot write " + common::shown(target_) + ": " +
                              (fs::exists(parent)
                                   ? common::shown(directory) + " is not a directory"
                                   : "make the directory " + common::shown(directory) + " first"));
    }
    watchUnfinished(unfinished_);
    // Tried now: what writes it may be another program, which tells no name.
    const common::UniqueFd tried(open(unfinished_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!tried) {
        isUnfinished = 0;
        failOn(target_, "write");
    }
    unlink(unfinished_.c_str());
}

NewFile::~NewFile()
{
    isUnfinished = 0;
    std::error_code ignored; // after commit() there is none
    fs::remove(unfinished_, ignored);
}

void NewFile::commit()
{
    std::error_code error;
    fs::rename(unfinished_, target_, error);
    if (error) {
        throw common::Failure("cannot write " + common::shown(target_) + ": " +
                              common::reasonOf(error.value()));
    }
}

// ---- Removing, whatever happens ----

namespace
{
bool removeTree(const fs::path& path)
{
    std::error_code error;
    fs::remove_all(path, error);
    if (!error || path.empty()) {
        return true;
    }
    // A directory that its owner may not write, by a package or a library.
    for (fs::recursive_directory_iterator entry(path, error), end; !error && entry != end;) {
        std::error_code ignored;
        if (entry->symlink_status(ignored).type() == fs::file_type::directory) {
            fs::permissions(entry->path(), fs::perms::owner_all, ignored);
        }
        entry.increment(error);
    }
    fs::remove_all(path, error);
    return !error;
}

bool removeAll(const fs::path& tree)
{
    if (isUnfinished != 0) { // what the result was called when the program was killed
        unlink(unfinishedName);
    }
    return removeTree(tree);
}

// In a process of its own: nothing that ends the program, or its whole group, must keep it from its work.
[[noreturn]] void removeAfterwards(const fs::path& path, int life)
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    setsid();
    prctl(PR_SET_NAME, "fwmod-remover");
    dup2(life, STDIN_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    close(STDOUT_FILENO); // which somebody may read to its end
    close(STDERR_FILENO);
    char word = 0;
    const bool isKilled = read(STDIN_FILENO, &word, 1) != 1;
    if (word == kKeep) {
        _exit(0);
    }
    constexpr int kMostTries = 100; // a set that ends may still write into it
    // What a killed program had started is killed a moment later, and may until then make anew what was
    // removed.
    const int leastTries = isKilled ? 20 : 1;
    for (int tries = 1; (!removeAll(path) || tries < leastTries) && tries < kMostTries; ++tries) {
        usleep(100 * 1000);
    }
    _exit(0);
}
} // namespace

Remover::Remover(fs::path tree) : tree_(std::move(tree))
{
    common::Pipe pipe = common::makePipe("cannot make a pipe");
    process_ = fork();
    if (process_ == 0) {
        removeAfterwards(tree_, pipe.reading.get());
    }
    if (process_ < 0) {
        throw common::Failure(std::string("cannot start a process: ") + std::strerror(errno));
    }
    life_ = std::move(pipe.writing);
    lifeOfRemover = life_.get();
    remover = process_;
    watchInterruptions();
}

void Remover::keepAll()
{
    isAllKept_ = true;
    if (write(life_.get(), &kKeep, 1) != 1 && errno != EPIPE) { // without the process it stays anyway
        failOn(tree_, "keep");
    }
}

Remover::~Remover()
{
    remover = 0;
    [[maybe_unused]] const ssize_t written = write(life_.get(), &kRemove, 1); // unread after kKeep
    life_.reset();
    int status = 0;
    waitpid(process_, &status, 0);
    if (status != 0 && !isAllKept_) { // somebody has ended it
        removeTree(tree_);
    }
}

ScratchDirectory::ScratchDirectory(const std::string& prefix)
{
    const fs::path directory = g_get_tmp_dir();
    std::string name = fs::absolute(directory / (prefix + "XXXXXX"));
    if (mkdtemp(name.data()) == nullptr) {
        throw common::Failure("cannot make a directory for temporary files in " + common::shown(directory) +
                              ": " + std::strerror(errno) + " (set TMPDIR to one that can be written)");
    }
    path_ = name;
    try {
        remover_.emplace(path_);
    } catch (...) { // nobody else does it
        removeTree(path_);
        throw;
    }
}

void writeText(const fs::path& path, const std::string& text)
{
    NewFile file(path);
    errno = 0;
    std::ofstream out(file.path(), std::ios::binary);
    out << text;
    out.close();
    if (!out) {
        failOn(path, "write");
    }
    file.commit();
}

namespace
{
// In the child. The program's files go with this one, and so must it. A file that may not grow is a failed
// write.
void prepareChild(void*)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGXFSZ, SIG_IGN);
}
} // namespace

std::string runProgram(const std::vector<std::string>& arguments, const std::string& package)
{
    common::ErrorSlot error;
    char* rawOutput = nullptr;
    char* rawErrors = nullptr;
    int status = 0;
    const gboolean isStarted = g_spawn_sync(
        nullptr, common::argumentsOf(arguments).data(), reproducibleEnvironment().get(), G_SPAWN_SEARCH_PATH,
        prepareChild, nullptr, &rawOutput, &rawErrors, &status, error.address());
    const common::GlibPointer<char> output(rawOutput);
    const common::GlibPointer<char> errors(rawErrors);
    if (g_error_matches(error.get(), G_SPAWN_ERROR, G_SPAWN_ERROR_NOENT) != FALSE) {
        throw common::Failure(arguments[0] + " was not found: install " + package);
    }
    if (isStarted == FALSE) {
        throw common::Failure("cannot start " + arguments[0] + ": " + error.text());
    }
    if (g_spawn_check_wait_status(status, error.address()) != FALSE) {
        return output ? output.get() : "";
    }
    const std::string said = errors ? g_strchomp(errors.get()) : "";
    throw common::Failure(arguments[0] + " failed: " + (said.empty() ? error.text() : said));
}
} // namespace fwmod
