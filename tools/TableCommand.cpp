// mcastfib table: reads a table without knowing its type beforehand. A
// segment's header records the table's type, and per collection the record
// type's full name, record and key sizes and capacity: enough to rebuild the
// shape every reader derives its layout from. Records of a type this build
// knows are checked by its rules and shown by the type registry's attribute
// table; any other record is shown as bytes.
#include "tools/TableCommand.h"

#include "tools/Commands.h"
#include "tools/Signals.h"

#include "fib/Counter.h"
#include "fib/RouteKeyCheck.h"
#include "gant/TypeInfo.h"
#include "loop/EpollLoop.h"
#include "pond/Map.h"
#include "pond/Table.h"
#include "pond/WordCopy.h"
#include "shmfib/Route.h"
#include "sys/Calls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <ostream>
#include <vector>

namespace Tool {

const char* const tableSynopsis = "dump [--prefix PREFIX] TABLE\nwatch [--prefix PREFIX] TABLE";
const char* const tableDetails =
    "TABLE is a table's shared-memory segment as the writer names it\n"
    "(/mcastfib.routing%2fmulticast%2f...), its file in /dev/shm, or its mount path\n"
    "(routing/multicast/routestatus/default/NAME) under PREFIX (default mcastfib).\n"
    "dump prints the writer's pid and liveness, the table's generation and\n"
    "incarnation, then every record of every collection, ordered by key text, with\n"
    "the attributes not at their default (bytes, for a type this build lacks).\n"
    "watch prints the same, then each record added, changed or removed as it\n"
    "happens, until the writer goes away or the tool is interrupted.";

Location locate(const std::string& arg, const std::string& prefix) {
   const std::string segment = arg.starts_with("/dev/shm/") ? arg.substr(8)
                               : arg.starts_with("/")       ? arg
                                                            : Pond::segmentName(prefix, arg);
   const std::string_view name = std::string_view(segment).substr(1);
   const std::size_t dot = name.find('.');
   if (name.find('/') != std::string_view::npos || dot == std::string_view::npos || dot == 0)
      throw std::runtime_error(arg + " names no shared-memory table (/dev/shm/PREFIX.PATH)");
   return {segment, std::string(name.substr(0, dot)), Pond::decodeMountPath(name.substr(dot + 1))};
}

Location locateArgs(std::span<const std::string> rest) {
   std::string prefix = "mcastfib";
   while (!rest.empty() && rest[0].starts_with("-")) {
      if (rest[0] != "--prefix") throw UsageError("unknown option '" + rest[0] + "'");
      if (rest.size() < 2) throw UsageError("--prefix needs PREFIX");
      prefix = rest[1];
      rest = rest.subspan(2);
   }
   if (rest.empty()) throw UsageError("missing TABLE");
   expectArgs(rest, 1, 1);
   return locate(rest[0], prefix);
}

namespace {

// ---- finding and checking the segment -------------------------------------

std::string fixedText(const char* s, std::size_t n, const std::string& segment) {
   const std::size_t len = strnlen(s, n);
   if (len == n) throw std::runtime_error(segment + " is not a table: a name in its header is not terminated");
   return std::string(s, len);
}

// The shape that lays out what the header describes; throws unless the
// header is one a writer of this layout writes.
Pond::TableShape shapeOf(const Pond::Segment& s) {
   const std::string& name = s.name();
   auto notTable = [&](const std::string& why) { return std::runtime_error(name + " is not a table: " + why); };
   Pond::SegmentHeader h;
   Pond::copyFromShared(&h, s.base(), sizeof h);
   if (!Pond::magicOk(&h)) throw notTable("no table header");
   if (h.layoutVersion != Pond::kLayoutVersion)
      throw notTable("layout version " + std::to_string(h.layoutVersion) + ", this tool reads " +
                     std::to_string(Pond::kLayoutVersion));
   if (h.collectionCount < 1 || h.collectionCount > Pond::kMaxCollections) throw notTable("bad collection count");
   Pond::TableShape shape;
   shape.typeName = fixedText(h.typeName, sizeof h.typeName, name);
   for (uint32_t i = 0; i < h.collectionCount; ++i) {
      const Pond::CollectionHeader& c = h.collections[i];
      shape.collections.push_back({fixedText(c.name, sizeof c.name, name),
                                   fixedText(c.recordType, sizeof c.recordType, name), c.recordSize, c.keySize,
                                   c.capacity, c.queueLength});
   }
   std::string why;
   try {
      why = Pond::layoutMismatch(Pond::layoutFor(shape), h);
   } catch (const std::invalid_argument& e) {
      why = e.what();
   }
   if (!why.empty()) throw notTable(why);
   if (s.size() < h.segmentSize) throw notTable("shorter than its layout");
   return shape;
}

// ---- records --------------------------------------------------------------

// A record type of this build: its codec, and its rules to check bytes by
// before they are read as the type.
struct Known {
   const char* name;
   std::size_t size;
   Pond::CollectionCodec codec;
   bool (*valid)(const void* record);
   void (*defaults)(void* out); // a default-constructed record's bytes
};

template <class R>
bool validRecord(const void* bytes) {
   R r;
   std::memcpy(static_cast<void*>(&r), bytes, sizeof r);
   return Gant::validValue(r);
}

template <class R>
void defaultRecord(void* out) {
   const R r{};
   std::memcpy(out, static_cast<const void*>(&r), sizeof r);
}

template <class R>
constexpr Known known() {
   return {R::gantTypeName, sizeof(R), Pond::Record<R>::codec(), &validRecord<R>, &defaultRecord<R>};
}

const Known* knownType(const Pond::CollectionShape& c) {
   using namespace Pond::Multicast::Fib;
   static const Known list[] = {known<Route>(), known<OifIndexIntf>(), known<DfProfile>(), known<BidirGroup>(),
                                known<Routing::Multicast::Fib::Counter>()};
   for (const Known& k : list)
      if (c.recordType == k.name && c.recordSize == k.size) return &k;
   return nullptr;
}

std::string hex(const unsigned char* p, std::size_t n) {
   static const char digits[] = "0123456789abcdef";
   std::string out = "0x";
   for (std::size_t i = 0; i < n; ++i) out += digits[p[i] >> 4], out += digits[p[i] & 15];
   return out;
}

// One collection as the tool shows it.
class Shown {
 public:
   explicit Shown(const Pond::CollectionShape& shape)
       : shape_(shape), known_(knownType(shape)),
         info_(known_ ? Gant::TypeRegistry::find(shape.recordType) : nullptr), scratch_(shape.recordSize / 8 + 1) {
      if (!info_) return;
      keyAttr_ = info_->attr("key") ? info_->attr("key") : &info_->attrs[0];
      known_->defaults(scratch_.data());
      for (const Gant::AttrInfo& a : info_->attrs) defaults_.push_back(a.get(scratch_.data()).text());
   }

   const Pond::CollectionShape& shape() const { return shape_; }
   Pond::CollectionCodec codec() const { return known_ ? known_->codec : Pond::CollectionCodec{}; }

   // The key as printed: a route key in its pretty text.
   std::string keyText(const unsigned char* key) {
      if (!info_) return hex(key, shape_.keySize);
      if (known_->codec.validKey && !known_->codec.validKey(key)) return "damaged key " + hex(key, shape_.keySize);
      std::fill(scratch_.begin(), scratch_.end(), 0);
      std::memcpy(scratch_.data(), key, shape_.keySize);
      const Gant::GenericValue v = keyAttr_->get(scratch_.data());
      if (std::string_view(keyAttr_->typeName) == "Routing::Multicast::Fib::IpGenRouteKey") {
         const auto k = v.as<Routing::Multicast::Fib::IpGenRouteKey>();
         if (Routing::Multicast::Fib::checkedKind(k)) return k.pretty();
      }
      return v.text();
   }
   // The record's other attributes in their text form, those at their
   // default left out.
   std::string recordText(const unsigned char* record) {
      if (!info_) return hex(record, shape_.recordSize);
      if (!known_->valid(record)) return "damaged record " + hex(record, shape_.recordSize);
      std::memcpy(scratch_.data(), record, shape_.recordSize);
      std::string out = "{";
      for (std::size_t i = 0; i < info_->attrs.size(); ++i) {
         const Gant::AttrInfo& a = info_->attrs[i];
         const std::string text = a.get(scratch_.data()).text();
         if (&a == keyAttr_ || text == defaults_[i]) continue;
         if (out.size() > 1) out += ", ";
         out += "'" + std::string(a.name) + "': " + text;
      }
      return out + "}";
   }

 private:
   Pond::CollectionShape shape_;
   const Known* known_;
   const Gant::TypeInfo* info_;
   const Gant::AttrInfo* keyAttr_ = nullptr;
   std::vector<std::string> defaults_; // per attribute, its default's text
   std::vector<uint64_t> scratch_; // a record's bytes, aligned for reading as its type
};

// ---- the writer -----------------------------------------------------------

bool alive(pid_t pid) {
   if (pid <= 0) return false;
   const Sys::Result r = Sys::calls().kill(pid, 0);
   return r.ok() || r.err == EPERM;
}

struct WriterState {
   pid_t pid;
   uint32_t generation;
   uint64_t incarnation;
};

WriterState writerOf(const Pond::Segment& s) {
   const auto* h = static_cast<const Pond::SegmentHeader*>(s.base());
   const uint32_t* inc = reinterpret_cast<const uint32_t*>(&h->incarnation);
   return {static_cast<pid_t>(Pond::loadAcquire(h->writerPid)), Pond::loadAcquire(h->generation),
           uint64_t(Pond::loadAcquire(inc[1])) << 32 | Pond::loadAcquire(inc[0])};
}

// ---- following the table ----------------------------------------------------

class Follower : public Pond::TableHandler {
 public:
   explicit Follower(std::vector<Shown>& shown) : shown_(shown) {}

   void onChange(std::size_t c, const void* key) override {
      // Before ready, the mount's first pass: the dump shows those.
      if (!ready) return;
      const auto* k = static_cast<const unsigned char*>(key);
      changed.emplace_back(c, std::string(k, k + shown_[c].shape().keySize));
   }
   void onReady() override { ready = true; }
   void onWriterGone() override { writerGone = true; }
   void onStuck(const std::string& what) override { notes.push_back("stuck: " + what); }
   void onCorrupt(const std::string& what) override {
      if (!ready) failure = what;
      else notes.push_back("corrupt: " + what);
   }
   void onRefused(const std::string& why) override { notes.push_back("refused: " + why); }

   bool ready = false;
   bool writerGone = false;
   std::string failure;
   std::vector<std::pair<std::size_t, std::string>> changed;
   std::vector<std::string> notes;

 private:
   std::vector<Shown>& shown_;
};

// What the tool last showed of each key, and where it found it.
struct Seen {
   uint32_t slot;
   std::string record;
};

class Table {
 public:
   Table(const Location& at, const Pond::Segment& segment, const Pond::TableShape& shape, std::ostream& out)
       : at_(at), segment_(segment), shape_(shape), out_(out) {
      std::vector<Pond::CollectionCodec> codecs;
      for (const auto& c : shape.collections) {
         shown_.emplace_back(c);
         codecs.push_back(shown_.back().codec());
      }
      seen_.resize(shape.collections.size());
      Pond::Options options;
      options.prefix = at.prefix;
      options.writerUid = segment.owner(); // reading is all the tool does
      reader_ = std::make_unique<Pond::TableReader>(at.mountPath, shape, codecs, loop_, follower_, options);
      signals_ = loop_.watchReadable(signalFd(), [] {});
   }

   // Mounts the table and prints what it holds.
   void dump() {
      // A damaged slot is reported before the mount is ready too: only a
      // report that the mount does not follow within a moment refuses it.
      double reportedAt = 0;
      loop_.runUntil(
          [&] {
             if (!follower_.failure.empty() && reportedAt == 0) reportedAt = loop_.now();
             return follower_.ready || stopping(out_) || (reportedAt != 0 && loop_.now() - reportedAt > 0.3);
          },
          5);
      checkStop(out_);
      if (!follower_.ready) {
         throw std::runtime_error("cannot read " + at_.segment + ": " +
                                  (follower_.failure.empty() ? "it did not mount within 5 s" : follower_.failure));
      }
      follower_.notes.clear(); // the dump lists damaged slots itself
      const WriterState w = writerOf(segment_);
      char incarnation[24];
      std::snprintf(incarnation, sizeof incarnation, "%016llx", static_cast<unsigned long long>(w.incarnation));
      out_ << "table " << at_.mountPath << " of type " << shape_.typeName << "\n"
           << "segment " << at_.segment << " (" << segment_.size() << " bytes)\n"
           << "writer pid " << w.pid << (alive(w.pid) ? " alive" : " gone") << ", generation " << w.generation
           << ", incarnation " << incarnation << "\n";
      for (std::size_t c = 0; c < shown_.size(); ++c) dumpCollection(c);
      printNotes();
      checkStop(out_);
   }

   // Prints each change until the writer goes; a signal ends it as Stopped.
   void watch() {
      const pid_t pid = writerOf(segment_).pid;
      while (!follower_.writerGone && alive(pid)) {
         checkStop(out_);
         loop_.runOnce(0.5);
         for (const auto& [c, key] : std::exchange(follower_.changed, {})) showChange(c, key);
         printNotes();
      }
      checkStop(out_);
      out_ << "writer pid " << pid << " gone\n";
   }

 private:
   void dumpCollection(std::size_t c) {
      Shown& s = shown_[c];
      const Pond::CollectionShape& shape = s.shape();
      const Pond::CollectionReader& r = reader_->collection(c);
      std::vector<unsigned char> record(shape.recordSize);
      std::vector<std::pair<std::string, std::string>> lines;
      std::vector<std::string> bad;
      for (uint32_t i = 0; i < shape.capacity; ++i) {
         const Pond::ReadStatus st = r.readSlot(i, record.data());
         if (st == Pond::ReadStatus::found) {
            seen_[c][std::string(record.begin(), record.begin() + shape.keySize)] = {
                i, std::string(record.begin(), record.end())};
            lines.emplace_back(s.keyText(record.data()), s.recordText(record.data()));
         } else if (st != Pond::ReadStatus::absent) {
            bad.push_back("  slot " + std::to_string(i) + ": " + Pond::readStatusName(st) + "\n");
         }
      }
      std::sort(lines.begin(), lines.end());
      out_ << shape.name << ": " << lines.size() << (lines.size() == 1 ? " record of " : " records of ") << shape.recordType << " (capacity "
           << shape.capacity << ")\n";
      for (const auto& [key, text] : lines) out_ << "  " << key << " " << text << "\n";
      for (const std::string& b : bad) out_ << b;
   }

   // Where the key's record is now: its last slot, else wherever it moved.
   bool find(std::size_t c, const std::string& key, uint32_t& slot, std::vector<unsigned char>& record) {
      const Pond::CollectionReader& r = reader_->collection(c);
      const std::size_t keySize = shown_[c].shape().keySize;
      auto holds = [&](uint32_t i) {
         return r.readSlot(i, record.data()) == Pond::ReadStatus::found &&
                std::memcmp(record.data(), key.data(), keySize) == 0;
      };
      if (auto it = seen_[c].find(key); it != seen_[c].end() && holds(it->second.slot)) {
         slot = it->second.slot;
         return true;
      }
      for (uint32_t i = 0; i < shown_[c].shape().capacity; ++i)
         if (holds(i)) return slot = i, true;
      return false;
   }

   // Only what differs from what was shown: a key is delivered again after
   // a resynchronisation, and a notified record is unchanged.
   void showChange(std::size_t c, const std::string& key) {
      Shown& s = shown_[c];
      std::vector<unsigned char> record(s.shape().recordSize);
      uint32_t slot = 0;
      const bool present = find(c, key, slot, record);
      auto it = seen_[c].find(key);
      const std::string name = s.shape().name;
      const auto* keyBytes = reinterpret_cast<const unsigned char*>(key.data());
      if (!present) {
         if (it == seen_[c].end()) return;
         seen_[c].erase(it);
         out_ << name << " removed " << s.keyText(keyBytes) << "\n";
         return;
      }
      std::string bytes(record.begin(), record.end());
      if (it != seen_[c].end() && it->second.record == bytes) return;
      out_ << name << (it == seen_[c].end() ? " added " : " changed ") << s.keyText(record.data()) << " "
           << s.recordText(record.data()) << "\n";
      seen_[c][key] = {slot, std::move(bytes)};
   }

   void printNotes() {
      for (const std::string& n : std::exchange(follower_.notes, {})) out_ << n << "\n";
   }

   const Location& at_;
   const Pond::Segment& segment_;
   const Pond::TableShape& shape_;
   std::ostream& out_;
   std::vector<Shown> shown_;
   std::vector<std::map<std::string, Seen>> seen_;
   Loop::EpollLoop loop_;
   Follower follower_{shown_};
   std::unique_ptr<Pond::TableReader> reader_;
   Loop::Watch signals_;
};

} // namespace

int tableCommand(std::span<const std::string> args, std::ostream& out) {
   expectArgs(args, 1, 4);
   const std::string& action = args[0];
   if (action != "dump" && action != "watch") throw UsageError("unknown table action '" + action + "'");
   const Location at = locateArgs(args.subspan(1));
   Pond::Segment segment;
   try {
      segment = Pond::Segment::openForReader(at.segment, sizeof(Pond::SegmentHeader));
   } catch (const Gant::ErrnoError& e) {
      throw std::runtime_error("cannot open " + at.segment + ": " + e.call() + ": " + std::strerror(e.errorNo()));
   } catch (const std::runtime_error&) {
      throw std::runtime_error(at.segment + " is not a table: shorter than a table's header");
   }
   const Pond::TableShape shape = shapeOf(segment);
   Table table(at, segment, shape, out);
   table.dump();
   if (action == "watch") table.watch();
   return 0;
}

} // namespace Tool
