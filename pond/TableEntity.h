#pragma once
// The adapter between entities and shared-memory tables: an entity whose
// collections are the collections of one table. Opened as the writer, its
// setters write the table and notify its reactors at once; mounted as a
// reader, its reactors hear each changed key on the reader's loop.
#include "gant/Entity.h"
#include "pond/Map.h"
#include "pond/Table.h"

#include <memory>
#include <string>
#include <vector>

namespace GantPond {

class TableEntity : public Gant::Entity, private Pond::TableHandler {
 public:
   // The writer's side: creates or recovers the table at mountPath. A null
   // loop means no reader is woken (they find changes when they poll).
   void openWriter(const std::string& mountPath, Loop::EventLoop* loop, const Pond::Options& options = {});
   // A reader's side: mounts the table at mountPath from the loop.
   void openReader(const std::string& mountPath, Loop::EventLoop& loop, const Pond::Options& options = {});

   bool isWriter() const noexcept { return writer_ != nullptr; }
   bool isReader() const noexcept { return reader_ != nullptr; }
   bool tableReady() const noexcept { return writer_ || (reader_ && reader_->ready()); }
   // This process writes the table, or a live writer serves this reader; a
   // reader keeps what a writer that died left, so its records stay readable.
   bool writerAlive() const noexcept { return writer_ || (reader_ && reader_->writerConnected()); }
   Pond::TableWriter* tableWriter() const noexcept { return writer_.get(); }
   Pond::TableReader* tableReader() const noexcept { return reader_.get(); }
   // The text of the last corruption met (by a reader's lookups, or by the
   // writer's commit), or empty.
   const std::string& corruption() const noexcept { return corruption_; }

 protected:
   TableEntity(Gant::Name name, Pond::TableShape shape, std::vector<Pond::CollectionCodec> codecs);

   // Generated: one writer or reader per collection, and the dispatch of a
   // changed key to the collection's reactor handler.
   virtual void bindCollections() = 0;
   virtual void tableChanged(std::size_t collection, const void* key) = 0;
   virtual void tableStatusChanged() = 0;

   Pond::CollectionWriter& collectionWriter(std::size_t c);
   // Collection c as lookups see it: the writer's own records on the
   // writer's side, the mapped table on a reader's, and nothing ("absent")
   // before either is open or mounted. One load away, for the lookups.
   const Pond::CollectionReader& collectionView(std::size_t c) const { return *views_[c]; }
   // Refuses a write on a reader's side: readers never write.
   void requireWriter() const;

 private:
   void onChange(std::size_t c, const void* key) override { tableChanged(c, key); }
   void onReady() override { tableStatusChanged(); }
   void onWriterGone() override { tableStatusChanged(); }
   void onRefused(const std::string&) override { tableStatusChanged(); }
   void onCorrupt(const std::string& what) override {
      corruption_ = what;
      tableStatusChanged();
   }

   Pond::TableShape shape_;
   std::vector<Pond::CollectionCodec> codecs_;
   std::unique_ptr<Pond::TableWriter> writer_;
   std::unique_ptr<Pond::TableReader> reader_;
   const Pond::CollectionReader* views_[Pond::kMaxCollections];
   std::string corruption_;
};

} // namespace GantPond
