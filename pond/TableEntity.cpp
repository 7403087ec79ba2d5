#include "pond/TableEntity.h"

#include "gant/Assert.h"

namespace GantPond {

TableEntity::TableEntity(Gant::Name name, Pond::TableShape shape, std::vector<Pond::CollectionCodec> codecs)
    : Entity(std::move(name)), shape_(std::move(shape)), codecs_(std::move(codecs)) {
   static const Pond::CollectionReader unopened;
   for (auto& v : views_) v = &unopened;
}

void TableEntity::openWriter(const std::string& mountPath, Loop::EventLoop* loop, const Pond::Options& options) {
   GANT_ASSERT(!writer_ && !reader_);
   writer_ = std::make_unique<Pond::TableWriter>(mountPath, shape_, codecs_, loop, options);
   for (std::size_t c = 0; c < shape_.collections.size(); ++c) {
      views_[c] = &writer_->view(c);
      // A commit that finds the segment corrupt: reported like a reader's
      // find, and the key still notified before the error goes on.
      writer_->collection(c).corruptHandlerIs([this, c](const std::string& what, const void* key) {
         onCorrupt(what);
         tableChanged(c, key);
      });
   }
   bindCollections();
}

void TableEntity::openReader(const std::string& mountPath, Loop::EventLoop& loop, const Pond::Options& options) {
   GANT_ASSERT(!writer_ && !reader_);
   Pond::TableHandler& handler = *this;
   reader_ = std::make_unique<Pond::TableReader>(mountPath, shape_, codecs_, loop, handler, options);
   for (std::size_t c = 0; c < shape_.collections.size(); ++c) views_[c] = &reader_->collection(c);
   bindCollections();
}

Pond::CollectionWriter& TableEntity::collectionWriter(std::size_t c) {
   requireWriter();
   return writer_->collection(c);
}

void TableEntity::requireWriter() const {
   if (!writer_) throw Gant::UnsupportedOperation(std::string(typeName()) + " '" + name() +
                                                  "' is not open as its table's writer");
}

} // namespace GantPond
