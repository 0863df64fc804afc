#include "vset/console/daemon-watch.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "common/glib-pointers.h"
#include "vset/console/real-time.h"
#include "vset/platformd/service-time.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

constexpr int64_t kLookAtDaemon = 200; // milliseconds of the PC's time
constexpr const char* kDaemon = "tarnwick";

bool isNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string firstWordOf(int process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
    std::string word;
    std::getline(file, word, '\0');
    return word;
}

// The numbers among a directory's entries; fewer when it goes away under the reader.
std::vector<int> numbersIn(const std::string& directory)
{
    std::vector<int> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (isNumber(name)) {
            numbers.push_back(std::stoi(name));
        }
    }
    return numbers;
}

int findDaemon()
{
    for (const int process : numbersIn("/proc")) {
        if (fs::path(firstWordOf(process)).filename() == kDaemon) {
            return process;
        }
    }
    return 0;
}

std::string nameOfThread(int process, int thread)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/comm");
    std::string name;
    std::getline(file, name);
    const common::GlibPointer<char> valid(g_utf8_make_valid(name.c_str(), -1));
    return valid.get();
}

} // namespace

DaemonWatch::DaemonWatch()
{
    look();
}

void DaemonWatch::look()
{
    const int64_t now = wallMilliseconds();
    const int before = process_;
    const bool isStill = before != 0 && fs::path(firstWordOf(before)).filename() == kDaemon;
    process_ = isStill ? before : findDaemon();
    const bool isNewList = lookAtThreads(now);
    if (before != 0 && before != process_) {
        ended.tell(before, now);
    }
    if (isNewList || before != process_) {
        changed.tell();
    }
    timer_.start(kLookAtDaemon, [this] { look(); });
}

bool DaemonWatch::lookAtThreads(int64_t now)
{
    std::vector<int> there;
    if (process_ != 0) {
        there = numbersIn("/proc/" + std::to_string(process_) + "/task");
    }
    bool isChanged = false;
    for (auto thread = running_.begin(); thread != running_.end();) {
        const bool isThere = thread->second.process == process_ &&
                             std::find(there.begin(), there.end(), thread->first) != there.end();
        if (isThere) {
            ++thread;
            continue;
        }
        thread->second.end = now;
        gone_.add(thread->second);
        thread = running_.erase(thread);
        isChanged = true;
    }
    for (const int id : there) {
        if (running_.count(id) > 0) {
            continue;
        }
        running_[id] = {process_, id, nameOfThread(process_, id), now, std::nullopt};
        isChanged = true;
    }
    return isChanged;
}

Json::Value DaemonWatch::snapshot() const
{
    Json::Value json;
    json["pid"] = process_;
    json["threads"] = Json::arrayValue;
    const auto add = [&](const Thread& thread) {
        Json::Value entry;
        entry["pid"] = thread.process;
        entry["tid"] = thread.id;
        entry["name"] = thread.name;
        entry["start_ms"] = Json::Int64(thread.start);
        entry["end_ms"] = thread.end ? Json::Value(Json::Int64(*thread.end)) : Json::Value();
        json["threads"].append(entry);
    };
    for (const Thread& thread : gone_) {
        add(thread);
    }
    for (const auto& [id, thread] : running_) {
        add(thread);
    }
    return json;
}

} // namespace vset
