// fwmod: what a maker of firmware modules needs on a PC. No privileges, no television.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

#include "common/process/interruption.h"
#include "common/process/room.h"
#include "tools/fwmod/commands/command.h"

namespace fwmod
{

namespace
{
constexpr common::Command kCommands[] = {
    {"new", "Make a complete module to start from", defineNew},
    {"crc", "Checksum of an image, as the daemon computes it", defineCrc},
    {"info", "Write or check an information file (info.json)", defineInfo},
    {"package", "Make the package (ID.img) that the daemon mounts", definePackage},
    {"usb", "Make the encrypted, signed image for a USB stick", defineUsb},
    {"inspect", "Tell what a file is, and whether it would be accepted", defineInspect},
    {"diff", "Tell what differs between two files of a kind", defineDiff},
    {"try", "Update the module on a virtual set, and tell what happens", defineTry},
    {"check", "Try a control library, and tell what is wrong with it", defineCheck},
};

// One that was closed must not be the number of a file that we open and a child inherits. To read only, so
// that a write is still an error.
void occupyStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDONLY) != stream) {
            std::abort(); // no such number is free: then it was not closed
        }
    }
}

int run(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes away is a failed write: what was begun is put away
    std::signal(SIGXFSZ,
                [](int) {}); // "ulimit -f": a failed write as well. Programs that we start are ended by it
    occupyStandardStreams();
    common::CommandLine program("fwmod", "Makes and checks what a firmware module consists of.");
    program.footer(
        "Examples:\n"
        "  fwmod new tuner\n"
        "  fwmod crc Tuner.bin\n"
        "  fwmod info --version 1.1 --image Tuner.bin --expected-time 8 -o info.json\n"
        "  fwmod package --image Tuner.bin --info info.json --id empTuner -o empTuner.img\n"
        "  fwmod usb --version-header 1.1 --payload Tuner.bin --key-file content.key \\\n"
        "            --sign-key signing.pem -o stick/Tuner.bin\n"
        "  fwmod inspect stick/Tuner.bin --public-key signing.pub.pem\n"
        "  fwmod diff old/empTuner.img new/empTuner.img\n"
        "  fwmod try tuner.so --package empTuner.img\n"
        "  fwmod check tuner.so --package empTuner.img --hardware hardware\n"
        "\"fwmod COMMAND --help\" says more. Exit status: 0 done, 1 failed or refused, 2 wrong use.");
    program.commands({std::begin(kCommands), std::end(kCommands)});
    program.beforeRun(common::requireRoom);
    try {
        return program.main(argc, argv);
    } catch (const common::Interrupted& interruption) {
        std::fprintf(stderr, "fwmod: interrupted, and the set has ended\n");
        std::fflush(stdout);
        raise(interruption.signal); // as it usually does: it ends the program
        return 1;
    }
}
} // namespace

} // namespace fwmod

int main(int argc, char** argv)
{
    return fwmod::run(argc, argv);
}
