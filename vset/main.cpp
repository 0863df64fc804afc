// vset: a virtual television on a PC, with a private root, system bus, loop devices and clock.
#include "vset/commands/commands.h"
#include "vset/commands/program.h"

int main(int argc, char** argv)
{
    const vset::Definitions commands = {
        {"new", vset::defineNew},   {"run", vset::defineRun},     {"put", vset::definePut},
        {"exec", vset::defineExec}, {"clock", vset::defineClock},
    };
    return vset::runCommandLine(argc, argv, commands, "vset-control");
}
