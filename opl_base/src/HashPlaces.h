// Places of open addressing in memory that the caller has: no more places than twice as many as there will be
// entries at most, so that finding one takes a step or two.
#ifndef OPL_BASE_HASH_PLACES_H
#define OPL_BASE_HASH_PLACES_H

#include <bit>
#include <cstdint>

namespace opl {

// The places are two to this power, for one entry at least.
constexpr uint32_t HashBitsFor(uint32_t most) { return static_cast<uint32_t>(std::bit_width(2 * most - 1)); }

// The place that holds the key's entry, or a free one for it. Multiplied by the golden ratio, neighbours and
// multiples of any number fall apart.
template <typename Place, typename HasKey>
Place& FindPlace(Place* places, uint32_t bits, const Place& free, uint32_t key, HasKey hasKey) {
  const uint32_t lastPlace = (1U << bits) - 1;
  uint32_t place = (key * 0x9E3779B9U) >> (32 - bits);
  while (places[place] != free && !hasKey(places[place])) place = (place + 1) & lastPlace;
  return places[place];
}

}  // namespace opl

#endif
