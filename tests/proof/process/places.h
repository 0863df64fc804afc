// The set's directories for a process that keeps them in mind: below a root of the test lies what never
// changes, and what does change (markers, packages, mounts, the list file) is remembered, so that a copy of
// the process by fork() has files of its own. Calls that name a file are taken over in places.cpp; other
// paths stay what they are.
#ifndef TESTS_PROOF_PROCESS_PLACES_H
#define TESTS_PROOF_PROCESS_PLACES_H

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/proof/process/television.h"

namespace proof
{

class Places
{
public:
    // Writes what the set holds below the directory.
    static void write(const std::string& directory, const Television& television);

    // A module's image and information file, as one lies at one of its places.
    static void writeSource(const std::string& directory, const std::string& firmware, const Source& source);

    explicit Places(std::string directory) : root(std::move(directory)) {}

    void setMarker(const std::string& path, bool isThere) { markers[path] = isThere; }
    bool isPackageThere(const std::string& id) const { return gone.count("/" + id + ".img") == 0; }
    void mount(const std::string& id) { ++mounts[id]; }
    // From now on its package holds another image than its checksum is of.
    void spoil(const std::string& id) { spoilt.insert(id); }
    bool unmount(const std::string& id); // false: nothing is mounted
    int mountsOf(const std::string& id) const;
    std::string list() const; // "-" without a list file

    // Of a path of the set: where it is now. None: it is not there.
    std::optional<std::string> find(const std::string& path) const;
    bool remove(const std::string& path);
    bool makeDirectory(const std::string& path);
    int openList(bool isForWriting); // a descriptor, or -1

private:
    std::string root;
    std::map<std::string, bool> markers;
    std::map<std::string, bool> gone; // package images, by their last part
    std::map<std::string, bool> mountPoints;
    std::map<std::string, int> mounts;
    std::set<std::string> spoilt;
    int listFile = -1;
};

// Of the process; none: all paths are the machine's own.
extern Places* places;

} // namespace proof

#endif
