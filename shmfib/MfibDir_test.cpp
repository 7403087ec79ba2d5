// The MFIB directory: a producer's writer keeping its tables and directory
// in step, and a reader's mounting machine following producers'
// directories. Across processes: MfibProcesses_test.
#include "flashlog/Capture.h"
#include "pond/testlib/Fixture.h"
#include "shmfib/MfibDirSm.h"
#include "shmfib/MfibDirWriter.h"

#include <gtest/gtest.h>

namespace {

using namespace Pond::Multicast::Fib;
using Pakto::AddressFamily;

const L3::VrfName red("red");

std::string url(const std::string& app, const L3::VrfName& vrf = red) {
   return Status::mountPath(AddressFamily::ipv4, vrf, app);
}

struct MfibDirTest : ::testing::Test {
   Loop::EpollLoop loop;
   Pond::Options options = Pond::Test::uniqueOptions();
   std::vector<std::string> paths;
   void TearDown() override {
      for (const auto& p : paths) Pond::Segment::unlink(Pond::segmentName(options.prefix, p));
   }
};

TEST_F(MfibDirTest, TheWriterKeepsTablesAndDirectoryInStep) {
   auto dir = Hive::dirFactory("fib");
   auto mfibDir = mfibDirFactory(Gant::Name("pim"));
   MfibDirWriter writer("pim", dir, mfibDir, nullptr, options);
   Flashlog::Capture capture("Mroute::MfibPond=8");
   writer.handleInitialized();
   EXPECT_EQ(dir->entry(Gant::Name("pim")).ptr(), mfibDir.ptr());
   paths = {url("pim"), url("pim", L3::defaultVrfName())};
   auto table = writer.doAddPond(red, url("pim"));
   EXPECT_EQ(writer.mfibPond(url("pim")), table);
   EXPECT_EQ(writer.mfibPondDir()->pondColl(red)->pondPtr(table.ptr()).ptr(), table.ptr());
   EXPECT_EQ(mfibDir->dirColl(red)->pondUrl(), url("pim"));
   writer.doDelPond(red, url("pim"));
   EXPECT_FALSE(writer.mfibPondDir()->pondCollHas(red));
   EXPECT_FALSE(mfibDir->dirCollHas(red));
   writer.doAddPond(L3::defaultVrfName(), url("pim", L3::defaultVrfName()));
   writer.doDelPond(L3::defaultVrfName(), url("pim", L3::defaultVrfName()));
   EXPECT_TRUE(mfibDir->dirCollHas(L3::defaultVrfName())) << "the default VRF's stays";
   const std::string u = url("pim");
   EXPECT_EQ(capture.lines(),
             (std::vector<std::string>{"Created directory collection for default vrf default", "Mounted " + u,
                                       "Created Ponded directory collection for vrf red",
                                       "Created directory collection for vrf red",
                                       "Added url " + u + " into mfibDir collection", "Unmounted " + u,
                                       "Deleted Ponded directory collection for vrf red",
                                       "Deleted directory collection for vrf red",
                                       "Mounted " + url("pim", L3::defaultVrfName()),
                                       "Created Ponded directory collection for vrf default",
                                       "Added url " + url("pim", L3::defaultVrfName()) + " into mfibDir collection",
                                       "Unmounted " + url("pim", L3::defaultVrfName()),
                                       "Deleted Ponded directory collection for vrf default"}));
}

TEST_F(MfibDirTest, TheMountingMachineFollowsProducersDirectories) {
   auto watched = Hive::dirFactory("fib");
   auto pondDir = mfibPondDirFactory(Gant::Name("reader"));
   auto sm = mfibDirSmFactory(watched, pondDir, loop, options);
   auto pim = mfibDirFactory(Gant::Name("pim"));
   auto igmp = mfibDirFactory(Gant::Name("igmp"));
   Flashlog::Capture capture("MfibDirSm=8");
   watched->entryIs(Gant::Name("pim"), pim);
   auto coll = pim->dirCollIs(red);
   EXPECT_FALSE(pondDir->pondCollHas(red)) << "no url yet: nothing mounted";
   coll->pondUrlIs(url("pim"));
   ASSERT_TRUE(pondDir->pondCollHas(red));
   EXPECT_EQ(pondDir->pondColl(red)->pondPtrSize(), 1u);
   watched->entryIs(Gant::Name("igmp"), igmp);
   igmp->dirCollIs(red)->pondUrlIs(url("igmp"));
   EXPECT_EQ(pondDir->pondColl(red)->pondPtrSize(), 2u) << "two producers, one VRF";
   coll->pondUrlIs(url("pim2"));
   EXPECT_EQ(pondDir->pondColl(red)->pondPtrSize(), 2u) << "a new url replaces the producer's table";
   EXPECT_EQ(sm->mfibPond("pim", red)->tableReader() != nullptr, true);
   const std::string allocator = "bitmapper/red/pim";
   coll->bitMapperPondUrlIs(allocator);
   EXPECT_EQ(sm->mfibPond("pim", red)->bitMapperPondStatus().ptr()->name(), "pim") << "linked to the route table";
   watched->entryDel(Gant::Name("pim"));
   EXPECT_EQ(pondDir->pondColl(red)->pondPtrSize(), 1u);
   EXPECT_EQ(pondDir->pondColl(red)->pondPtr().front().first, sm->mfibPond("igmp", red).ptr());
   igmp->dirCollDel(red);
   EXPECT_FALSE(pondDir->pondCollHas(red)) << "the last table gone, the VRF's collection goes";
   const std::vector<std::string> lines = capture.lines();
   ASSERT_GE(lines.size(), 3u);
   EXPECT_EQ(lines[0], "Created Mfib directory pim");
   EXPECT_EQ(lines[1], "Ignoring Pond URL  of size 0");
   EXPECT_EQ(lines[2], "Mounting " + url("pim") + " Mfib pond table for VRF red");
   EXPECT_EQ(lines.back(), "UnMounting " + url("igmp") + " Mfib pond table for VRF red for app igmp");
   const auto at = std::find(lines.begin(), lines.end(), " bitMapperUrl " + allocator);
   ASSERT_LE(at + 3, lines.end());
   EXPECT_EQ(at[1], " bitMapper pim");
   EXPECT_TRUE(at[2].starts_with(" ptr: 0x")) << at[2];
}

} // namespace
