// Seeded mutations of valid byte records: bit flips, inserted and deleted
// bytes, truncation, and 32-bit count fields set to the values that break
// parsers (0, odd, off by one, huge, negative). The same case number always
// gives the same mutant, so a failing case is reproduced alone.
#pragma once

#include <windows.h>

#include <cstring>
#include <random>
#include <vector>

#include "TestStreams.h"

namespace xktest {

// A valid record and the offsets of its 32-bit counts.
struct Seed {
  Bytes bytes;
  std::vector<size_t> counts;
};

inline Seed Cat(Seed first, const Seed& second) {
  for (size_t count : second.counts) first.counts.push_back(first.bytes.size() + count);
  first.bytes = Concat(first.bytes, second.bytes);
  return first;
}

inline ULONG CountValue(std::mt19937& rng, ULONG original) {
  const ULONG values[] = {0,
                          1,
                          2,
                          3,
                          original - 1,
                          original + 1,
                          original + 2,
                          original | 1,
                          0x7FFFFFFF,
                          0x80000000,
                          0xFFFFFFFF,
                          0xFFFFFFFE,
                          0x00010000,
                          rng() | 1,
                          rng()};
  return values[rng() % (sizeof values / sizeof values[0])];
}

// Case 0 is the seed itself; the others apply one to three mutations.
inline Bytes Mutant(const Seed& seed, unsigned caseNumber) {
  std::mt19937 rng(caseNumber);
  Bytes bytes = seed.bytes;
  const unsigned mutations = caseNumber == 0 ? 0 : 1 + rng() % 3;
  for (unsigned m = 0; m < mutations; ++m) {
    const size_t at = bytes.empty() ? 0 : rng() % bytes.size();
    switch (rng() % 6) {
      case 0:
        if (!bytes.empty()) bytes[at] ^= static_cast<unsigned char>(1u << rng() % 8);
        break;
      case 1:
        bytes.insert(bytes.begin() + at, static_cast<unsigned char>(rng()));
        break;
      case 2:
        if (!bytes.empty()) bytes.erase(bytes.begin() + at);
        break;
      case 3:
        bytes.resize(at);
        break;
      default:  // counts are the likeliest to matter, so twice as often
        if (seed.counts.empty()) break;
        const size_t field = seed.counts[rng() % seed.counts.size()];
        if (field + 4 > bytes.size()) break;
        ULONG count;
        std::memcpy(&count, &bytes[field], 4);
        count = CountValue(rng, count);
        std::memcpy(&bytes[field], &count, 4);
    }
  }
  return bytes;
}

}  // namespace xktest
