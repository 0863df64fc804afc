// The file that tells control-examiner what to do.
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/stat.h>

#include "tests/support/temporary-directory.h"
#include "tools/fwmod/check/protocol/job.h"

namespace
{

std::string whyRefused(const std::filesystem::path& file)
{
    try {
        fwmod::readJob(file);
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(Job, IsReadAsItWasWritten)
{
    const TemporaryDirectory directory;
    fwmod::Job job;
    job.name = "tuner";
    job.library = "/tuner.so";
    job.version = "1.1";
    job.cuts = {1, 7};
    fwmod::writeJob(job, directory / "job");
    const fwmod::Job read = fwmod::readJob(directory / "job");
    EXPECT_EQ(read.name, "tuner");
    EXPECT_EQ(read.version, "1.1");
    EXPECT_EQ(read.cuts, job.cuts);
}

TEST(Job, IsNeitherWaitedForNorReadForEver)
{
    const TemporaryDirectory directory;
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    writeBytes(directory / "endless", "{");
    std::filesystem::resize_file(directory / "endless", std::uintmax_t{1} << 42);
    EXPECT_THAT(whyRefused(directory / "pipe"), testing::EndsWith("pipe is not a file but a pipe"));
    EXPECT_THAT(whyRefused(directory / "endless"), testing::EndsWith("is longer than 16777216 bytes"));
}

TEST(Job, NamesALibrary)
{
    const TemporaryDirectory directory;
    const std::pair<const char*, const char*> kCases[] = {
        {"{}", "it names no library"},
        {R"({"name": "tuner"})", "it names no library"},
        {R"({"name": "tuner", "library": 1})", "1 is not a text"},
    };
    for (const auto& [text, problem] : kCases) {
        writeBytes(directory / "job", text);
        EXPECT_THAT(whyRefused(directory / "job"), testing::HasSubstr("cannot read the job ")) << text;
        EXPECT_THAT(whyRefused(directory / "job"), testing::HasSubstr(problem)) << text;
    }
}

} // namespace
