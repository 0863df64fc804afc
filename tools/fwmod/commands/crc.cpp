// fwmod crc FILE...
#include <cstdio>
#include <memory>
#include <vector>

#include "common/terminal/visible-text.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"

namespace fwmod
{

void defineCrc(common::CommandLine& command)
{
    auto files = std::make_shared<std::vector<std::string>>();
    command.texts("FILE", *files, "Image files").required();
    command.footer("Prints decimal (as \"crc\" of an information file has it), hexadecimal and the name.\n"
                   "Example:\n  fwmod crc Tuner.bin");
    command.onRun([files] {
        for (const std::string& file : *files) {
            const unsigned int checksum = imageChecksum(file);
            std::printf("%u 0x%08x %s\n", checksum, checksum, common::visible(file).c_str());
        }
        return 0;
    });
}
} // namespace fwmod
