// Entity behaviour of generated types, tested once on the sample schema:
// notification discipline, counters, collections, owned children, reactor
// lifetime, reflection and the attribute log.
#include "gant/testlib/Sample.h"

#include "gant/testlib/Thrown.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Gant::Sample;

// Records every notification as text, in order.
struct Recorder : Root::Reactor {
   using Root::Reactor::Reactor;
   std::vector<std::string> seen;
   void onEnabled() override { seen.push_back("enabled"); }
   void onMode() override { seen.push_back("mode"); }
   void onLimit() override { seen.push_back("limit"); }
   void onHits() override { seen.push_back("hits"); }
   void onWide() override { seen.push_back("wide"); }
   void onWeight(const Gant::String& k) override { seen.push_back("weight " + k); }
   void onFast(uint32_t k) override { seen.push_back("fast " + std::to_string(k)); }
   void onTag(const Pakto::IntfId& k) override { seen.push_back("tag " + k.name()); }
   void onSlot(uint16_t i) override { seen.push_back("slot " + std::to_string(i)); }
   void onLeaf(uint32_t k) override { seen.push_back("leaf " + std::to_string(k)); }
   void onPeer() override { seen.push_back("peer"); }
};

TEST(Entity, EachChangeNotifiesOnceAndAnEqualValueNever) {
   auto root = rootFactory("r");
   Recorder rec(root.ptr());
   root->enabledIs(true); // default already
   root->enabledIs(false);
   root->enabledIs(false);
   root->modeIs(Root::Mode::off);
   root->limitIs(1024); // default
   root->limitIs(7);
   root->peerIs(root);
   root->peerIs(root);
   root->peerIs(nullptr); // break the cycle again
   EXPECT_EQ(rec.seen, (std::vector<std::string>{"enabled", "mode", "limit", "peer", "peer"}));

   // Counters wrap at their width.
   rec.seen.clear();
   root->hitsIs(255);
   root->hitsInc(1);
   EXPECT_EQ(root->hits(), 0);
   root->hitsDec(1);
   EXPECT_EQ(root->hits(), 255);
   root->hitsInc(0); // no change
   root->wideIs(UINT64_MAX);
   root->wideInc(2);
   EXPECT_EQ(root->wide(), 1u);
   EXPECT_EQ(rec.seen, (std::vector<std::string>{"hits", "hits", "hits", "wide", "wide"}));

   // Collections notify with the key.
   rec.seen.clear();
   root->weightIs("b", 2);
   root->weightIs("a", 1);
   root->weightIs("a", 1); // unchanged
   root->weightIs("a", 3); // changed value
   EXPECT_EQ(root->weight("a"), 3u);
   EXPECT_EQ(root->weight("zz"), 0u) << "absent reads as default";
   EXPECT_TRUE(root->weightHas("b"));
   root->weightDel("zz"); // absent: nothing
   root->weightDelAll();  // one notification per key, ascending
   EXPECT_EQ(root->weightSize(), 0u);
   EXPECT_EQ(rec.seen,
             (std::vector<std::string>{"weight b", "weight a", "weight a", "weight a", "weight b"}));

   rec.seen.clear();
   Pakto::IntfId e1("Ethernet1");
   EXPECT_EQ(root->tagIs(e1), e1);
   root->tagIs(e1);
   root->tagDel(e1);
   root->slotIs(5, 9);
   root->slotIs(5, 9);
   EXPECT_EQ(root->slot(5), 9u);
   EXPECT_EQ(root->slot(4), 0u) << "a missing entry of a dense array reads as 0";
   EXPECT_EQ(root->slot(4000), 0u);
   root->slotDelAll();
   EXPECT_EQ(rec.seen, (std::vector<std::string>{"tag Ethernet1", "tag Ethernet1", "slot 5", "slot 5"}));
}

TEST(Entity, DelAllLetsHandlersSeeWhatRemains) {
   auto root = rootFactory("r");
   for (uint32_t k : {1u, 2u, 3u}) root->fastIs(k, true);
   struct Counter : Root::Reactor {
      using Root::Reactor::Reactor;
      std::vector<std::size_t> sizes;
      void onFast(uint32_t) override { sizes.push_back(notifier()->fastSize()); }
   } c(root.ptr());
   root->fastDelAll();
   EXPECT_EQ(c.sizes, (std::vector<std::size_t>{2, 1, 0}));
}

TEST(Entity, OwnedChildrenAreCreatedOnceAndParented) {
   auto root = rootFactory("r");
   Recorder rec(root.ptr());
   auto a = root->leafIs(7);
   auto b = root->leafIs(7);
   EXPECT_EQ(a.ptr(), b.ptr());
   EXPECT_EQ(a->parent(), root.ptr());
   EXPECT_EQ(a->owner(), root.ptr()) << "back-reference given at creation";
   EXPECT_EQ(a->name(), "7");
   EXPECT_EQ(a->level(), 9);
   root->leafDel(7);
   EXPECT_EQ(a->parent(), nullptr) << "a removed child no longer names its old parent";
   EXPECT_EQ(root->leaf(7), nullptr);
   EXPECT_EQ(rec.seen, (std::vector<std::string>{"leaf 7", "leaf 7"}));
   EXPECT_TRUE(root->tagHas(Pakto::IntfId())) << "the schema's init ran at construction";
}

TEST(Entity, ARefHoldsItsTargetUntilItsHolderGoes) {
   auto target = rootFactory("target");
   const uint32_t refs = target->refCount();
   {
      auto holder = rootFactory("holder");
      holder->peerIs(target);
      EXPECT_EQ(holder->attr("peer").text(), "'target'");
      EXPECT_EQ(target->refCount(), refs + 1);
   }
   EXPECT_EQ(target->refCount(), refs) << "the holder let go of its reference";
}

TEST(Reactor, LifetimeAndActivity) {
   Recorder outlives;
   {
      auto root = rootFactory("r");
      Recorder rec(root.ptr());
      outlives.notifierIs(root.ptr());
      EXPECT_EQ(root->reactors(), 2u);
      rec.activeIs(false);
      root->enabledIs(false);
      EXPECT_TRUE(rec.seen.empty()) << "inactive reactors are not called";
      {
         Recorder scoped(root.ptr());
      }
      EXPECT_EQ(root->reactors(), 2u) << "a destroyed reactor unregisters itself";
   }
   // The entity died first: the reactor is detached and never called again.
   EXPECT_EQ(outlives.notifier(), nullptr);
   EXPECT_EQ(outlives.seen, (std::vector<std::string>{"enabled"}));
}

TEST(Reactor, ABaseReactorOnADerivedEntityHearsOnlyTheBase) {
   auto twig = twigFactory("t");
   Recorder base(twig.ptr());
   struct TwigRecorder : Twig::Reactor {
      using Twig::Reactor::Reactor;
      std::vector<std::string> seen;
      void onEnabled() override { seen.push_back("enabled"); }
      void onSap() override { seen.push_back("sap"); }
   } derived(twig.ptr());
   twig->sapIs(7);
   twig->enabledIs(false);
   EXPECT_EQ(base.seen, (std::vector<std::string>{"enabled"})) << "it has no handler for sap";
   EXPECT_EQ(derived.seen, (std::vector<std::string>{"sap", "enabled"}));
}

TEST(Entity, AHandSetMapDecidesItsChangesAndDelAllGoesThroughItsDel) {
   auto twig = twigFactory("t");
   twig->gateIs(1, 5);
   twig->gateIs(2, 6);
   twig->gateIs(1, 0);
   EXPECT_EQ(twig->gateSize(), 1u);
   EXPECT_EQ(twig->sap(), 1u);
   twig->gateIs(3, 7);
   twig->gateDelAll();
   EXPECT_EQ(twig->gateSize(), 0u);
   EXPECT_EQ(twig->sap(), 3u) << "each member left through the hand-written gateDel";
}

TEST(Reactor, RemovalAndDropFromInsideAHandler) {
   auto root = rootFactory("r");
   struct SelfRemoving : Root::Reactor {
      using Root::Reactor::Reactor;
      Root::Reactor* victim = nullptr;
      Gant::Ptr<Root>* owner = nullptr;
      int calls = 0;
      void onEnabled() override {
         ++calls;
         if (victim) delete victim; // a later reactor disappears mid-walk
         victim = nullptr;
         notifierIs(nullptr);       // and this one detaches itself
         if (owner) *owner = nullptr; // and the last reference is dropped
      }
   };
   auto* first = new SelfRemoving(root.ptr());
   auto* later = new Recorder(root.ptr());
   Recorder survivor(root.ptr());
   first->victim = later;
   first->owner = &root;
   Root* raw = root.ptr();
   raw->enabledIs(false); // must neither crash nor call the deleted reactor
   EXPECT_EQ(first->calls, 1);
   EXPECT_EQ(survivor.seen, (std::vector<std::string>{"enabled"})) << "the walk went on";
   EXPECT_EQ(root, nullptr);
   EXPECT_EQ(survivor.notifier(), nullptr) << "entity destroyed once the walk ended";
   delete first;
}

// The attribute table itself is generated, and pinned by the generator's
// golden output; what is checked here is reaching attributes through it.
TEST(Reflection, GetSetAndRefuse) {
   auto root = rootFactory("r");
   Recorder rec(root.ptr());
   EXPECT_EQ(root->attr("limit").as<uint32_t>(), 1024u);
   EXPECT_EQ(root->attr("mode").text(), "'on'");
   EXPECT_EQ(root->attr("modeDefault").as<Root::Mode>(), Root::Mode::on);
   root->attrIs("limit", 77); // an int converts when it fits
   EXPECT_EQ(root->limit(), 77u);
   root->attrIsText("enabled", "False");
   EXPECT_FALSE(root->enabled());
   EXPECT_THROW(root->attrIs("modeDefault", Root::Mode::off), Gant::UnsupportedOperation);
   EXPECT_THROW(root->attrIs("limit", 9000), Gant::RangeError);
   EXPECT_THROW(root->attrIs("hits", 300), Gant::RangeError) << "does not fit 8 bits";
   EXPECT_THROW(root->attrIs("limit", -1), Gant::RangeError);
   EXPECT_THROW(root->attr("nosuch"), Gant::UnsupportedOperation);
   EXPECT_THROW(root->attrIsText("limit", "12x"), Gant::ParseError);
   EXPECT_EQ(Gant::Test::thrown<Gant::RangeError>([&] { root->limitIs(5001); }), "Root::limit > 5000 not allowed");
   EXPECT_EQ(root->limit(), 77u) << "refused writes change nothing, and notify nobody";
   EXPECT_EQ(rec.seen, (std::vector<std::string>{"limit", "enabled"}));
   root->weightIs("k", 4);
   EXPECT_EQ(root->attr("weight").text(), "{'k': 4}");

   const Gant::TypeInfo* reg = Gant::TypeRegistry::find("Gant::Sample::Root");
   ASSERT_NE(reg, nullptr);
   auto made = reg->factory("built");
   EXPECT_EQ(made->name(), "built");
   EXPECT_STREQ(made->typeName(), "Gant::Sample::Root");
}

TEST(AttributeLog, EntityStateReplaysThroughSetters) {
   auto a = rootFactory("a");
   a->enabledIs(false);
   a->limitIs(5);
   a->weightIs("x", 1);
   a->leafIs(3)->levelIs(4);
   a->slotIs(2, 8);
   Gant::LogWriter w;
   a->gantLogWrite(w);

   auto b = rootFactory("b");
   Recorder rec(b.ptr());
   Gant::LogReader r(w.data());
   b->gantLogApply(r);
   EXPECT_TRUE(r.atEnd());
   EXPECT_FALSE(b->enabled());
   EXPECT_EQ(b->limit(), 5u);
   EXPECT_EQ(b->weight("x"), 1u);
   EXPECT_EQ(b->leaf(3)->level(), 4);
   EXPECT_EQ(b->slot(2), 8u);
   EXPECT_FALSE(rec.seen.empty());

   Gant::LogReader shortLog(std::string_view(w.data()).substr(0, 3));
   EXPECT_THROW(rootFactory("c")->gantLogApply(shortLog), Gant::ParseError);
}

} // namespace
