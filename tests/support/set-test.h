// The fixture of unit tests that need a set: its directories, empty, and a healthy platform.
//
// The daemon's paths are absolute, so a test runs in a private root (`vset run --temporary -- TEST`); it
// fails at once where the set's directories are missing, before it could touch anything of this machine.
#ifndef TESTS_SUPPORT_SET_TEST_H
#define TESTS_SUPPORT_SET_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/fake/fake-platform.h"
#include "tests/support/control-recorder.h"

namespace set
{

constexpr const char* kControls = "/prd/usr/fwupdate/controls";     // of the product
constexpr const char* kSystemControls = "/usr/fwupdate/controls";   // of the system image
constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager"; // EMPID.img
constexpr const char* kMounts = "/opt/usr/apps/appbinarymanager/emps";
constexpr const char* kSandbox = "/opt/usr/share/sbox";
constexpr const char* kBuiltIn = "/lib/firmware/ext";
constexpr const char* kMedia = "/opt/media";

} // namespace set

class SetTest : public testing::Test
{
protected:
    // Empties the directories above and resets the platform.
    void SetUp() override;
    // Closes what installControl has opened.
    void TearDown() override;

    // Puts a control library of the tests (see control-libraries/CMakeLists.txt for the variants) into the
    // directory as NAME.so and returns its recorder, with the default answers: it is loaded already, so that
    // the answers to the module's load can be set.
    ControlRecorder& installControl(const std::string& name, const std::string& directory = set::kControls,
                                    const std::string& variant = "complete");
    // The same without loading it.
    static void copyControl(const std::string& name, const std::string& directory = set::kControls,
                            const std::string& variant = "complete");

    FakePlatform& platform = fakePlatform();

private:
    std::vector<void*> openLibraries;
};

// ---- Lines of the log ----

LogLine error(const std::string& text);        // to both logs, as nearly all are
LogLine info(const std::string& text);         // to both logs
LogLine platformInfo(const std::string& text); // to the platform log only
LogLine platformDebug(const std::string& text);

// ---- Files ----

// Creates missing parents; replaces what is there.
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path); // links followed

// A package: the image file IDENTIFIER.img, and the tree that it holds when the platform mounts it.
struct Package {
    std::string image; // path of the file
    std::string tree;  // directory that its mount point will show
};
Package makePackage(const std::string& identifier);

#endif
