#include "tests/support/set-test.h"

#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

// Those of the system image are read-only in a set; the test puts a directory of its own over them.
bool makeWritable(const char* directory)
{
    return access(directory, W_OK) == 0 || mount("tmpfs", directory, "tmpfs", 0, "mode=0755") == 0;
}

void emptyDirectory(const fs::path& directory)
{
    for (const auto& entry : fs::directory_iterator(directory)) {
        fs::remove_all(entry.path());
    }
}

// A machine that is no private root lacks at least one of these.
bool standsInPrivateRoot()
{
    for (const char* directory :
         {set::kControls, set::kSystemControls, set::kPackages, set::kSandbox, set::kBuiltIn, set::kMedia}) {
        if (!fs::is_directory(directory)) {
            return false;
        }
    }
    return true;
}

} // namespace

void SetTest::SetUp()
{
    if (!standsInPrivateRoot()) {
        GTEST_FAIL() << "this test needs a private root: vset run --temporary -- TEST";
    }
    for (const char* directory : {set::kSystemControls, set::kBuiltIn}) {
        ASSERT_TRUE(makeWritable(directory)) << directory << ": " << strerror(errno);
    }
    for (const char* directory :
         {set::kControls, set::kSystemControls, set::kPackages, set::kSandbox, set::kBuiltIn, set::kMedia}) {
        emptyDirectory(directory);
    }
    fs::create_directory(set::kMounts); // lies in the directory of the packages
    platform.reset();
}

void SetTest::TearDown()
{
    for (void* library : openLibraries) {
        dlclose(library);
    }
}

ControlRecorder& SetTest::installControl(const std::string& name, const std::string& directory,
                                         const std::string& variant)
{
    copyControl(name, directory, variant);
    const std::string path = directory + "/" + name + ".so";
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw std::runtime_error(dlerror());
    }
    openLibraries.push_back(library);
    auto* const recorderOf =
        reinterpret_cast<ControlRecorderFunction*>(dlsym(library, kControlRecorderSymbol));
    ControlRecorder& recorder = *recorderOf();
    recorder.answers = ControlAnswers(); // an earlier test may have left the library loaded
    recorder.clearCalls();
    return recorder;
}

void SetTest::copyControl(const std::string& name, const std::string& directory, const std::string& variant)
{
    const fs::path target = fs::path(directory) / (name + ".so");
    fs::remove(target); // never written over: it may be mapped
    fs::copy_file(fs::path(CONTROL_LIBRARY_DIRECTORY) / (variant + ".so"), target);
}

// ---- Lines of the log ----

LogLine error(const std::string& text)
{
    return {LogSink::kBoth, 6, text};
}

LogLine info(const std::string& text)
{
    return {LogSink::kBoth, 4, text};
}

LogLine platformInfo(const std::string& text)
{
    return {LogSink::kPlatformOnly, 4, text};
}

LogLine platformDebug(const std::string& text)
{
    return {LogSink::kPlatformOnly, 3, text};
}

// ---- Files ----

void writeFile(const std::string& path, const std::string& content)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

bool exists(const std::string& path)
{
    return fs::exists(path);
}

Package makePackage(const std::string& identifier)
{
    const std::string image = std::string(set::kPackages) + "/" + identifier + ".img";
    writeFile(image, "image of " + identifier);
    fs::create_directories(image + ".tree");
    return {image, image + ".tree"};
}
