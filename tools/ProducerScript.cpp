#include "tools/ProducerScript.h"

#include "tools/FlagWords.h"

#include "fib/RouteKeyCheck.h"

namespace Tool {

using namespace Pond::Multicast::Fib;

namespace {

std::vector<std::string> words(std::string_view text) {
   std::vector<std::string> out;
   std::size_t at = 0;
   while (at < text.size()) {
      const std::size_t start = text.find_first_not_of(" \t\r", at);
      if (start == std::string_view::npos) break;
      const std::size_t end = std::min(text.find_first_of(" \t\r", start), text.size());
      out.emplace_back(text.substr(start, end - start));
      at = end;
   }
   return out;
}

bool isKeyword(const std::string& w) { return w == "iif" || w == "oif" || w == "vrf" || w == "flags"; }

} // namespace

ProducerScript::ProducerScript(const std::string& app, uint8_t priority, const L3::VrfName& vrf,
                               Loop::EventLoop& loop, const Pond::Options& options)
    : app_(app), priority_(priority), vrf_(vrf), loop_(loop), options_(options) {}

ProducerScript::~ProducerScript() = default;

MfibProducer& ProducerScript::producer(Pakto::AddressFamily af) {
   auto& p = producers_[af == Pakto::AddressFamily::ipv6];
   if (!p) p = std::make_unique<MfibProducer>(af, app_, loop_, options_);
   return *p;
}

std::string ProducerScript::line(std::string_view text) {
   const std::vector<std::string> w = words(text.substr(0, text.find('#')));
   if (w.empty()) return "";
   if (w[0] == "commit") return w.size() == 1 ? (commit(), "") : "commit takes nothing after it";
   if (w[0] != "add" && w[0] != "del") return "unknown change '" + w[0] + "': add, del or commit";
   Change c;
   c.add = w[0] == "add";
   c.vrf = vrf_;
   c.flags.validIs(true);
   std::size_t i = 1;
   std::string keyText;
   for (; i < w.size() && !isKeyword(w[i]); ++i) keyText += (keyText.empty() ? "" : " ") + w[i];
   std::string why;
   const auto key = Routing::Multicast::Fib::parseRouteKeyChecked(keyText, why);
   if (!key) return "bad key '" + keyText + "': " + why;
   c.key = *key;
   try {
      while (i < w.size()) {
         const std::string& kw = w[i++];
         if (kw == "vrf" && i < w.size()) {
            c.vrf = L3::VrfName(w[i++]);
         } else if (kw == "iif" && c.add && i < w.size()) {
            c.iif = Pakto::IntfId(w[i++]);
         } else if (kw == "flags" && c.add && i < w.size()) {
            c.flags = flagsNamed<Route::RouteFlags>(w[i++]);
         } else if (kw == "oif" && c.add) {
            for (; i < w.size() && !isKeyword(w[i]); ++i) c.oifs.emplace_back(w[i]);
         } else {
            return "'" + kw + "' " + (i > w.size() || !c.add ? "is out of place" : "needs a value");
         }
      }
   } catch (const std::exception& e) {
      return e.what();
   }
   pending_.push_back(std::move(c));
   return "";
}

std::size_t ProducerScript::commit() {
   for (const Change& c : pending_) {
      MfibProducer& p = producer(c.key.g().af());
      if (!c.add) {
         p.routeDel(c.vrf, c.key);
         continue;
      }
      Route r(c.key);
      r.iifIs(c.iif);
      r.routeFlagsIs(c.flags);
      r.routePriorityIs(RoutePriority(priority_));
      OifIndex max;
      for (const Pakto::IntfId& oif : c.oifs) {
         const OifIndex index = p.oifIndex(c.vrf, oif);
         r.oifIs(index, true);
         if (max == OifIndex::null() || max < index) max = index;
      }
      r.maxOifIndexIs(max);
      Route& staged = p.table(c.vrf).routeModify(c.key);
      r.versionIs(staged.version() + 1);
      staged = r;
      p.table(c.vrf).routeCommit(&staged);
   }
   const std::size_t n = pending_.size();
   pending_.clear();
   return n;
}

void ProducerScript::withdraw() {
   for (auto& p : producers_)
      if (p) p->withdraw();
}

} // namespace Tool
