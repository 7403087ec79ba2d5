#include "flashlog/Ring.h"

#include "flashlog/Handle.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace Flashlog {

namespace {

// Slots are plain bytes, so that two threads writing the same slot, or a
// snapshot taken while one writes, can garble a line but never crash. A
// slot's `written` is its line number + 1 once complete, 0 while being
// written; a snapshot keeps only lines whose number it finds before and
// after copying.
struct Slot {
   std::atomic<uint32_t> written{0};
   const Handle* handle = nullptr;
   int8_t level = 0;
   uint8_t length = 0;
   char text[ringTextBytes];
};
static_assert(ringTextBytes <= UINT8_MAX);

// In zero-initialised storage: a process that never traces never touches it.
Slot slots[ringLines];
// Numbers lines; 2^32 is a multiple of ringLines, so wrapping keeps the
// slot order.
std::atomic<uint32_t> nextLine{0};
std::atomic<uint32_t> firstKept{0};

} // namespace

void ringAppend(const Handle& handle, int level, std::string_view text) noexcept {
   uint32_t number = nextLine.fetch_add(1, std::memory_order_relaxed);
   Slot& slot = slots[number % ringLines];
   // Ordered by the release store below; no fence, which ThreadSanitizer
   // cannot model. Two threads tracing at once may garble a line, no more.
   slot.written.store(0, std::memory_order_release);
   slot.handle = &handle;
   slot.level = static_cast<int8_t>(level);
   std::size_t length = std::min(text.size(), ringTextBytes);
   std::memcpy(slot.text, text.data(), length);
   slot.length = static_cast<uint8_t>(length);
   slot.written.store(number + 1, std::memory_order_release);
}

std::vector<Line> ring() {
   uint32_t end = nextLine.load(std::memory_order_acquire);
   uint32_t held = std::min<uint32_t>(end - firstKept.load(std::memory_order_relaxed),
                                      static_cast<uint32_t>(ringLines));
   std::vector<Line> lines;
   lines.reserve(held);
   for (uint32_t number = end - held; number != end; ++number) {
      const Slot& slot = slots[number % ringLines];
      if (slot.written.load(std::memory_order_acquire) != number + 1) continue;
      Line line{slot.handle->name(), slot.level,
                std::string(slot.text, std::min<std::size_t>(slot.length, ringTextBytes))};
      if (slot.written.load(std::memory_order_acquire) != number + 1) continue;
      lines.push_back(std::move(line));
   }
   return lines;
}

void clearRing() {
   firstKept.store(nextLine.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

} // namespace Flashlog
