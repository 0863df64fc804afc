// What a file of ours is, what stands in it, and whether a set would accept it as far as that can be told
// from here: encrypted USB images, packages, information files, control libraries. Nothing of the file is
// run.
#ifndef TOOLS_FWMOD_IMAGES_INSPECTION_H
#define TOOLS_FWMOD_IMAGES_INSPECTION_H

#include <cstdint>
#include <filesystem>
#include <json/json.h>
#include <string>
#include <vector>

#include "tools/fwmod/images/damaged.h"
#include "tools/fwmod/images/package.h"

namespace fwmod
{

struct InspectionRequest {
    std::string file;
    std::string keyFile;   // content key of an encrypted image; empty: leave its content alone
    std::string publicKey; // a key, or a directory of them; empty: do not check the signature
};

struct Fact {
    std::string key; // such as "version"
    std::string text;
    Json::Value value; // the same for programs; of several things, an array or an object
};

struct Inspection {
    std::string kind;
    std::vector<Fact> facts;
    std::vector<std::string> problems; // each keeps the file from being accepted
    std::vector<std::string> notes;    // what could not be told, or deserves a look

    void add(const std::string& key, const std::string& text, const Json::Value& value);
    void add(const std::string& key, const std::string& text) { add(key, text, text); }
    void addBytes(const std::string& key, std::int64_t count);
};

constexpr char kUnknownKind[] = "unknown";

// Throws Failure when a file cannot be read, and Damaged when it is damaged beyond telling.
Inspection inspectFile(const InspectionRequest& request);

} // namespace fwmod

#endif
