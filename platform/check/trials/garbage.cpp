#include "platform/check/trials/garbage.h"

#include <fstream>
#include <unistd.h>

#include "common/process/process-state.h"

namespace platformcheck
{

Garbage::Garbage(const Trial& trial, const char* name, const std::string& content)
{
    const std::filesystem::path packages = trial.options().image.parent_path();
    const bool isUsable = !packages.empty() && access(packages.c_str(), W_OK | X_OK) == 0;
    path_ =
        (isUsable ? packages : trial.options().work) / (name + std::to_string(common::realNow()) + ".img");
    std::ofstream(path_) << content;
}

Garbage::~Garbage()
{
    unlink(path_.c_str());
}

} // namespace platformcheck
