// A directory of a test's own, removed with all it holds, and a file to be put into it.
#ifndef TESTS_SUPPORT_TEMPORARY_DIRECTORY_H
#define TESTS_SUPPORT_TEMPORARY_DIRECTORY_H

#include <filesystem>
#include <fstream>
#include <string>

#include "common/files/temporary-directory.h"

class TemporaryDirectory : public common::TemporaryDirectory
{
public:
    TemporaryDirectory() : common::TemporaryDirectory("test-") {}
};

inline void writeBytes(const std::filesystem::path& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

#endif
