#pragma once
// Included at the end of the generated bitmapper/BitMapper.h.

namespace BitMapper {

inline bool BitIndex::isNull() const noexcept { return value() == null().value(); }
inline bool BitIndex::isValid() const noexcept { return value() != invalid().value(); }

inline uint32_t BitMapperKey::gantHash() const { return Gant::hashCombine(intfId_.hash(), ipGenAddr_.hash()); }

} // namespace BitMapper
