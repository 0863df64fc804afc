// vset put: a maker's files, as they come from the build, into the places where a set has them.
#include <memory>

#include "vset/commands/commands.h"
#include "vset/television/set-contents.h"

namespace vset
{

namespace
{

struct PutOptions {
    std::string set;
    std::vector<std::string> paths;
    bool isSystem = false;
    bool isDelivered = false;
};

using Put = void (*)(const SetContents& set, const std::string& path, const PutOptions& options);

struct Kind {
    const char* name;
    const char* summary;
    const char* argument;
    const char* help;
    Put put;
};

constexpr Kind kKinds[] = {
    {"library", "Control libraries, into the controls of the product", "FILE", "NAME.so",
     [](const SetContents& set, const std::string& path, const PutOptions& options) {
         set.putLibrary(path,
                        options.isSystem ? SetContents::Controls::kSystem : SetContents::Controls::kProduct);
     }},
    {"package", "Packages, into the feed that the package service fetches from", "FILE", "ID.img",
     [](const SetContents& set, const std::string& path, const PutOptions& options) {
         set.putPackage(path,
                        options.isDelivered ? SetContents::Place::kDelivered : SetContents::Place::kFeed);
     }},
    {"firmware", "Firmware of the system image, with its information file", "DIR",
     "NAME, with NAME.bin and info.json in it",
     [](const SetContents& set, const std::string& path, const PutOptions&) { set.putFirmware(path); }},
    {"hardware", "Chips as files, which the daemon may write", "PATH", "A chip, or a directory of chips",
     [](const SetContents& set, const std::string& path, const PutOptions&) { set.putHardware(path); }},
    {"stick", "A USB stick, in the place of what is in the slot", "DIR", "Directory with its files",
     [](const SetContents& set, const std::string& path, const PutOptions&) { set.putStick(path); }},
    {"key", "Public keys whose images the set's signature library accepts", "FILE", "In PEM form",
     [](const SetContents& set, const std::string& path, const PutOptions&) { set.putSigningKey(path); }},
};

void defineKind(common::CommandLine& command, const Kind& kind, const std::shared_ptr<PutOptions>& options)
{
    command.texts(kind.argument, options->paths, kind.help).required();
    command.onRun([options, put = kind.put] {
        const SetContents set(options->set);
        for (const std::string& path : options->paths) {
            put(set, path, *options);
        }
    });
}

} // namespace

void definePut(common::CommandLine& command)
{
    const auto options = std::make_shared<PutOptions>();
    takeSet(command, options->set);
    for (const Kind& kind : kKinds) {
        common::CommandLine& choice = command.command(kind.name, kind.summary);
        defineKind(choice, kind, options);
        if (std::string(kind.name) == "library") {
            choice.flag("--system", options->isSystem, "Into those of the system image instead");
        }
        if (std::string(kind.name) == "package") {
            choice.flag("--delivered", options->isDelivered, "In place, as one that was fetched before");
        }
    }
    command.footer("The set may be on or off. What is there under the same name is replaced, whole.\n"
                   "Examples:\n"
                   "  vset put /tmp/tv library tuner.so\n"
                   "  vset put /tmp/tv package empTuner.img                fetched at the next boot\n"
                   "  vset put /tmp/tv package empTuner.img --delivered    there already\n"
                   "  vset put /tmp/tv firmware build/Panel                Panel.bin and info.json in it\n"
                   "  vset put /tmp/tv hardware chips/tuner chips/panel\n"
                   "  vset put /tmp/tv stick ~/stick\n"
                   "  vset put /tmp/tv key maker.pub.pem");
}

} // namespace vset
