#include "vset/television/set-contents.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/file-copy.h"
#include "common/files/regular-file.h"
#include "common/files/unique-fd.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& what, const std::string& why)
{
    throw common::Failure(what + ": " + why);
}

std::string reasonOf(const fs::filesystem_error& error)
{
    if (error.code() ==
        std::errc::not_supported) { // the copying's own word for what is neither file nor link
        return error.path1().string() + " " + common::problemOfSpecialFile(error.path1()) + ": take it away";
    }
    return error.code().message() + " (" + (error.path2().empty() ? error.path1() : error.path2()).string() +
           ")";
}

// Runs what throws std::filesystem errors; they leave as ours, with the whole sentence.
void attempt(const std::string& what, const std::function<void()>& action)
{
    try {
        action();
    } catch (const fs::filesystem_error& error) {
        fail(what, reasonOf(error));
    }
}

void give(const fs::path& path, uid_t user, gid_t group)
{
    if (lchown(path.c_str(), user, group) != 0) {
        throw fs::filesystem_error("chown", path, std::error_code(errno, std::generic_category()));
    }
}

void giveTree(const fs::path& tree, uid_t user, gid_t group)
{
    give(tree, user, group);
    if (!fs::is_directory(fs::symlink_status(tree))) {
        return;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        give(entry.path(), user, group);
    }
}

// A file that is written anew stays whose it was, and open to whom it was.
bool keepOwnerAndMode(const fs::path& target, const fs::path& unfinished)
{
    struct stat before{};
    if (lstat(target.c_str(), &before) != 0 || !S_ISREG(before.st_mode)) {
        return false;
    }
    const bool isKept = (geteuid() != 0 || chown(unfinished.c_str(), before.st_uid, before.st_gid) == 0) &&
                        chmod(unfinished.c_str(), before.st_mode & 07777) == 0;
    if (!isKept) {
        throw fs::filesystem_error("chown", target, std::error_code(errno, std::generic_category()));
    }
    return true;
}

// A directory of the set, held open. The set's own programs may put a link in its place, or in the place of
// any on the way to it: none is followed, since it would lead to the PC's own files.
class HeldDirectory
{
public:
    enum class Missing { kIsMade, kIsNothing };

    HeldDirectory(const fs::path& set, const fs::path& path, Missing missing) : path_(path)
    {
        constexpr int kOpening = O_PATH | O_DIRECTORY | O_CLOEXEC;
        directory_ = common::UniqueFd(open(set.c_str(), kOpening));
        fs::path reached = set;
        for (const fs::path& name : path.lexically_relative(set)) {
            reached /= name;
            if (missing == Missing::kIsMade) {
                mkdirat(directory_.get(), name.c_str(), 0755);
            }
            directory_ = common::UniqueFd(openat(directory_.get(), name.c_str(), kOpening | O_NOFOLLOW));
            if (!directory_) {
                break;
            }
        }
        if (!directory_ && (errno != ENOENT || missing == Missing::kIsMade)) {
            const int error = errno;
            if (error == ENOTDIR || error == ELOOP) {
                fail(reached.string(), "is in the way: a set has a directory there");
            }
            throw fs::filesystem_error("open", reached, std::error_code(error, std::generic_category()));
        }
    }

    bool isThere() const { return static_cast<bool>(directory_); }
    int directory() const { return directory_.get(); }
    const fs::path& path() const { return path_; }
    // For functions that take paths; good as long as this object.
    fs::path by(const fs::path& name) const
    {
        return fs::path("/proc/self/fd") / std::to_string(directory_.get()) / name;
    }

private:
    fs::path path_;
    common::UniqueFd directory_;
};

// As it is in a set that root runs: daemon and platform have users of their own. A plain user's are all one.
void giveToOwnerOf(const HeldDirectory& place, const fs::path& tree)
{
    struct stat owner{};
    if (geteuid() == 0 && fstat(place.directory(), &owner) == 0) {
        giveTree(tree, owner.st_uid, owner.st_gid);
    }
}

// Where something is put together: beside the set's own files, so that nobody in it sees it or has a hand in
// it before it is whole.
class Workshop
{
public:
    explicit Workshop(const fs::path& set)
    {
        const HeldDirectory place(set, set / ".vset", HeldDirectory::Missing::kIsMade);
        removeLeftovers(place.path());
        directory_ = place.path() / (kBegin + std::to_string(getpid()) + ".XXXXXX");
        std::string name = directory_;
        if (mkdtemp(name.data()) == nullptr) {
            throw fs::filesystem_error("mkdir", place.path(),
                                       std::error_code(errno, std::generic_category()));
        }
        directory_ = name;
    }
    ~Workshop()
    {
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }
    Workshop(const Workshop&) = delete;
    Workshop& operator=(const Workshop&) = delete;

    fs::path at(const fs::path& name) const { return directory_ / name; }

private:
    static inline const std::string kBegin = "put.";

    static bool isGone(const std::string& process)
    {
        const bool isNumber = !process.empty() && process.size() < 10 &&
                              process.find_first_not_of("0123456789") == std::string::npos;
        return isNumber && kill(std::stoi(process), 0) != 0 && errno == ESRCH;
    }

    // Of a program that was killed at its work.
    static void removeLeftovers(const fs::path& directory)
    {
        std::error_code error;
        fs::directory_iterator entry(directory, error);
        for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
            const std::string name = entry->path().stem().string(); // without the random part
            if (name.rfind(kBegin, 0) == 0 && isGone(name.substr(kBegin.size()))) {
                std::error_code ignored;
                fs::remove_all(entry->path(), ignored);
            }
        }
    }

    fs::path directory_;
};

// Under its name, in one step, even where a full directory or another such step is; what was there is in the
// workshop then.
void moveIn(const fs::path& finished, const HeldDirectory& place, const fs::path& name)
{
    constexpr int kTries = 100; // somebody puts and removes things there as well
    for (int tries = 0; tries < kTries; ++tries) {
        for (const unsigned int how : {RENAME_NOREPLACE, RENAME_EXCHANGE}) {
            if (renameat2(AT_FDCWD, finished.c_str(), place.directory(), name.c_str(), how) == 0) {
                return;
            }
            if (errno != EEXIST && errno != ENOENT) {
                throw fs::filesystem_error("rename", place.path() / name,
                                           std::error_code(errno, std::generic_category()));
            }
        }
    }
    fail((place.path() / name).string(), "somebody else puts it there and removes it all the time");
}

// Replaces `target` of the set by what `make` makes.
void replace(const fs::path& set, const fs::path& target,
             const std::function<void(const fs::path& unfinished)>& make, bool isSameFile = false)
{
    const HeldDirectory place(set, target.parent_path(), HeldDirectory::Missing::kIsMade);
    const Workshop workshop(set);
    const fs::path name = target.filename();
    const fs::path unfinished = workshop.at(name);
    make(unfinished);
    if (!isSameFile || !keepOwnerAndMode(place.by(name), unfinished)) {
        giveToOwnerOf(place, unfinished);
    }
    moveIn(unfinished, place, name);
}

void requireFile(const fs::path& file)
{
    std::error_code error;
    if (fs::status(file, error).type() == fs::file_type::not_found) {
        fail(file.string(), "there is no such file");
    }
    const common::RegularFile readable(file);
    if (readable.descriptor() < 0) {
        fail(file.string(), readable.problem());
    }
}

void requireDirectory(const fs::path& directory)
{
    std::error_code error;
    const fs::file_type type = fs::status(directory, error).type();
    if (type == fs::file_type::not_found) {
        fail(directory.string(), "there is no such directory");
    }
    if (type == fs::file_type::none) {
        fail(directory.string(), "cannot be looked into: " + error.message());
    }
    if (!fs::is_directory(directory, error)) {
        fail(directory.string(), "is not a directory");
    }
}

void requireName(const fs::path& file, const char* extension, const char* example)
{
    if (file.extension() != extension || file.stem().empty()) {
        fail(file.string(), std::string("its name has to end in ") + extension + ", as in " + example);
    }
}

// A tree of the PC, to `unfinished`, which is for that directory of the set. Neither lies in the tree: the
// copy would have no end, or hold what it replaces.
void copyTreeFrom(const fs::path& from, const fs::path& unfinished, const fs::path& directory)
{
    const fs::path source = fs::weakly_canonical(from);
    for (const fs::path& each : {unfinished, directory}) {
        const fs::path to = fs::weakly_canonical(each);
        if (std::mismatch(source.begin(), source.end(), to.begin(), to.end()).first == source.end()) {
            fail(from.string(), "the set lies in it: put a directory that is outside of it");
        }
    }
    common::copyTree(from, unfinished);
}

// "SET/firmware/" and "SET/firmware" are the same directory.
std::string lastNameOf(const fs::path& directory)
{
    const fs::path canonical = fs::weakly_canonical(directory);
    return canonical.filename().string();
}

bool isBelow(const std::string& path, const std::string& directory)
{
    return path == directory || path.rfind(directory + "/", 0) == 0;
}

} // namespace

SetContents::SetContents(const fs::path& set) : set_(set)
{
    std::error_code error;
    const fs::file_type type = fs::status(set / "root", error).type();
    if (type == fs::file_type::none) { // there may be one that cannot be looked into
        fail("the set " + set.string() + " cannot be opened", error.message());
    }
    if (type != fs::file_type::directory || !fs::is_directory(set / "usr", error)) {
        throw common::Failure("there is no set at " + set.string() + ": make one with `vset new " +
                              set.string() + "`");
    }
}

std::optional<fs::path> SetContents::find(const std::string& path) const
{
    // The rest of /usr is the PC's own; /lib is a link to /usr/lib.
    const std::string plain = fs::path(path).lexically_normal(); // ".." does not lead out of the set
    const std::string real = isBelow(plain, "/lib/firmware/ext") ? "/usr" + plain : plain;
    const fs::path relative = fs::path(real).relative_path();
    for (const char* top : {"/usr/fwupdate", inset::kBuiltInFirmware, "/usr/bin", "/usr/lib"}) {
        if (isBelow(real, top)) {
            return set_ / relative;
        }
    }
    for (const char* top : {"/tmp", "/run", "/prd", "/opt", "/var", "/srv", "/home", "/root"}) {
        if (isBelow(real, top)) {
            return set_ / "root" / relative;
        }
    }
    return std::nullopt;
}

fs::path SetContents::outside(const std::string& path) const
{
    if (const std::optional<fs::path> found = find(path)) {
        return *found;
    }
    throw common::Failure(path + " is no file of the set's own: it has /tmp, /run, /prd, /opt, /var, /srv, "
                                 "/home, /root and /usr/fwupdate");
}

void SetContents::giveToCaller() const
{
    attempt("the set cannot be given to its caller", [&] { giveTree(set_, geteuid(), getegid()); });
}

void SetContents::write(const std::string& path, const std::string& content) const
{
    const auto make = [&content](const fs::path& unfinished) {
        std::ofstream out(unfinished, std::ios::binary | std::ios::trunc);
        out << content;
        out.close();
        if (!out) {
            throw fs::filesystem_error("write", unfinished, std::error_code(errno, std::generic_category()));
        }
    };
    attempt("cannot write " + path + " of the set", [&] { replace(set_, outside(path), make, true); });
}

void SetContents::put(const fs::path& from, const std::string& directory, const std::string& name) const
{
    const fs::path ownName = from.has_filename() ? from.filename() : from.parent_path().filename();
    const fs::path target = outside(directory) / (name.empty() ? ownName : fs::path(name));
    attempt("cannot put " + from.string() + " into the set", [&] {
        const fs::path real = fs::canonical(from); // a link that a person names is what it leads to
        replace(set_, target,
                [&](const fs::path& unfinished) { copyTreeFrom(real, unfinished, target.parent_path()); });
    });
}

void SetContents::putLibrary(const fs::path& file, Controls where) const
{
    requireFile(file);
    requireName(file, ".so", "tuner.so");
    put(file, where == Controls::kSystem ? inset::kSystemControls : inset::kProductControls);
}

void SetContents::putPackage(const fs::path& file, Place where) const
{
    requireFile(file);
    requireName(file, ".img", "empTuner.img");
    put(file, where == Place::kFeed ? inset::kFeed : inset::kPackages);
}

void SetContents::putFirmware(const fs::path& directory) const
{
    requireDirectory(directory);
    const std::string name = lastNameOf(directory);
    if (!fs::is_regular_file(directory / (name + ".bin"))) { // an external module has no info.json beside it
        fail(directory.string(),
             "there is no " + name + ".bin in it: the daemon looks for NAME/NAME.bin and NAME/info.json");
    }
    put(directory, inset::kBuiltInFirmware, name);
}

void SetContents::putHardware(const fs::path& chips) const
{
    std::error_code error;
    if (!fs::is_directory(chips, error)) {
        requireFile(chips);
        put(chips, inset::kHardware);
        return;
    }
    attempt("cannot put " + chips.string() + " into the set", [&] {
        for (const fs::directory_entry& chip : fs::directory_iterator(chips)) {
            replace(set_, outside(inset::kHardware) / chip.path().filename(),
                    [&](const fs::path& unfinished) {
                        copyTreeFrom(chip.path(), unfinished, outside(inset::kHardware));
                    });
        }
    });
}

void SetContents::putStick(const fs::path& directory) const
{
    requireDirectory(directory);
    attempt("the stick cannot be inserted", [&] {
        const fs::path real = fs::canonical(directory);
        replace(set_, outside(inset::kStick), [&](const fs::path& unfinished) {
            copyTreeFrom(real, unfinished, outside(inset::kUsbSlot));
        });
    });
}

void SetContents::removeStick() const
{
    std::error_code error;
    const fs::path stick = outside(inset::kStick);
    const HeldDirectory slot(set_, stick.parent_path(), HeldDirectory::Missing::kIsNothing);
    const bool wasThere = slot.isThere() && fs::remove_all(slot.by(stick.filename()), error) > 0;
    if (error) {
        fail("the stick cannot be removed", error.message());
    }
    if (!wasThere) {
        throw common::Failure("there is no stick in the slot of " + set_.string());
    }
}

void SetContents::putSigningKey(const fs::path& file) const
{
    requireFile(file);
    std::ifstream in(file);
    bool isKey = false; // text may stand before it
    for (std::string line; !isKey && std::getline(in, line);) {
        isKey = line.rfind("-----BEGIN PUBLIC KEY", 0) == 0;
    }
    if (!isKey) {
        fail(file.string(),
             "is no public key in PEM form (-----BEGIN PUBLIC KEY-----): make one of the signing "
             "key with `openssl pkey -in KEY -pubout`");
    }
    put(file, inset::kSigningKeys, file.stem().string() + ".pem");
}

} // namespace vset
