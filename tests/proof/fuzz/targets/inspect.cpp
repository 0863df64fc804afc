// "fwmod inspect" on each kind of file: encrypted images, packages, information files, control libraries.
#include <json/json.h>

#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "tests/proof/fuzz/target.h"
#include "tools/fwmod/images/inspection.h"
#include "tools/fwmod/images/quiet-platform.h"

namespace
{

constexpr const char* kNames[] = {"Tuner.bin", "empTuner.img", "info.json", "tuner.so", "unknown"};
// Of the key that the images among the seeds were encrypted with.
constexpr const char* kContentKey = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

void requireOneLine(const std::string& text)
{
    fuzz::require(common::visible(common::visible(text)) == common::visible(text),
                  "a shown text is one line");
}

void requireShowable(const fwmod::Inspection& result)
{
    Json::Value all;
    for (const fwmod::Fact& fact : result.facts) {
        all[fact.key] = fact.value;
        requireOneLine(fact.text);
    }
    for (const std::string& problem : result.problems) {
        requireOneLine(problem);
    }
    fuzz::require(common::parseJson(common::compactJson(all)).has_value(),
                  "what is told to programs is JSON");
}

void run(std::string_view input)
{
    fuzz::Reader reader(input);
    const uint8_t choice = reader.byte();
    fwmod::InspectionRequest request;
    request.file = fuzz::fileWith(kNames[choice % std::size(kNames)], reader.rest());
    if ((choice & 0x80) != 0) {
        request.keyFile = fuzz::fileWith("content.key", kContentKey);
        request.publicKey = PUBLIC_KEY;
    }
    try {
        requireShowable(fwmod::inspectFile(request));
    } catch (const common::CommandError& error) { // of a file that is damaged beyond telling as well
        requireOneLine(error.what());
    }
    fwmod::takeDaemonLog();
}

const fuzz::Target target("inspect", run);

} // namespace
