// vset wait: until something has happened to a set, or a limit has passed.
#include <memory>
#include <optional>

#include "vset/commands/commands.h"
#include "vset/launcher/set-directory.h"
#include "vset/television/set-watch.h"

namespace vset
{

namespace
{

constexpr common::Range<double> kLimit{0, 24 * 60 * 60};
constexpr common::Range<int> kBoots{1, 1'000'000};
constexpr common::Range<int> kTimes{1, 1'000'000};

struct WaitOptions {
    std::string set;
    double limit = 30;
    std::string text;
    bool isWhole = false;
    int count = 1;
    std::string since = "boot";
    std::optional<int> boot;
    std::optional<int> number;
};

using Make = std::function<Condition(const std::filesystem::path& set)>;
using Options = std::shared_ptr<WaitOptions>;

// A condition as a subcommand. Its arguments are declared on what this returns.
common::CommandLine& define(common::CommandLine& wait, const Options& options, const char* name,
                            const char* summary, const Make& make)
{
    common::CommandLine& command = wait.command(name, summary);
    command.number("--limit", options->limit, kLimit, "Seconds of this PC's time").called("S");
    command.onRun([options, make] {
        const std::filesystem::path set = SetDirectory::open(options->set).path();
        waitFor(set, make(set), std::chrono::milliseconds(static_cast<int64_t>(options->limit * 1000)));
    });
    return command;
}

common::Option takeBoot(common::CommandLine& command, const Options& options, const char* help)
{
    return command.number("--boot", options->boot, kBoots, help).called("N");
}

Since sinceOf(const std::string& word)
{
    return word == "now"    ? Since::kNow
           : word == "on"   ? Since::kOn
           : word == "ever" ? Since::kEver
                            : Since::kBoot;
}

// ---- The conditions ----

void defineLife(common::CommandLine& wait, const Options& options)
{
    constexpr common::Range<int> kStatus{0, 255};
    define(wait, options, "on", "It is on, with all its services", [](const auto& set) { return isUp(set); });
    define(wait, options, "off", "It is off, for good or not switched on", isOff);
    define(wait, options, "boot", "It is up for the N-th time since it was switched on",
           [options](const auto& set) { return isUp(set, options->boot); })
        .number("N", options->boot, kBoots, "1 is the first boot; every reboot adds one")
        .required();
    common::CommandLine& ended =
        define(wait, options, "ended", "The daemon (or the command) of this boot has ended",
               [options](const auto& set) { return hasEnded(set, options->number, options->boot); });
    ended.number("--status", options->number, kStatus, "With this exit status; 128 + N after signal N");
    takeBoot(ended, options, "That of the N-th boot since the set was switched on");
}

void defineLog(common::CommandLine& wait, const Options& options)
{
    constexpr common::Range<int> kStates{0, 99};
    const auto takeRange = [&options](common::CommandLine& command) {
        const common::Option since =
            command
                .text("--since", options->since,
                      "What counts: said in this boot, from now on, since the set was "
                      "switched on, or ever")
                .oneOf({"boot", "now", "on", "ever"});
        takeBoot(command, options, "What counts: said from the N-th boot on").excludes(since);
    };
    common::CommandLine& says =
        define(wait, options, "says", "The daemon has said a text in the platform's log",
               [options](const auto& set) {
                   return hasSaid(set, {options->text, options->isWhole, static_cast<size_t>(options->count),
                                        sinceOf(options->since), options->boot});
               });
    says.text("TEXT", options->text, "A part of the message").required();
    says.flag("--whole", options->isWhole, "TEXT is all of the message");
    says.number("--count", options->count, kTimes, "So many messages of that kind");
    takeRange(says);
    common::CommandLine& state =
        define(wait, options, "state", "The daemon has come to a state", [options](const auto& set) {
            return hasSaid(set, {"", false, 1, sinceOf(options->since), options->boot, options->number});
        });
    state.number("NUMBER", options->number, kStates, "As docs/states.md counts them").required();
    takeRange(state);
}

void defineFiles(common::CommandLine& wait, const Options& options)
{
    for (const bool isThere : {true, false}) {
        define(wait, options, isThere ? "file" : "absent",
               isThere ? "A file or directory of the set is there" : "It is not there, or gone",
               [options, isThere](const auto& set) { return fileIs(set, options->text, isThere); })
            .text("PATH", options->text, "Its absolute path in the set")
            .required();
    }
}

void definePlatform(common::CommandLine& wait, const Options& options)
{
    constexpr common::Range<int> kCount{0, 1000};
    constexpr common::Range<int> kAny{std::numeric_limits<int>::min(), std::numeric_limits<int>::max()};
    define(wait, options, "power", "The platform is in a power state",
           [options](const auto& set) { return powerIs(set, powerState(options->text)); })
        .text("STATE", options->text, "on (0), standby (2), or another state's number")
        .required();
    define(wait, options, "locks", "So many power locks are held",
           [options](const auto& set) { return locksAre(set, static_cast<unsigned int>(*options->number)); })
        .number("COUNT", options->number, kCount, "0 for none")
        .required();
    common::CommandLine& progress =
        define(wait, options, "progress", "A module's control library has written so much",
               [options](const auto& set) { return progressIs(set, options->text, *options->number); });
    progress.text("MODULE", options->text, "As `vset modules` names it").required();
    progress.number("PERCENT", options->number, common::Range<int>{0, 100}, "At least").required();
    common::CommandLine& setting =
        define(wait, options, "setting", "A settings key has a value",
               [options](const auto& set) { return settingIs(set, options->text, *options->number); });
    setting.text("KEY", options->text, "Settings key").required();
    setting.number("VALUE", options->number, kAny, "A whole number of 32 bits").required();
}

} // namespace

void defineWait(common::CommandLine& command)
{
    const auto options = std::make_shared<WaitOptions>();
    takeSet(command, options->set);
    defineLife(command, options);
    defineLog(command, options);
    defineFiles(command, options);
    definePlatform(command, options);
    command.footer(
        "Exit status: 0 when it is so, 1 after the limit or when it can no longer become so, with what "
        "was\nseen last. A set that is off is given ten seconds to be switched on.\n"
        "Examples:\n"
        "  vset wait /tmp/tv on\n"
        "  vset wait /tmp/tv says \"Tuner update start\" --limit 60\n"
        "  vset wait /tmp/tv state 10 --since now\n"
        "  vset wait /tmp/tv ended --status 0\n"
        "  vset wait /tmp/tv boot 2\n"
        "  vset wait /tmp/tv absent /tmp/fwupdate-off-list.txt\n"
        "  vset wait /tmp/tv setting memory/ep_firmware_update_app/fw_update_status 2");
}

} // namespace vset
