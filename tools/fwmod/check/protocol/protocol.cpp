// How job and report are written and read: the members of each struct are named once, for both.
#include <fstream>
#include <json/json.h>
#include <stdexcept>

#include "common/errors.h"
#include "common/files/regular-file.h"
#include "common/json-text.h"
#include "tools/fwmod/check/protocol/job.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod
{

namespace
{
// ---- Members ----

template <typename Exchange>
void exchange(Exchange& member, Finding& finding)
{
    member("id", finding.id);
    member("detail", finding.detail);
}

template <typename Exchange>
void exchange(Exchange& member, CutTrial& trial)
{
    member("write", trial.write);
    member("cut", trial.isCut);
    member("findings", trial.findings);
    member("calls", trial.calls);
}

template <typename Exchange>
void exchange(Exchange& member, FaultPlaces& places)
{
    member("middleWrite", places.middleWrite);
    member("lateWrite", places.lateWrite);
    member("endWrite", places.endWrite);
    member("keyWrites", places.keyWrites);
    member("spoiltWrites", places.spoiltWrites);
    member("mapped", places.isMapped);
    member("hastyRemovals", places.hastyRemovals);
    member("flushes", places.flushes);
}

template <typename Exchange>
void exchange(Exchange& member, HeldPart& part)
{
    member("begin", part.begin);
    member("size", part.size);
    member("path", part.path);
    member("position", part.position);
}

template <typename Exchange>
void exchange(Exchange& member, Holding& holding)
{
    member("files", holding.files);
    member("parts", holding.parts);
}

template <typename Exchange>
void exchange(Exchange& member, Measured& measured)
{
    member("loaded", measured.isLoaded);
    member("identifier", measured.identifier);
    member("versionBefore", measured.versionBefore);
    member("versionAfter", measured.versionAfter);
    member("versionTold", measured.isVersionTold);
    member("offerNewer", measured.isOfferNewer);
    member("updated", measured.isUpdated);
    member("updatable", measured.isUpdatable);
    member("repeatable", measured.isRepeatable);
    member("bytes", measured.bytes);
    member("holding", measured.holding);
    member("faults", measured.faults);
    member("writes", measured.writes);
    member("duration", measured.duration);
    member("proposedExpectedTime", measured.proposedExpectedTime);
}

template <typename Exchange>
void exchange(Exchange& member, Report& report)
{
    member("findings", report.findings);
    member("notes", report.notes);
    member("measured", report.measured);
    member("cuts", report.cuts);
    member("calls", report.calls);
    member("suspects", report.suspects);
}

template <typename Exchange>
void exchange(Exchange& member, Progress& progress)
{
    member("text", progress.text);
    member("percent", progress.percent);
}

template <typename Exchange>
void exchange(Exchange& member, Job& job)
{
    member("name", job.name);
    member("library", job.library);
    member("external", job.isExternal);
    member("hasHardware", job.hasHardware);
    member("image", job.image);
    member("imageDirectory", job.imageDirectory);
    member("checksum", job.checksum);
    member("otherImage", job.otherImage);
    member("otherDirectory", job.otherDirectory);
    member("otherChecksum", job.otherChecksum);
    member("otherVersion", job.otherVersion);
    member("version", job.version);
    member("expectedTime", job.expectedTime);
    member("caller", job.caller);
    member("otherNames", job.otherNames);
    member("mangled", job.mangled);
    member("measured", job.measured);
    member("bytes", job.bytes);
    member("holding", job.holding);
    member("faults", job.faults);
    member("versionBefore", job.versionBefore);
    member("versionAfter", job.versionAfter);
    member("repeatable", job.isRepeatable);
    member("versionTold", job.isVersionTold);
    member("offerNewer", job.isOfferNewer);
    member("cuts", job.cuts);
    member("cutsOnly", job.isCutsOnly);
    member("suspects", job.suspects);
}

// ---- Writing ----

class Writer
{
public:
    template <typename Value>
    void operator()(const char* name, const Value& value)
    {
        root_[name] = written(value);
    }
    template <typename Value>
    void operator()(const char* name, const std::optional<Value>& value)
    {
        if (value) {
            root_[name] = written(*value);
        }
    }
    template <typename Struct>
    static Json::Value written(const Struct& value)
    {
        Writer writer;
        exchange(writer, const_cast<Struct&>(value)); // one list of members serves both ways
        return writer.root_;
    }

private:
    static Json::Value written(bool value) { return value; }
    static Json::Value written(int value) { return value; }
    static Json::Value written(unsigned int value) { return value; }
    static Json::Value written(std::uint64_t value) { return Json::UInt64(value); }
    static Json::Value written(double value) { return value; }
    static Json::Value written(const std::string& value) { return value; }
    static Json::Value written(FindingId value) { return static_cast<unsigned int>(value); }
    template <typename Value>
    static Json::Value written(const std::vector<Value>& values)
    {
        return list(values);
    }
    template <typename Value>
    static Json::Value written(const std::set<Value>& values)
    {
        return list(values);
    }
    template <typename Key, typename Value>
    static Json::Value written(const std::map<Key, Value>& values)
    {
        return list(values);
    }
    template <typename First, typename Second>
    static Json::Value written(const std::pair<First, Second>& value)
    {
        Json::Value pair = Json::arrayValue;
        pair.append(written(value.first));
        pair.append(written(value.second));
        return pair;
    }
    template <typename Values>
    static Json::Value list(const Values& values)
    {
        Json::Value all = Json::arrayValue;
        for (const auto& value : values) {
            all.append(written(value));
        }
        return all;
    }

    Json::Value root_ = Json::objectValue;
};

// ---- Reading: throws Json::Exception or std::runtime_error for what is of another type ----

class Reader
{
public:
    explicit Reader(const Json::Value& root) : root_(root) {}

    template <typename Value>
    void operator()(const char* name, Value& value)
    {
        read(root_[name], value);
    }
    template <typename Value>
    void operator()(const char* name, std::optional<Value>& value)
    {
        value.reset();
        if (root_.isMember(name)) {
            read(root_[name], value.emplace());
        }
    }
    template <typename Struct>
    static void read(const Json::Value& from, Struct& value)
    {
        Reader reader(from);
        exchange(reader, value);
    }

private:
    static void read(const Json::Value& from, bool& value) { value = from.asBool(); }
    static void read(const Json::Value& from, int& value) { value = from.asInt(); }
    static void read(const Json::Value& from, unsigned int& value) { value = from.asUInt(); }
    static void read(const Json::Value& from, std::uint64_t& value) { value = from.asUInt64(); }
    static void read(const Json::Value& from, double& value) { value = from.asDouble(); }
    static void read(const Json::Value& from, std::string& value)
    {
        if (!from.isString() && !from.isNull()) { // it would make a text of a number
            throw std::runtime_error(common::compactJson(from) + " is not a text");
        }
        value = from.asString();
    }
    static void read(const Json::Value& from, FindingId& value)
    {
        const std::optional<FindingId> id = findingsTable().withNumber(from.asUInt());
        if (!id) {
            throw std::runtime_error("there is no finding " + from.asString());
        }
        value = *id;
    }
    template <typename Value>
    static void read(const Json::Value& from, std::vector<Value>& values)
    {
        for (const Json::Value& each : from) {
            read(each, values.emplace_back());
        }
    }
    template <typename Value>
    static void read(const Json::Value& from, std::set<Value>& values)
    {
        for (const Json::Value& each : from) {
            Value value;
            read(each, value);
            values.insert(value);
        }
    }
    template <typename Key, typename Value>
    static void read(const Json::Value& from, std::map<Key, Value>& values)
    {
        for (const Json::Value& each : from) {
            Key key;
            read(each[0], key);
            read(each[1], values[key]);
        }
    }

    const Json::Value& root_;
};

// ---- Lines ----

constexpr const char* kProgress = "progress";
constexpr const char* kReport = "report";
constexpr const char* kCutTrial = "cutTrial";
constexpr const char* kFinding = "finding";

template <typename Struct>
std::string lineWith(const char* key, const Struct& value)
{
    Json::Value root;
    root[key] = Writer::written(value);
    return common::compactJson(root);
}

// What stands in a line under that key, if it does and is one.
template <typename Struct>
std::optional<Struct> valueIn(const std::string& line, const char* key)
{
    const std::optional<Json::Value> root = common::parseJsonObject(line);
    if (!root || !root->isMember(key)) {
        return std::nullopt;
    }
    try {
        Struct value{};
        Reader::read((*root)[key], value);
        return value;
    } catch (const std::exception&) { // of another type than ours
        return std::nullopt;
    }
}
} // namespace

std::string lineOf(const Progress& progress)
{
    return lineWith(kProgress, progress);
}

std::string lineOf(const Report& report)
{
    return lineWith(kReport, report);
}

std::string lineOf(const CutTrial& trial)
{
    return lineWith(kCutTrial, trial);
}

std::string lineOf(const Finding& finding)
{
    return lineWith(kFinding, finding);
}

std::optional<std::variant<Progress, Report>> readLine(const std::string& line)
{
    if (std::optional<Progress> progress = valueIn<Progress>(line, kProgress)) {
        return *progress;
    }
    if (std::optional<Report> report = valueIn<Report>(line, kReport)) {
        return *std::move(report);
    }
    return std::nullopt;
}

std::optional<CutTrial> readCutTrial(const std::string& line)
{
    return valueIn<CutTrial>(line, kCutTrial);
}

std::optional<Finding> readFinding(const std::string& line)
{
    return valueIn<Finding>(line, kFinding);
}

// ---- The job ----

Job readJob(const std::filesystem::path& file)
{
    std::string why;
    const std::optional<std::string> text = common::readRegularFile(file, common::JsonLimits{}.bytes, why);
    if (!text) {
        throw std::runtime_error("cannot read the job: " + file.string() + " " + why);
    }
    const std::optional<Json::Value> root = common::parseJsonObject(*text, &why);
    if (!root) {
        throw std::runtime_error("cannot read the job " + file.string() + ": " + why);
    }
    Job job;
    try {
        Reader::read(*root, job);
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot read the job " + file.string() + ": " + error.what());
    }
    if (job.name.empty() || job.library.empty()) {
        throw std::runtime_error("cannot read the job " + file.string() + ": it names no library");
    }
    return job;
}

void writeJob(const Job& job, const std::filesystem::path& file)
{
    std::ofstream out(file, std::ios::binary);
    out << common::compactJson(Writer::written(job));
    out.close();
    if (!out) {
        throw common::Failure("cannot write " + file.string() + ": is the disk full?");
    }
}
} // namespace fwmod
