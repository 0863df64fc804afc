// What the daemon would find out about a module, without mounting, unmounting or writing anything.
//
// A module's control library runs in a child process (isolated.h), as the daemon's user when root asks. The
// answers are JSON objects, which is also what --json prints:
//
//   module, directory           the library's name, and where it lies
//   kind                        "package", "external", or "unusable" when it could not be bound
//   identifier, firmware_name   absent for an external module
//   package                     path of the package image, absent for an external module
//   load_messages               what the daemon would log while it loads the library
//   installed                   version on the hardware now; null when the library cannot tell
//   sources                     one object for each image source, see below
//   pending                     the daemon would update it; pending_source, ui_use and expected_time
//                               (seconds) then say how
//   failure                     the library crashed or hung: what stands above is all there is
//   left_behind                 only if there were any: how many processes it left behind, which were ended
//
// A source: source, checked_by_daemon, offered (version, null when unknown), verdict (of the library, null
// when it was not asked), newer, image (path), and steps: the daemon's tests in their order, up to the first
// that fails, each with test, passed, detail and advice.
#ifndef TOOLS_FWCTL_MODULES_EXAMINATION_H
#define TOOLS_FWCTL_MODULES_EXAMINATION_H

#include <json/json.h>
#include <string>
#include <vector>

#include "src/fw-update-common.h"
#include "tools/fwctl/modules/library-speech.h"
#include "tools/fwctl/output.h"

namespace fwctl
{

// A control library as the registry finds it.
struct ControlLibrary {
    std::string name;
    std::string directory; // ends in "/"
    bool usr;              // see FWUpdateSymbol
};

// A place that an image may come from.
struct ImageSource {
    const char* name;
    const char* title;
    FWUpdateCallerTypes caller;
    UPDATE_TYPE type;
    bool checkedByDaemon;
};
extern const ImageSource kImageSources[4]; // in the daemon's order of checking

const ImageSource* findImageSource(const std::string& name); // null when there is none

// The libraries of both control directories, by name; those of one name in the registry's order.
std::vector<ControlLibrary> findControlLibraries();

// Those of that name (a name can stand in both directories). Throws NoSuchModule when there is none.
std::vector<ControlLibrary> requireControlLibraries(const std::string& name);

// What the libraries print goes to `onLine`: to standard error, if nothing else is said.
Json::Value examine(const ControlLibrary& library, const LibrarySpeech::Listener& onLine = complain);
std::vector<Json::Value> examineAll(const std::vector<ControlLibrary>& libraries,
                                    const LibrarySpeech::Listener& onLine = complain);

// "installed" alone, as the library tells it in a process that has done nothing else; "failure" as above.
// What it prints is dropped.
Json::Value askForVersion(const ControlLibrary& library);

// Says on standard error which of them left processes behind.
void complainAboutLeftBehind(const std::vector<Json::Value>& modules);

// The step that failed, or null: for one line about a source.
Json::Value failedStep(const Json::Value& source);

} // namespace fwctl

#endif
