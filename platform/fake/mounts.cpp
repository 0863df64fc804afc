// ps_mount.h: the privileged mount service.

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"
#include "ps_mount.h"

namespace fs = std::filesystem;
using fakeSupport::quoted;

namespace
{

const char* functionOf(MountOperation operation)
{
    switch (operation) {
    case MountOperation::kMknod:
        return "PS_Mknod";
    case MountOperation::kUmount:
        return "PS_Umount";
    case MountOperation::kMount:
        break;
    }
    return "PS_Mount";
}

} // namespace

std::vector<MountRequest> FakePlatform::mountRequests() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.mountRequests;
}

std::vector<MountRequest> FakePlatform::mountRequests(MountOperation operation) const
{
    std::vector<MountRequest> requests = mountRequests();
    requests.erase(
        std::remove_if(requests.begin(), requests.end(),
                       [&](const MountRequest& request) { return request.operation != operation; }),
        requests.end());
    return requests;
}

void FakePlatform::answerMount(MountOperation operation, std::vector<MountAnswer> answers)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.mountAnswers[operation].inTurn.assign(answers.begin(), answers.end());
}

void FakePlatform::alwaysAnswerMount(MountOperation operation, MountAnswer answer)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.mountAnswers[operation].always = answer;
}

std::vector<std::string> FakePlatform::mountedDirectories() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> directories;
    for (const Mounted& one : state.mounted) {
        directories.push_back(one.directory);
    }
    return directories;
}

std::optional<MountAnswer> FakePlatform::scriptedMountAnswer(MountOperation operation)
{
    MountAnswers& answers = state.mountAnswers[operation];
    if (answers.inTurn.empty()) {
        return answers.always;
    }
    const MountAnswer next = answers.inTurn.front();
    answers.inTurn.pop_front();
    return next;
}

namespace
{

void emptyDirectory(const fs::path& directory)
{
    for (const auto& entry : fs::directory_iterator(directory)) {
        fs::remove_all(entry.path());
    }
}

// What the mount point shows: the tree of the image on top, or nothing.
void showTree(const std::string& image, const std::string& directory)
{
    emptyDirectory(directory);
    fs::copy(image + ".tree", directory, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

} // namespace

MountAnswer FakePlatform::mountImage(const std::string& command)
{
    std::istringstream words(command);
    std::string option;
    std::string options;
    std::string image;
    std::string directory;
    if (!(words >> option >> options >> image >> directory) || option != "-o") {
        return {-1, EINVAL};
    }
    if (!fs::is_directory(directory)) {
        return {-1, fs::exists(directory) ? ENOTDIR : ENOENT};
    }
    if (!fs::is_regular_file(image) || !fs::is_directory(image + ".tree")) {
        return {-1, EINVAL};
    }
    showTree(image, directory);
    state.mounted.push_back({image, directory});
    return {0, 0};
}

MountAnswer FakePlatform::unmountDirectory(const std::string& directory)
{
    const auto onDirectory = [&](const Mounted& one) { return one.directory == directory; };
    const auto top = std::find_if(state.mounted.rbegin(), state.mounted.rend(), onDirectory);
    if (top == state.mounted.rend()) {
        return {-1, EINVAL};
    }
    state.mounted.erase(std::next(top).base());
    const auto below = std::find_if(state.mounted.rbegin(), state.mounted.rend(), onDirectory);
    if (below != state.mounted.rend()) {
        showTree(below->image, directory);
    } else {
        emptyDirectory(directory);
    }
    return {0, 0};
}

int FakePlatform::serveMount(MountRequest request, int* result)
{
    enter(functionOf(request.operation), quoted(request.text.c_str()));
    const std::lock_guard<std::mutex> lock(mutex);
    const MountOperation operation = request.operation;
    const std::string text = request.text;
    state.mountRequests.push_back(std::move(request));
    MountAnswer answer{0, 0};
    if (const std::optional<MountAnswer> scripted = scriptedMountAnswer(operation)) {
        answer = *scripted;
    } else if (operation == MountOperation::kMount) {
        answer = mountImage(text);
    } else if (operation == MountOperation::kUmount) {
        answer = unmountDirectory(text);
    }
    *result = answer.result;
    return answer.retVal;
}

namespace
{

MountRequest commandRequest(MountOperation operation, const char* command, int length, int flags, int result)
{
    const std::string buffer(command, static_cast<size_t>(length));
    return {operation, buffer.substr(0, buffer.find('\0')), buffer, length, flags, result};
}

} // namespace

int PS_Mount(const char* command, int length, int flags, int* result)
{
    return fakePlatform().serveMount(commandRequest(MountOperation::kMount, command, length, flags, *result),
                                     result);
}

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    return fakePlatform().serveMount(commandRequest(MountOperation::kMknod, command, length, flags, *result),
                                     result);
}

int PS_Umount(const char* directory, int length, int flags, int* result)
{
    return fakePlatform().serveMount(
        commandRequest(MountOperation::kUmount, directory, length, flags, *result), result);
}
