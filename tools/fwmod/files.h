// Files and programs, with errors in words. Everything throws Failure.
#ifndef TOOLS_FWMOD_FILES_H
#define TOOLS_FWMOD_FILES_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/files/unique-fd.h"

namespace fwmod
{

// What is there, if anything. Throws when that cannot be told.
std::filesystem::file_status statusOf(const std::filesystem::path& path);

// Throws unless `path` is a regular file that can be read.
void requireReadable(const std::filesystem::path& path);

// Throws unless `path` is a directory, or empty because the option was not given.
void requireDirectory(const std::filesystem::path& path, const char* option);

// Throws unless there is room for a virtual set in the directory, which lies in that for temporary files.
void requireRoomForSet(const std::filesystem::path& directory);

// Throws for a directory with more than a set can be given: somebody has named "/". Empty: as above.
// With `mostRead`, also one with a file that is longer, holes included.
void refuseTooMuchForSet(const std::filesystem::path& directory,
                         std::optional<std::uintmax_t> mostRead = std::nullopt);

// The checksum that the daemon computes over the file. Of a large one a terminal is told how far it is.
unsigned int imageChecksum(const std::filesystem::path& path);

// A file that appears under its name only when it is complete: write to `path()`, then `commit()`. What was
// not committed is removed, also when the program is interrupted. One at a time.
class NewFile
{
public:
    explicit NewFile(std::filesystem::path target);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    const std::filesystem::path& path() const { return unfinished_; }
    void commit();

private:
    std::filesystem::path target_;
    std::filesystem::path unfinished_;
};

// A process that does nothing but wait until this one ends or the object does, and then removes the directory
// `tree`, if one is named, and the NewFile that was begun before and not committed: a moment later, where
// this one was killed. A signal that is not caught otherwise waits for it. One at a time, made while there is
// one thread.
class Remover
{
public:
    explicit Remover(std::filesystem::path tree = {});
    ~Remover();
    Remover(const Remover&) = delete;
    Remover& operator=(const Remover&) = delete;
    void keepAll(); // nothing is removed

private:
    std::filesystem::path tree_;
    pid_t process_ = -1;
    bool isAllKept_ = false;
    common::UniqueFd life_; // of this process: a pipe that nobody else holds open
};

// A private directory for temporary files, removed with all it holds: with the object, and in any case when
// the program ends, however that comes about, by a Remover.
class ScratchDirectory
{
public:
    explicit ScratchDirectory(const std::string& prefix = "fwmod-");
    const std::filesystem::path& path() const { return path_; } // absolute
    void keep() { remover_->keepAll(); }                        // it stays

private:
    std::filesystem::path path_;
    std::optional<Remover> remover_;
};

void writeText(const std::filesystem::path& path, const std::string& text);

// Runs a program found in PATH, waits for it and returns what it wrote to standard output. `package` is what
// to install when it is missing.
std::string runProgram(const std::vector<std::string>& arguments, const std::string& package);

} // namespace fwmod

#endif
