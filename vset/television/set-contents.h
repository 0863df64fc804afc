// What lies in a set: a maker's files put where the daemon looks for them, and the set's own absolute paths
// as this machine sees them. The set may be on or off.
//
// A file that a running set may read is replaced whole: whoever looks sees the old one or the new one. What
// is put into a directory belongs to whom the directory belongs to, so that a set of root's and one without
// root both get their owners right. Failures are common::Failure, with a text for a person. No state but the
// path: usable from several threads.
#ifndef VSET_TELEVISION_SET_CONTENTS_H
#define VSET_TELEVISION_SET_CONTENTS_H

#include <filesystem>
#include <optional>
#include <string>

#include "common/daemon/places.h"

namespace vset
{

namespace inset = common::places; // the set's paths, as it names them

class SetContents
{
public:
    // Throws common::Failure when there is no set in that directory.
    explicit SetContents(const std::filesystem::path& set);

    const std::filesystem::path& set() const { return set_; }
    // Where an absolute path of the set lies on this machine; nothing for what only exists while it is on
    // (/dev, /proc, /etc ...), and for what is no absolute path.
    std::optional<std::filesystem::path> find(const std::string& path) const;
    // The same; throws common::Failure in place of nothing.
    std::filesystem::path outside(const std::string& path) const;

    // Replaces one file, which keeps owner and mode if it was there; makes missing directories.
    void write(const std::string& path, const std::string& content) const;
    // A file of this machine, or a directory with all it holds, under another name or its own, into a
    // directory of the set.
    void put(const std::filesystem::path& from, const std::string& directory,
             const std::string& name = "") const;

    enum class Controls { kProduct, kSystem };
    enum class Place { kFeed, kDelivered };
    // A control library, NAME.so.
    void putLibrary(const std::filesystem::path& file, Controls where) const;
    // A package, ID.img: for the package service to fetch, or as one that has been delivered.
    void putPackage(const std::filesystem::path& file, Place where) const;
    // A module's directory of the system image, NAME/ with NAME.bin and info.json.
    void putFirmware(const std::filesystem::path& directory) const;
    // A chip as a file, or a directory of them. The daemon may write it.
    void putHardware(const std::filesystem::path& chips) const;
    // Into the USB slot, in the place of what is in it: the files of a directory, whole or not at all.
    void putStick(const std::filesystem::path& directory) const;
    // Throws common::Failure when there is none.
    void removeStick() const;
    // A maker's public key (PEM), trusted by the set's signature library from now on.
    void putSigningKey(const std::filesystem::path& file) const;

private:
    std::filesystem::path set_;
};

} // namespace vset

#endif
