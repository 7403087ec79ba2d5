#include "pond/TableEntity.h"

#include "gant/Assert.h"

namespace GantPond {

void TableEntity::openWriter(const std::string& mountPath, Loop::EventLoop* loop, const Pond::Options& options) {
   GANT_ASSERT(!writer_ && !reader_);
   writer_ = std::make_unique<Pond::TableWriter>(mountPath, shape_, codecs_, loop, options);
   bindCollections();
}

void TableEntity::openReader(const std::string& mountPath, Loop::EventLoop& loop, const Pond::Options& options) {
   GANT_ASSERT(!writer_ && !reader_);
   Pond::TableHandler& handler = *this;
   reader_ = std::make_unique<Pond::TableReader>(mountPath, shape_, codecs_, loop, handler, options);
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
