#include "tests/support/signature-set.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

constexpr const char* kLibrary = "/usr/lib/libkZORUser.so";

void require(bool done, const char* what)
{
    if (!done) {
        throw std::runtime_error(std::string("cannot ") + what);
    }
}

// "/usr/lib" becomes a directory of this process, of links to what was there and the library.
void installLibrary(const std::string& variant)
{
    const fs::path original = "/tmp/usr-lib";
    fs::create_directory(original);
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "separate the mounts");
    require(mount("/usr/lib", original.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind /usr/lib");
    require(mount("tmpfs", "/usr/lib", "tmpfs", 0, nullptr) == 0, "mount on /usr/lib");
    for (const auto& entry : fs::directory_iterator(original)) {
        fs::create_symlink(entry.path(), fs::path("/usr/lib") / entry.path().filename());
    }
    fs::copy_file(fs::path(SIGNATURE_LIBRARY_DIRECTORY) / (variant + ".so"), kLibrary);
}

void runAndExit(const std::string& variant, const std::function<void()>& test)
{
    try {
        require(unshare(CLONE_NEWNS) == 0, "leave the mounts of the set");
        if (!variant.empty()) {
            installLibrary(variant);
        }
        test();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

} // namespace

bool runWithSignatureLibrary(const std::string& variant, const std::function<void()>& test)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        runAndExit(variant, test);
    }
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

SignatureRecorder& signatureRecorder()
{
    void* const library = dlopen(kLibrary, RTLD_NOW);
    void* const recorder = library != nullptr ? dlsym(library, "signatureRecorder") : nullptr;
    require(recorder != nullptr, "find the recorder of the signature library");
    return *static_cast<SignatureRecorder*>(recorder);
}
