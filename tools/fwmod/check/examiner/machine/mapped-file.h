// A file's content without a copy: a chip has megabytes, and is looked at after each power cut.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_MAPPED_FILE_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_MAPPED_FILE_H

#include <fcntl.h>
#include <filesystem>
#include <gio/gio.h>
#include <memory>
#include <string_view>

#include "tools/fwmod/check/examiner/machine/plain-files.h"

namespace fwmod::examiner
{

class MappedFile
{
public:
    explicit MappedFile(const std::filesystem::path& file)
        : file_(g_mapped_file_new_from_fd(openPlain(file, O_RDONLY).get(), FALSE, nullptr))
    {
    }
    std::string_view content() const // none when it cannot be read
    {
        const char* const bytes = file_ ? g_mapped_file_get_contents(file_.get()) : nullptr;
        return bytes != nullptr ? std::string_view(bytes, g_mapped_file_get_length(file_.get()))
                                : std::string_view();
    }

private:
    struct Unmap {
        void operator()(GMappedFile* file) const { g_mapped_file_unref(file); }
    };
    std::unique_ptr<GMappedFile, Unmap> file_;
};

} // namespace fwmod::examiner

#endif
