#include "tools/fwmod/check/examiner/job.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace examiner
{

std::chrono::milliseconds Job::updateLimit() const
{
    // The real duration is to be known, also of an update that takes twice as long as expected.
    const std::chrono::milliseconds patience = std::chrono::seconds(2 * expectedTime + 10);
    if (measured <= 0)
        return patience;
    return std::min(patience, std::chrono::milliseconds(static_cast<int>(4000 * measured) + 5000));
}

Job readJob(const std::string& file)
{
    std::ifstream in(file);
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors))
        throw std::runtime_error("cannot read the job " + file + ": " + errors);
    Job job{};
    job.name = root["name"].asString();
    job.library = root["library"].asString();
    job.isExternal = root["external"].asBool();
    job.image = root["image"].asString();
    job.hasImage = !job.image.empty();
    job.imageDirectory = root["imageDirectory"].asString();
    job.checksum = root["checksum"].asUInt();
    if (root.isMember("version"))
        job.version = root["version"].asString();
    job.expectedTime = root["expectedTime"].asUInt();
    job.measured = root["duration"].asDouble();
    job.caller = root["caller"].asInt();
    for (const std::string& name : root["mangled"].getMemberNames())
        job.mangled[name] = root["mangled"][name].asString();
    for (const Json::Value& cut : root["cuts"])
        job.cuts.push_back(cut.asUInt());
    job.bytes = root["bytes"].asUInt64();
    job.versionBefore = root["versionBefore"].asString();
    job.versionAfter = root["versionAfter"].asString();
    job.isVersionTold = root["versionTold"].asBool();
    job.isOfferNewer = root["offerNewer"].asBool();
    for (const Json::Value& suspect : root["suspects"])
        job.suspects.insert(suspect.asString());
    job.cutsOnly = root["cutsOnly"].asBool();
    return job;
}
} // namespace examiner
