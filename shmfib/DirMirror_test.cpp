// Producers' directories found and followed from another process: the
// mirror a reader keeps, a producer killed (stale, still there), restarted
// (live again) and withdrawn (gone).
#include "shmfib/DirMirror.h"
#include "shmfib/DirCleanup.h"
#include "shmfib/DirPublisher.h"
#include "shmfib/RouteTable.h"
#include "pond/testlib/Fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Pond::Multicast::Fib;
using Pakto::AddressFamily;

struct DirMirrorTest : ::testing::Test {
   Loop::EpollLoop loop;
   Pond::Options options = Pond::Test::uniqueOptions();
   Gant::Ptr<Hive::Dir> dir = Hive::dirFactory("fib");

   std::vector<std::string> apps() const {
      std::vector<std::string> out;
      for (const auto& [name, e] : dir->entries()) out.push_back(name);
      return out;
   }
   Gant::Ptr<MfibDir> mirrored(const std::string& app) const {
      return Gant::Ptr<MfibDir>(dynamic_cast<MfibDir*>(dir->entry(Gant::Name(app)).ptr()));
   }
   std::string urlOf(const std::string& app, const char* vrf) const {
      auto d = mirrored(app);
      auto c = d ? d->dirColl(L3::VrfName(vrf)) : nullptr;
      return c ? c->pondUrl() : "-";
   }
   // A producer in a process of its own; it stops when told, withdrawing or not.
   std::vector<std::string> urls;
   pid_t producer(const std::string& app, const std::string& url, bool withdraw) {
      urls.push_back(url);
      int ready[2];
      EXPECT_EQ(::pipe(ready), 0);
      const pid_t pid = ::fork();
      if (pid == 0) {
         Loop::EpollLoop own;
         auto d = mfibDirFactory(Gant::Name(app));
         MfibDirPublisher pub(AddressFamily::ipv4, app, d, &own, options);
         auto routes = statusFactory(Gant::Name(app));
         routes->openWriter(url, &own, options);
         d->dirCollIs(L3::VrfName("red"))->pondUrlIs(url);
         (void)!::write(ready[1], "r", 1);
         own.runUntil([] { return false; }, withdraw ? 0.3 : 60);
         if (withdraw) pub.withdraw();
         ::_exit(0);
      }
      char c;
      EXPECT_EQ(::read(ready[0], &c, 1), 1);
      ::close(ready[0]);
      ::close(ready[1]);
      return pid;
   }
   void TearDown() override {
      for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6})
         for (const char* app : {"pim", "static"})
            Pond::Segment::unlink(Pond::segmentName(options.prefix, MfibDirTable::mountPath(af, app)));
      for (const std::string& url : urls) Pond::Segment::unlink(Pond::segmentName(options.prefix, url));
   }
};

TEST_F(DirMirrorTest, FollowsAProducerInTheSameProcess) {
   auto own = mfibDirFactory(Gant::Name("pim"));
   MfibDirPublisher pub(AddressFamily::ipv4, "pim", own, &loop, options);
   own->dirCollIs(L3::VrfName("default"))->pondUrlIs("routing/multicast/routestatus/default/pim");
   MfibDirMirror mirror(AddressFamily::ipv4, dir, loop, options);
   MfibDirMirror other(AddressFamily::ipv6, Hive::dirFactory("fib6"), loop, options);
   loop.runUntil([&] { return urlOf("pim", "default") != "-"; }, 5);
   EXPECT_EQ(apps(), std::vector<std::string>{"pim"});
   EXPECT_EQ(urlOf("pim", "default"), "routing/multicast/routestatus/default/pim");
   EXPECT_TRUE(mirror.producers()->live("pim"));
   EXPECT_EQ(other.producers()->liveSize(), 0u) << "another address family";

   auto red = own->dirCollIs(L3::VrfName("red"));
   red->bitMapperPondUrlIs("bitmap/red");
   loop.runUntil([&] { return mirrored("pim")->dirColl(L3::VrfName("red")) != nullptr; }, 5);
   loop.runUntil([&] { return mirrored("pim")->dirColl(L3::VrfName("red"))->bitMapperPondUrl() != ""; }, 5);
   EXPECT_EQ(mirrored("pim")->dirColl(L3::VrfName("red"))->bitMapperPondUrl(), "bitmap/red");
   own->dirCollDel(L3::VrfName("red"));
   loop.runUntil([&] { return !mirrored("pim")->dirCollHas(L3::VrfName("red")); }, 5);
   EXPECT_FALSE(mirrored("pim")->dirCollHas(L3::VrfName("red")));

   pub.withdraw();
   loop.runUntil([&] { return apps().empty(); }, 5);
   EXPECT_TRUE(apps().empty());
   EXPECT_EQ(mirror.producers()->liveSize(), 0u);
}

TEST_F(DirMirrorTest, AKilledProducerIsStaleUntilItReturns) {
   MfibDirMirror mirror(AddressFamily::ipv4, dir, loop, options);
   const pid_t first = producer("static", "routing/multicast/routestatus/red/static", false);
   loop.runUntil([&] { return mirror.producers()->live("static"); }, 5);
   ASSERT_TRUE(mirror.producers()->live("static"));
   ::kill(first, SIGKILL);
   ::waitpid(first, nullptr, 0);
   loop.runUntil([&] { return !mirror.producers()->live("static"); }, 5);
   EXPECT_FALSE(mirror.producers()->live("static"));
   EXPECT_TRUE(mirror.producers()->liveHas("static")) << "stale, not gone";
   EXPECT_EQ(urlOf("static", "red"), "routing/multicast/routestatus/red/static") << "its routes stay in force";

   const pid_t second = producer("static", "routing/multicast/routestatus/red/static2", true);
   loop.runUntil([&] { return urlOf("static", "red").ends_with("static2"); }, 5);
   EXPECT_TRUE(mirror.producers()->live("static"));
   EXPECT_EQ(urlOf("static", "red"), "routing/multicast/routestatus/red/static2");
   ::waitpid(second, nullptr, 0);
   loop.runUntil([&] { return apps().empty(); }, 5);
   EXPECT_TRUE(apps().empty()) << "withdrawn";
}

TEST_F(DirMirrorTest, WhatADeadProducerLeftIsRemovedByCommand) {
   MfibDirMirror mirror(AddressFamily::ipv4, dir, loop, options);
   const std::string url = "routing/multicast/routestatus/red/pim";
   const pid_t pid = producer("pim", url, false);
   Pond::Test::KillOnExit reap{pid};
   EXPECT_THROW(removeDeadProducer(AddressFamily::ipv4, "pim", options), Gant::TableError) << "it runs";
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   EXPECT_EQ(removeDeadProducer(AddressFamily::ipv4, "pim", options),
             (std::vector<std::string>{url, "routing/multicast/fibdir/pim"}));
   loop.runUntil([&] { return apps().empty(); }, 5);
   EXPECT_TRUE(apps().empty());
   const int fd = ::shm_open(Pond::segmentName(options.prefix, url).c_str(), O_RDONLY, 0);
   EXPECT_EQ(fd, -1) << "the route table is gone too";
   EXPECT_THROW(removeDeadProducer(AddressFamily::ipv4, "pim", options), Gant::TableError) << "nothing left";
}

} // namespace
