// An information file as the daemon reads it, and as "fwmod info" tells what the daemon makes of it.
#include "tools/fwmod/images/information.h"

#include "src/src/fw-update-symbol.h"
#include "tests/proof/fuzz/target.h"
#include "tools/fwmod/images/quiet-platform.h"

namespace
{

void run(std::string_view input)
{
    const std::string path = fuzz::fileWith("info.json", input);
    FWUpdateSymbol module("tuner");
    fwmod::takeDaemonLog();
    const bool isRead = module.loadInformation(path);
    fuzz::require(isRead || !fwmod::takeDaemonLog().empty(), "what cannot be read is told");
    FWInformation values;
    module.cloneFwInformation(values);
    const bool isForced = values.ui_use == "force";
    const bool isOffered = isForced || values.ui_use == "select";
    fuzz::require(!isRead || isOffered || values.ui_use == "none", "the UI's use is one of three");
    fuzz::require(module.isUISupportUpdate() == isOffered && module.hasUISupportForce() == isForced,
                  "the UI is asked by what the file says");

    const fwmod::InformationReport report = fwmod::checkInformation(path, std::nullopt);
    fuzz::require(report.accepted == isRead, "the maker hears the daemon's verdict");
    fuzz::require(!isRead || (report.values.version == values.version && report.values.crc == values.crc &&
                              report.values.expected_time == values.expected_time &&
                              report.values.ui_use == values.ui_use),
                  "the maker hears the daemon's values");
    fuzz::require(!fwmod::formatReport(path, report).empty(), "the report says something");
}

const fuzz::Target target("information", run);

} // namespace
