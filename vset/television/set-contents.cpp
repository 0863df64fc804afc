#include "vset/television/set-contents.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/errors.h"
#include "common/file-copy.h"
#include "common/regular-file.h"

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

// Not under the name that somebody may be looking for, but on the same file system.
fs::path unfinishedNameOf(const fs::path& target)
{
    return target.parent_path() / ("." + target.filename().string() + "." + std::to_string(getpid()));
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

// As it is in a set that root runs: daemon and platform have users of their own. A plain user's are all one.
void giveToOwnerOf(const fs::path& directory, const fs::path& tree)
{
    struct stat owner{};
    if (geteuid() == 0 && stat(directory.c_str(), &owner) == 0) {
        giveTree(tree, owner.st_uid, owner.st_gid);
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

bool isGone(const std::string& process)
{
    const bool isNumber = !process.empty() && process.size() < 10 &&
                          process.find_first_not_of("0123456789") == std::string::npos;
    return isNumber && kill(std::stoi(process), 0) != 0 && errno == ESRCH;
}

// What a program that was killed at its work has left beside `target`.
void removeLeftovers(const fs::path& target)
{
    const std::string begin = "." + target.filename().string() + ".";
    std::error_code error;
    fs::directory_iterator entry(target.parent_path(), error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.rfind(begin, 0) == 0 && isGone(name.substr(begin.size()))) {
            std::error_code ignored;
            fs::remove_all(entry->path(), ignored);
        }
    }
}

// Makes `target` by way of a hidden neighbour, which `make` fills. Directories are exchanged one after the
// other: rename() puts none over a full one.
void replace(const fs::path& target, const std::function<void(const fs::path& unfinished)>& make,
             bool isSameFile = false)
{
    const fs::path unfinished = unfinishedNameOf(target);
    try {
        fs::create_directories(target.parent_path());
        removeLeftovers(target);
        make(unfinished);
        if (!isSameFile || !keepOwnerAndMode(target, unfinished)) {
            giveToOwnerOf(target.parent_path(), unfinished);
        }
        if (fs::is_directory(fs::symlink_status(target))) {
            fs::remove_all(target);
        }
        fs::rename(unfinished, target);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(unfinished, ignored);
        throw;
    }
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

// A tree of the PC, to `unfinished`, which does not lie in it: the copy would have no end.
void copyTreeFrom(const fs::path& from, const fs::path& unfinished)
{
    const fs::path source = fs::weakly_canonical(from);
    const fs::path target = fs::weakly_canonical(unfinished);
    if (std::mismatch(source.begin(), source.end(), target.begin(), target.end()).first == source.end()) {
        fail(from.string(), "the set lies in it: put a directory that is outside of it");
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
    const std::string real = isBelow(path, "/lib/firmware/ext") ? "/usr" + path : path;
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
    attempt("cannot write " + path + " of the set", [&] { replace(outside(path), make, true); });
}

void SetContents::put(const fs::path& from, const std::string& directory, const std::string& name) const
{
    const fs::path ownName = from.has_filename() ? from.filename() : from.parent_path().filename();
    const fs::path target = outside(directory) / (name.empty() ? ownName : fs::path(name));
    attempt("cannot put " + from.string() + " into the set", [&] {
        const fs::path real = fs::canonical(from); // a link that a person names is what it leads to
        replace(target, [&](const fs::path& unfinished) { copyTreeFrom(real, unfinished); });
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
            replace(outside(inset::kHardware) / chip.path().filename(),
                    [&](const fs::path& unfinished) { copyTreeFrom(chip.path(), unfinished); });
        }
    });
}

void SetContents::putStick(const fs::path& directory) const
{
    requireDirectory(directory);
    attempt("the stick cannot be inserted", [&] {
        replace(outside(inset::kStick),
                [&](const fs::path& unfinished) { copyTreeFrom(directory, unfinished); });
    });
}

void SetContents::removeStick() const
{
    std::error_code error;
    const bool wasThere = fs::remove_all(outside(inset::kStick), error) > 0;
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
