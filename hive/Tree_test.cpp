#include "hive/Tree.h"

#include <gtest/gtest.h>

namespace {

struct Watch : Hive::Dir::Reactor {
   using Hive::Dir::Reactor::Reactor;
   std::vector<std::string> seen;
   void onEntry(const Gant::Name& n) override { seen.push_back(n); }
};

TEST(Hive, MountLookupAndUnmount) {
   Hive::Tree tree;
   auto status = Hive::dirFactory("status");
   tree.mount("routing/multicast/status", status);
   EXPECT_EQ(tree.lookup("routing/multicast/status"), status);
   EXPECT_EQ(status->parent()->name(), "multicast");
   EXPECT_EQ(tree.lookup<Hive::Dir>("routing/multicast")->entries().size(), 1u);
   EXPECT_EQ(tree.lookup("routing/multicast/nope"), nullptr);
   EXPECT_EQ(tree.lookup("routing/multicast/status/deeper"), nullptr);

   Watch w(tree.lookup<Hive::Dir>("routing/multicast").ptr());
   auto other = Hive::dirFactory("x");
   tree.mount("routing/multicast/status", other); // replace
   tree.mount("routing/multicast/status", other); // same: nothing
   tree.unmount("routing/multicast/status");
   tree.unmount("routing/multicast/status"); // gone: nothing
   EXPECT_EQ(w.seen, (std::vector<std::string>{"status", "status"}));
   EXPECT_EQ(status->parent(), nullptr);
   EXPECT_EQ(tree.lookup("routing/multicast/status"), nullptr);
}

TEST(Hive, DirectoryNotifiesChildAddedAndRemoved) {
   Hive::Tree tree;
   auto fib = tree.dirIs("routing/multicast/fib");
   Watch w(fib.ptr());
   fib->dirIs("agentA");
   fib->dirIs("agentA");
   fib->entryDel("agentA");
   EXPECT_EQ(w.seen, (std::vector<std::string>{"agentA", "agentA"}));
}

TEST(HiveDeathTest, DirectoryOverAnEntityIsAMisuse) {
   Hive::Tree tree;
   tree.mount("a/b", Hive::dirFactory("b"));
   auto a = tree.lookup<Hive::Dir>("a");
   struct NotADir : Gant::Entity {
      NotADir() : Entity("leaf") {}
      const Gant::TypeInfo& typeInfo() const noexcept override { return Hive::Dir::gantTypeInfo(); }
   };
   a->entryIs("leaf", Gant::make<NotADir>());
   EXPECT_DEATH(tree.dirIs("a/leaf/x"), "d != nullptr");
}

} // namespace
