#include "vset/television/set-contents.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "common/errors.h"
#include "common/files/file-copy.h"
#include "common/files/regular-file.h"
#include "common/plain-words.h"
#include "common/terminal/visible-text.h"
#include "vset/television/workshop.h"

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
    return common::plainWords(error);
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

// As it is in a set that root runs: daemon and platform have users of their own. A plain user's are all one.
void giveToOwnerOf(const HeldDirectory& place, const fs::path& tree)
{
    struct stat owner{};
    if (geteuid() == 0 && fstat(place.directory(), &owner) == 0) {
        giveTree(tree, owner.st_uid, owner.st_gid);
    }
}

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

// The copy of a tree with the set in it would have no end, or hold what it replaces.
void requireNotIn(const fs::path& from, const fs::path& ofSet)
{
    const fs::path source = fs::weakly_canonical(from);
    const fs::path to = fs::weakly_canonical(ofSet);
    if (std::mismatch(source.begin(), source.end(), to.begin(), to.end()).first == source.end()) {
        fail(from.string(), "the set lies in it: put a directory that is outside of it");
    }
}

// A tree of the PC, to `unfinished`, which is for that directory of the set.
void copyTreeFrom(const fs::path& from, const fs::path& unfinished, const fs::path& directory)
{
    requireNotIn(from, unfinished);
    requireNotIn(from, directory);
    common::copyTree(from, unfinished);
}

// All of them, before the first of them is seen in the set.
void replaceAll(const fs::path& set, const fs::path& directory, const fs::path& chips)
{
    requireNotIn(chips, directory);
    const HeldDirectory place(set, directory, HeldDirectory::Missing::kIsMade);
    const Workshop workshop(set);
    std::vector<fs::path> names;
    for (const fs::directory_entry& chip : fs::directory_iterator(chips)) {
        const fs::path& name = names.emplace_back(chip.path().filename());
        copyTreeFrom(chip.path(), workshop.at(name), directory);
        giveToOwnerOf(place, workshop.at(name));
    }
    for (const fs::path& name : names) {
        moveIn(workshop.at(name), place, name);
    }
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
    const bool isSet =
        fs::is_directory(set / "usr", error) && fs::exists(fs::symlink_status(set / ".vset", error));
    if (type != fs::file_type::directory || !isSet) {
        throw common::Failure("there is no set at " + set.string() + ": make one with `vset new " +
                              common::inShell(set.string()) + "`");
    }
}

std::optional<fs::path> SetContents::find(const std::string& path) const
{
    // The rest of /usr is the PC's own; /lib is a link to /usr/lib.
    const std::string plain = fs::path(path).lexically_normal(); // ".." does not lead out of the set
    const std::string real = isBelow(plain, inset::kSystemImages) ? "/usr" + plain : plain;
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
    attempt("cannot put " + chips.string() + " into the set",
            [&] { replaceAll(set_, outside(inset::kHardware), chips); });
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
    bool isBegun = false; // text may stand before it
    bool isWhole = false;
    for (std::string line; !isWhole && std::getline(in, line);) {
        isBegun = isBegun || line.rfind("-----BEGIN PUBLIC KEY", 0) == 0;
        isWhole = isBegun && line.rfind("-----END PUBLIC KEY", 0) == 0;
    }
    if (!isWhole) {
        fail(file.string(),
             "is no public key in PEM form, from its -----BEGIN PUBLIC KEY----- to its END: make one of the "
             "signing key with `openssl pkey -in KEY -pubout`");
    }
    put(file, inset::kSigningKeys, file.stem().string() + ".pem");
}

} // namespace vset
