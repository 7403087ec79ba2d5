#pragma once
// Mounting entities at slash-separated paths. Intermediate directories are
// created on mount; the last component names the entity itself.
#include "hive/Dir.h"

#include <string_view>

namespace Hive {

class Tree {
 public:
   Tree() : root_(dirFactory("")) {}

   const Gant::Ptr<Dir>& root() const noexcept { return root_; }

   // Places e at path, replacing what was there.
   void mount(std::string_view path, const Gant::Ptr<Gant::Entity>& e);
   void unmount(std::string_view path);
   Gant::Ptr<Gant::Entity> lookup(std::string_view path) const;
   template <class T>
   Gant::Ptr<T> lookup(std::string_view path) const {
      return dynamic_cast<T*>(lookup(path).ptr());
   }
   // The directory at path, created (with its parents) when absent.
   Gant::Ptr<Dir> dirIs(std::string_view path);

 private:
   Gant::Ptr<Dir> root_;
};

} // namespace Hive

namespace Cell {
// The path of a per-cell entity: cell-local state lives under "cell/<n>/".
std::string path(std::string_view path, uint32_t cell);
} // namespace Cell

namespace Hive {

// The entity of type T at path: the one already mounted there, or a new one
// made by T's factory, named after the path's last component, and mounted.
template <class T>
Gant::Ptr<T> mountIs(Tree& tree, std::string_view path) {
   if (auto existing = tree.lookup<T>(path)) return existing;
   auto slash = path.rfind('/');
   std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
   Gant::Ptr<Gant::Entity> made = T::gantTypeInfo().factory(name);
   tree.mount(path, made);
   return Gant::Ptr<T>(static_cast<T*>(made.ptr()));
}

} // namespace Hive
