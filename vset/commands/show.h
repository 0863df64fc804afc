// Sections of a set's snapshot as tables, for the commands that show one of them. To standard output.
#ifndef VSET_COMMANDS_SHOW_H
#define VSET_COMMANDS_SHOW_H

#include <json/value.h>

namespace vset
{

void showPower(const Json::Value& power);
void showPackages(const Json::Value& packages);
void showProperties(const Json::Value& properties);
void showFaults(const Json::Value& faults);

} // namespace vset

#endif
