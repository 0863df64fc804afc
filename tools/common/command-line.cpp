#include "command-line.h"

#include <cstdio>

namespace
{
int runChosen(CLI::App& app, const std::vector<Command>& commands, int argc, char** argv)
{
    std::vector<std::pair<CLI::App*, Run>> choices;
    for (const Command& command : commands) {
        CLI::App* const sub = app.add_subcommand(command.name, command.summary);
        choices.emplace_back(sub, command.define(*sub));
    }
    app.require_subcommand(1);
    app.parse(argc, argv);
    for (const auto& [sub, run] : choices) {
        if (sub->parsed())
            return run();
    }
    return kStatusWrongUse; // CLI11 has insisted on a command
}

int report(const CLI::App& app, const std::exception& error, int status)
{
    std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), error.what());
    return status;
}
} // namespace

int runCommandLine(CLI::App& app, const std::vector<Command>& commands, int argc, char** argv)
{
    try {
        const int status = runChosen(app, commands, argc, argv);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
            throw Failure("cannot write to standard output");
        return status;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kStatusWrongUse; // --help is no error
    } catch (const CommandError& error) {
        return report(app, error, error.status());
    } catch (const std::exception& error) {
        return report(app, error, kStatusFailed);
    }
}
