// fwmod inspect: what a file is, and whether a set would accept it as far as that can be told from here.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/images/inspection.h"

namespace fwmod
{

namespace
{
void printForPeople(const std::string& file, const Inspection& result)
{
    std::printf("%s: %s\n", common::visible(file).c_str(), result.kind.c_str());
    for (const Fact& fact : result.facts) {
        std::printf("  %s: %s\n", fact.key.c_str(), common::visible(fact.text).c_str());
    }
    for (const std::string& note : result.notes) {
        std::printf("  note: %s\n", common::visible(note).c_str());
    }
    for (const std::string& problem : result.problems) {
        std::printf("  problem: %s\n", common::visible(problem).c_str());
    }
    std::puts(result.problems.empty() ? "As far as can be told, it would be accepted."
                                      : "It would not be accepted.");
}

Json::Value toJson(const std::vector<std::string>& texts)
{
    Json::Value list = Json::arrayValue;
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

void printForPrograms(const std::string& file, const Inspection& result)
{
    Json::Value root;
    for (const Fact& fact : result.facts) {
        std::string member = fact.key;
        std::replace(member.begin(), member.end(), ' ', '_');
        root[member] = fact.value;
    }
    root["file"] = file;
    root["kind"] = result.kind;
    root["accepted"] = result.problems.empty();
    root["problems"] = toJson(result.problems);
    root["notes"] = toJson(result.notes);
    std::puts(common::indentedJson(root).c_str());
}

Inspection inspect(const InspectionRequest& request)
try {
    return inspectFile(request);
} catch (const Damaged& damage) {
    Inspection result;
    result.kind = damage.kind;
    result.problems.push_back(damage.what());
    return result;
}
} // namespace

void defineInspect(common::CommandLine& command)
{
    auto request = std::make_shared<InspectionRequest>();
    auto json = std::make_shared<bool>(false);
    command.text("FILE", request->file, "The file to look at").required();
    command.text("--key-file", request->keyFile,
                 "Content key of an encrypted image: shows its version header");
    command.text("--public-key", request->publicKey,
                 "Public key (PEM), or a directory of them: checks an encrypted image's signature");
    command.flag("--json", *json, "Print JSON");
    command.footer(
        "Recognises encrypted USB images, packages, information files and control libraries; nothing of\n"
        "the file is run. Exit status: 0 it would be accepted as far as can be told, 1 not, 2 wrong use.\n"
        "Examples:\n"
        "  fwmod inspect stick/Tuner.bin --public-key signing.pub.pem --key-file content.key\n"
        "  fwmod inspect --json tuner.so");
    command.onRun([request, json] {
        const Inspection result = inspect(*request);
        if (*json) {
            printForPrograms(request->file, result);
        } else {
            printForPeople(request->file, result);
        }
        return result.problems.empty() ? 0 : 1;
    });
}
} // namespace fwmod
