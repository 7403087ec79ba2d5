#include "hive/Tree.h"

#include "gant/Assert.h"

#include <string>

namespace Hive {

namespace {
// Splits "a/b/c" into its parent part "a/b" and leaf "c".
std::pair<std::string_view, std::string_view> splitLast(std::string_view path) {
   auto slash = path.rfind('/');
   if (slash == std::string_view::npos) return {{}, path};
   return {path.substr(0, slash), path.substr(slash + 1)};
}
} // namespace

Gant::Ptr<Dir> Tree::dirIs(std::string_view path) {
   Gant::Ptr<Dir> d = root_;
   while (!path.empty()) {
      auto slash = path.find('/');
      std::string_view part = path.substr(0, slash);
      if (!part.empty()) d = d->dirIs(Gant::Name(part));
      if (slash == std::string_view::npos) break;
      path.remove_prefix(slash + 1);
   }
   return d;
}

void Tree::mount(std::string_view path, const Gant::Ptr<Gant::Entity>& e) {
   auto [parent, leaf] = splitLast(path);
   GANT_ASSERT(!leaf.empty());
   dirIs(parent)->entryIs(Gant::Name(leaf), e);
}

void Tree::unmount(std::string_view path) {
   auto [parent, leaf] = splitLast(path);
   auto d = lookup<Dir>(parent);
   if (parent.empty()) d = root_;
   if (d) d->entryDel(Gant::Name(leaf));
}

Gant::Ptr<Gant::Entity> Tree::lookup(std::string_view path) const {
   Gant::Ptr<Gant::Entity> cur = root_;
   while (!path.empty()) {
      auto slash = path.find('/');
      std::string_view part = path.substr(0, slash);
      if (!part.empty()) {
         auto* d = dynamic_cast<Dir*>(cur.ptr());
         if (!d) return nullptr;
         cur = d->entry(Gant::Name(part));
         if (!cur) return nullptr;
      }
      if (slash == std::string_view::npos) break;
      path.remove_prefix(slash + 1);
   }
   return cur;
}

} // namespace Hive

namespace Cell {
std::string path(std::string_view path, uint32_t cell) {
   return "cell/" + std::to_string(cell) + "/" + std::string(path);
}
} // namespace Cell
