// Files as the daemon opens them: it may be led to anything, on a stick, in a package or in "/tmp", and a
// control library may start programs meanwhile. So nothing is waited for, what is neither a regular file nor
// a directory counts as not opened, because a FIFO or a device may never end, and no other program inherits
// the file. Any thread.
#ifndef FW_UPDATE_FILE_H
#define FW_UPDATE_FILE_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>; // closed on every exit

// Null when it cannot be opened. A directory opens, and holds nothing.
File openToRead(const std::string& path);

// Appends what the file holds. False when it cannot be opened, or when that is more than `limit` bytes.
bool readWhole(const std::string& path, size_t limit, std::string& text);

// Empties the file, or makes it; null when that fails. A symbolic link is not followed: it would lead to
// another file.
File openToReplace(const std::string& path);

#endif
