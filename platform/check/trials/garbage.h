// A file that is no image, where the images of packages lie, as far as this user may; it is removed with the
// object.
#ifndef PLATFORM_CHECK_TRIALS_GARBAGE_H
#define PLATFORM_CHECK_TRIALS_GARBAGE_H

#include <filesystem>
#include <string>

#include "platform/check/trials/trial.h"

namespace platformcheck
{

class Garbage
{
public:
    // Its name begins with `name`, and is its own.
    Garbage(const Trial& trial, const char* name, const std::string& content);
    ~Garbage();
    Garbage(const Garbage&) = delete;
    Garbage& operator=(const Garbage&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace platformcheck

#endif
