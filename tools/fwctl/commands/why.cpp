// fwctl why MODULE [--json]
#include <cstdio>
#include <memory>
#include <vector>

#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/obstacles.h"
#include "tools/fwctl/output.h"

namespace fwctl
{

namespace
{
std::string outcomeOfPending(const Json::Value& module)
{
    const bool fromSystem = module["pending_source"] == "system";
    const std::string uiUse = module["ui_use"].asString();
    if (uiUse == "none" && fromSystem) {
        return "never: the unattended run takes packages only, and this image is in the system image";
    }
    if (uiUse == "none") {
        return "unattended, when the set goes from normal to standby ten minutes or more after the daemon's "
               "start";
    }
    const std::string offer = uiUse == "force" ? "through the upgrade screen, which forces it"
                                               : "through the upgrade screen, when the user accepts";
    return fromSystem ? offer + "; a standby run cannot write it, as it takes packages only"
                      : offer + "; otherwise unattended, if the daemon still runs at a standby";
}

std::string outcomeOf(const Json::Value& module)
{
    if (module.isMember("failure")) {
        return "never: " + module["failure"].asString() + "; the daemon would fail as well";
    }
    if (module["kind"] == "external") {
        return "never by the daemon: an external module's library finds its image itself "
               "(\"fwctl update\" has it do so)";
    }
    if (module["pending"].asBool() && module["kind"] == "unusable") {
        return "never: a newer image is found, but the identifier is refused when it is to be written";
    }
    if (module["kind"] == "unusable") {
        return "never: the control library cannot be used (\"fwctl doctor\" says why)";
    }
    if (!module["pending"].asBool()) {
        return "not pending: no source passed every test";
    }
    return outcomeOfPending(module);
}

// ---- Printing ----

void printStep(const Json::Value& step)
{
    const bool passed = step["passed"].asBool();
    printLine(std::string(passed ? "  ✓ " : "  ✗ ") + step["test"].asString() + ": " +
              step["detail"].asString());
    if (!passed) {
        printLine("      -> " + step["advice"].asString());
    }
}

void printSource(const Json::Value& source)
{
    const ImageSource* known = findImageSource(source["source"].asString());
    printLine(std::string(known->title) +
              (known->checkedByDaemon ? "" : " (not looked at by the daemon on its own)"));
    for (const Json::Value& step : source["steps"]) {
        printStep(step);
    }
}

void printWhy(const Json::Value& module)
{
    printLine(module["module"].asString() + " (" + module["directory"].asString() +
              module["module"].asString() + ".so), " + module["kind"].asString());
    const Json::Value& installed = module["installed"];
    printLine("installed: " + (installed.isNull() ? "the library cannot tell" : installed.asString()));
    if (module["kind"] == "unusable") {
        for (const Json::Value& message : module["load_messages"]) {
            printLine("  " + message.asString());
        }
    }
    for (const Json::Value& source : module["sources"]) {
        printSource(source);
    }
    printLine("what will happen: " + module["outcome"].asString());
    for (const Json::Value& obstacle : module["obstacles"]) {
        printLine("  but: " + obstacle.asString());
    }
}

// ---- The command ----

ExitStatus whyStatusOf(const Json::Value& module)
{
    if (module.isMember("failure")) {
        return kFailed;
    }
    return module["pending"].asBool() ? kDone : kNothingToDo;
}

int why(const std::string& name, bool json)
{
    std::vector<Json::Value> modules = examineAll(requireControlLibraries(name));
    complainAboutLeftBehind(modules);
    addObstacles(modules);
    ExitStatus status = kNothingToDo;
    Json::Value all(Json::arrayValue);
    for (Json::Value& module : modules) {
        module["outcome"] = outcomeOf(module);
        status = status == kDone ? kDone : whyStatusOf(module);
        all.append(module);
        if (!json) {
            printWhy(module);
        }
    }
    if (json) {
        std::printf("%s\n", common::compactJson(all).c_str());
    }
    return status;
}

struct WhyOptions {
    std::string module;
    bool json = false;
};
} // namespace

void defineWhy(common::CommandLine& command)
{
    auto options = std::make_shared<WhyOptions>();
    command.text("MODULE", options->module, "Name of the module, as \"fwctl list\" shows it").required();
    command.flag("--json", options->json, "For a program: one JSON array");
    command.footer(
        "Goes through the daemon's tests for each image source, and says which one stopped the update.\n"
        "Changes nothing on the set: nothing is mounted, written or logged.\n"
        "Exit status: 0 pending, 3 not pending, 1 the control library crashed or hung.\n"
        "Example:\n  fwctl why tuner");
    command.onRun([options] { return why(options->module, options->json); });
}

} // namespace fwctl
