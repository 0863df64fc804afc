// The mount service and the loop device nodes: too few, refused, absent.
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::IsEmpty;
using testing::SizeIs;

class Mount : public ServiceTest
{
};

TEST_F(Mount, MakesANodeWhenAllAreInUse)
{
    installPending("alpha");
    installPending("beta");
    installPending("gamma");
    tv.switchOn(1);
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_THAT(tv.loopMounts(), SizeIs(3));
    EXPECT_TRUE(tv.said("loop count is 1, mount count is 1"));
    EXPECT_TRUE(tv.said("loop count is 2, mount count is 2"));
    EXPECT_EQ(tv.execute({"test", "-b", "/dev/loop2"}).status, 0);
    EXPECT_NE(tv.execute({"test", "-e", "/dev/loop3"}).status, 0);
    goToStandby();
    expectEnd();
    for (const char* name : {"alpha", "beta", "gamma"}) {
        EXPECT_TRUE(wasWritten(name)) << name;
    }
    EXPECT_THAT(tv.loopMounts(), IsEmpty());
}

TEST_F(Mount, MakesTheFirstNode)
{
    installPending("alpha");
    tv.switchOn(0);
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_TRUE(tv.said("loop count is 0, mount count is 0"));
    EXPECT_THAT(tv.loopMounts(), SizeIs(1));
}

TEST_F(Mount, TriesEveryNodeNumberBelowTheCeiling)
{
    constexpr size_t kCeiling = 250;
    installPending("alpha");
    tv.switchOn(0);
    tv.platform().setFault("PS_Mknod", -1);
    tv.startDaemon();
    expectEnd();
    EXPECT_EQ(tv.countOf("PS_Mknod error, retVal: [-1], result: [5]"), kCeiling);
    EXPECT_TRUE(tv.said("Error: Firmware EMP Mount Fail.(empalpha)"));
    EXPECT_THAT(tv.loopMounts(), IsEmpty());
}

TEST_F(Mount, MakesNoNodeWhileOneIsFree)
{
    installPending("alpha");
    tv.switchOn(8);
    tv.platform().setFault("PS_Mount", -1);
    tv.startDaemon();
    expectEnd();
    EXPECT_TRUE(tv.said("Fail PS_Mount: file:[" + Television::packagePath("empalpha") + "], dest:[" +
                        Television::mountPoint("empalpha") + "], retVal:[-1], result:[5]"));
    EXPECT_TRUE(tv.said("loop count is 8, mount count is 0"));
    EXPECT_TRUE(tv.said("Error: Firmware EMP Mount Fail.(empalpha)"));
    EXPECT_NE(tv.execute({"test", "-e", "/dev/loop8"}).status, 0);
    EXPECT_TRUE(tv.said("no update module item!\n"));
}

TEST_F(Mount, RefusedAtTheUpdateLeavesTheModuleAsItWas)
{
    installPending("alpha");
    startPending();
    tv.platform().setFault("PS_Mount", -1);
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("Error: Firmware EMP Mount Fail.(empalpha)"));
    EXPECT_FALSE(wasAsked("alpha doUpdateReturns()"));
    EXPECT_TRUE(tv.exists(Television::packagePath("empalpha")));
}

TEST_F(Mount, ARefusedUnmountIsToldAfterTheUpdate)
{
    installPending("alpha");
    startPending();
    tv.platform().setFault("PS_Umount", -1);
    goToStandby();
    expectEnd();
    EXPECT_TRUE(
        tv.said("Error(iRet1=-1, iRet2=5) while unmounitng [" + Television::mountPoint("empalpha") + "]"));
    EXPECT_TRUE(tv.said("Error: Firmware EMP UMount Fail.(empalpha)"));
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Mount, WithoutItsServiceNothingIsPending)
{
    installPending("alpha");
    tv.switchOn();
    tv.killService("psmountd");
    tv.startDaemon();
    expectEnd();
    EXPECT_TRUE(tv.said("Error: Firmware EMP Mount Fail.(empalpha)"));
    EXPECT_TRUE(tv.said("no update module item!\n"));
}

} // namespace
} // namespace service
