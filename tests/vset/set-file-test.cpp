// Files of a set that are read while its launcher makes them.
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "common/errors.h"
#include "tests/support/temporary-directory.h"
#include "vset/client/set-file.h"

namespace
{

namespace fs = std::filesystem;

class SetFileTest : public testing::Test
{
protected:
    // While the file comes and goes, thousands of times.
    void lookMeanwhile(const std::function<void()>& look) const
    {
        std::thread launcher([this] {
            for (int time = 0; time < 3000; ++time) {
                std::ofstream(path_) << "a line\n";
                fs::remove(path_);
            }
            std::ofstream(directory_ / "end") << "";
        });
        while (!fs::exists(directory_ / "end")) {
            EXPECT_NO_THROW(look());
        }
        launcher.join();
    }

    const TemporaryDirectory directory_;
    const fs::path path_ = directory_ / "life";
};

TEST_F(SetFileTest, ThatComesWhileItIsReadIsNoFault)
{
    lookMeanwhile([this] { vset::readSetFile(path_); });
}

TEST_F(SetFileTest, ThatComesWhileItIsOpenedIsNoFault)
{
    lookMeanwhile([this] { vset::openSetFile(path_); });
}

TEST_F(SetFileTest, ThatComesWhileItIsLookedAtIsNoFault)
{
    lookMeanwhile([this] { vset::requireFileOrNothing(path_); });
}

TEST_F(SetFileTest, InWhosePlaceALinkLeadsNowhereIsOne)
{
    fs::create_symlink(directory_ / "nowhere", path_);
    EXPECT_THROW(vset::readSetFile(path_), common::Failure);
    EXPECT_THROW(vset::openSetFile(path_), common::Failure);
    EXPECT_THROW(vset::requireFileOrNothing(path_), common::Failure);
}

TEST_F(SetFileTest, ThatIsNotThereIsNone)
{
    EXPECT_EQ(vset::readSetFile(path_), std::nullopt);
    EXPECT_EQ(vset::openSetFile(path_), nullptr);
    EXPECT_NO_THROW(vset::requireFileOrNothing(path_));
}

} // namespace
