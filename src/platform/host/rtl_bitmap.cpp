// RTL_BITMAP routines. The driver marks its change bitmap on every write, so everything
// here works a 32-bit word at a time: a run of bits is a masked first word, whole words in
// the middle and a masked last word.
#include <algorithm>
#include <cstring>

#include <wdm.h>

#include "kvhost/verifier.h"

namespace {

constexpr ULONG kNotFound = 0xFFFFFFFF;
constexpr ULONG kAllOnes = 0xFFFFFFFF;

// Bits [lo, hi) of a word, 0 <= lo < hi <= 32.
inline ULONG RangeMask(unsigned lo, unsigned hi) {
  ULONG upper = hi == 32 ? kAllOnes : ((1U << hi) - 1);
  return upper & ~((1U << lo) - 1);
}

inline bool RangeInside(const RTL_BITMAP* bitmap, ULONG start, ULONG count) {
  return static_cast<unsigned long long>(start) + count <= bitmap->SizeOfBitMap;
}

// Writing past the end of the buffer corrupts whatever follows it in pool; Windows does
// not check (the driver must), so the host kernel does it for it.
bool CheckRange(const RTL_BITMAP* bitmap, ULONG start, ULONG count, const char* routine) {
  if (RangeInside(bitmap, start, count)) return true;
  kvhost::ReportViolationF("BitmapOutOfRange", "%s of bits %u..%llu on a bitmap of %u bits (buffer %p)", routine,
                           start, static_cast<unsigned long long>(start) + count - 1, bitmap->SizeOfBitMap,
                           static_cast<void*>(bitmap->Buffer));
  return false;
}

bool CheckBit(const RTL_BITMAP* bitmap, ULONG bit, const char* routine) {
  if (bit < bitmap->SizeOfBitMap) return true;
  kvhost::ReportViolationF("BitmapOutOfRange", "%s of bit %u on a bitmap of %u bits (buffer %p)", routine, bit,
                           bitmap->SizeOfBitMap, static_cast<void*>(bitmap->Buffer));
  return false;
}

// Sets or clears `count` bits from `start`; the range is inside the bitmap.
void FillRange(PULONG buffer, ULONG start, ULONG count, bool value) {
  if (count == 0) return;
  ULONG last = start + (count - 1);
  ULONG firstWord = start / 32;
  ULONG lastWord = last / 32;
  auto apply = [value](ULONG& word, ULONG mask) { word = value ? (word | mask) : (word & ~mask); };
  if (firstWord == lastWord) {
    apply(buffer[firstWord], RangeMask(start % 32, last % 32 + 1));
    return;
  }
  apply(buffer[firstWord], RangeMask(start % 32, 32));
  if (lastWord > firstWord + 1)
    std::memset(buffer + firstWord + 1, value ? 0xFF : 0x00, (lastWord - firstWord - 1) * sizeof(ULONG));
  apply(buffer[lastWord], RangeMask(0, last % 32 + 1));
}

// True when every one of `count` (> 0) bits from `start` equals `value`.
bool RangeIs(const ULONG* buffer, ULONG start, ULONG count, bool value) {
  ULONG last = start + (count - 1);
  ULONG firstWord = start / 32;
  ULONG lastWord = last / 32;
  auto matches = [value](ULONG word, ULONG mask) { return (word & mask) == (value ? mask : 0); };
  if (firstWord == lastWord) return matches(buffer[firstWord], RangeMask(start % 32, last % 32 + 1));
  if (!matches(buffer[firstWord], RangeMask(start % 32, 32))) return false;
  ULONG whole = value ? kAllOnes : 0;
  for (ULONG w = firstWord + 1; w < lastWord; ++w)
    if (buffer[w] != whole) return false;
  return matches(buffer[lastWord], RangeMask(0, last % 32 + 1));
}

// The first index in [from, limit) whose bit equals `value`, or `limit`.
ULONG FindNext(const ULONG* buffer, ULONG from, ULONG limit, bool value) {
  if (from >= limit) return limit;
  ULONG w = from / 32;
  ULONG lastWord = (limit - 1) / 32;
  ULONG flip = value ? 0 : kAllOnes;
  ULONG word = (buffer[w] ^ flip) & (kAllOnes << (from % 32));
  while (word == 0) {
    if (w == lastWord) return limit;
    ++w;
    word = buffer[w] ^ flip;
  }
  unsigned long long index = static_cast<unsigned long long>(w) * 32 + __builtin_ctz(word);
  return index < limit ? static_cast<ULONG>(index) : limit;
}

// The next run of `value` bits at or after `from`: its length (0 when there is none) and
// its start (the bitmap's size when there is none, `from` when `from` is past the end).
ULONG NextRun(const RTL_BITMAP* bitmap, ULONG from, bool value, ULONG* runStart) {
  ULONG size = bitmap->SizeOfBitMap;
  if (from >= size) {
    *runStart = from;
    return 0;
  }
  ULONG start = FindNext(bitmap->Buffer, from, size, value);
  *runStart = start;
  if (start >= size) return 0;
  return FindNext(bitmap->Buffer, start, size, !value) - start;
}

// The first index in [from, startLimit) that begins `count` consecutive bits of `value`.
ULONG FindRunStartingBetween(const RTL_BITMAP* bitmap, ULONG count, ULONG from, ULONG startLimit, bool value) {
  ULONG size = bitmap->SizeOfBitMap;
  while (from < startLimit) {
    ULONG start = FindNext(bitmap->Buffer, from, startLimit, value);
    if (start >= startLimit) break;
    ULONG wanted = static_cast<ULONG>(std::min<unsigned long long>(static_cast<unsigned long long>(start) + count, size));
    ULONG end = FindNext(bitmap->Buffer, start, wanted, !value);
    if (end - start >= count) return start;
    if (end >= size) break;
    from = end;
  }
  return kNotFound;
}

ULONG FindBits(const RTL_BITMAP* bitmap, ULONG count, ULONG hint, bool value) {
  ULONG size = bitmap->SizeOfBitMap;
  if (count > size) return kNotFound;
  if (hint >= size) hint = 0;
  if (count == 0) return hint & ~7U;
  ULONG found = FindRunStartingBetween(bitmap, count, hint, size, value);
  if (found == kNotFound && hint != 0) found = FindRunStartingBetween(bitmap, count, 0, hint, value);
  return found;
}

ULONG CountSetBits(const RTL_BITMAP* bitmap) {
  ULONG size = bitmap->SizeOfBitMap;
  ULONG wholeWords = size / 32;
  ULONG total = 0;
  for (ULONG w = 0; w < wholeWords; ++w) total += __builtin_popcount(bitmap->Buffer[w]);
  if (size % 32 != 0) total += __builtin_popcount(bitmap->Buffer[wholeWords] & RangeMask(0, size % 32));
  return total;
}

}  // namespace

extern "C" {

VOID RtlInitializeBitMap(PRTL_BITMAP BitMapHeader, PULONG BitMapBuffer, ULONG SizeOfBitMap) {
  BitMapHeader->SizeOfBitMap = SizeOfBitMap;
  BitMapHeader->Buffer = BitMapBuffer;
}

VOID RtlSetBit(PRTL_BITMAP BitMapHeader, ULONG BitNumber) {
  if (CheckBit(BitMapHeader, BitNumber, "RtlSetBit")) BitMapHeader->Buffer[BitNumber / 32] |= 1U << (BitNumber % 32);
}

VOID RtlClearBit(PRTL_BITMAP BitMapHeader, ULONG BitNumber) {
  if (CheckBit(BitMapHeader, BitNumber, "RtlClearBit"))
    BitMapHeader->Buffer[BitNumber / 32] &= ~(1U << (BitNumber % 32));
}

BOOLEAN RtlTestBit(PRTL_BITMAP BitMapHeader, ULONG BitNumber) {
  if (!CheckBit(BitMapHeader, BitNumber, "RtlTestBit")) return FALSE;
  return static_cast<BOOLEAN>((BitMapHeader->Buffer[BitNumber / 32] >> (BitNumber % 32)) & 1);
}

// Whole words are filled, bits past the end of the last word's range included.
VOID RtlSetAllBits(PRTL_BITMAP BitMapHeader) {
  if (BitMapHeader->SizeOfBitMap == 0) return;
  std::memset(BitMapHeader->Buffer, 0xFF, (static_cast<size_t>(BitMapHeader->SizeOfBitMap) + 31) / 32 * sizeof(ULONG));
}

VOID RtlClearAllBits(PRTL_BITMAP BitMapHeader) {
  if (BitMapHeader->SizeOfBitMap == 0) return;
  std::memset(BitMapHeader->Buffer, 0, (static_cast<size_t>(BitMapHeader->SizeOfBitMap) + 31) / 32 * sizeof(ULONG));
}

VOID RtlSetBits(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG NumberToSet) {
  if (CheckRange(BitMapHeader, StartingIndex, NumberToSet, "RtlSetBits"))
    FillRange(BitMapHeader->Buffer, StartingIndex, NumberToSet, true);
}

VOID RtlClearBits(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG NumberToClear) {
  if (CheckRange(BitMapHeader, StartingIndex, NumberToClear, "RtlClearBits"))
    FillRange(BitMapHeader->Buffer, StartingIndex, NumberToClear, false);
}

BOOLEAN RtlAreBitsSet(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG Length) {
  if (Length == 0 || !RangeInside(BitMapHeader, StartingIndex, Length)) return FALSE;
  return RangeIs(BitMapHeader->Buffer, StartingIndex, Length, true);
}

BOOLEAN RtlAreBitsClear(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG Length) {
  if (Length == 0 || !RangeInside(BitMapHeader, StartingIndex, Length)) return FALSE;
  return RangeIs(BitMapHeader->Buffer, StartingIndex, Length, false);
}

ULONG RtlNumberOfSetBits(PRTL_BITMAP BitMapHeader) { return CountSetBits(BitMapHeader); }

ULONG RtlNumberOfClearBits(PRTL_BITMAP BitMapHeader) {
  return BitMapHeader->SizeOfBitMap - CountSetBits(BitMapHeader);
}

ULONG RtlFindClearBits(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex) {
  return FindBits(BitMapHeader, NumberToFind, HintIndex, false);
}

ULONG RtlFindSetBits(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex) {
  return FindBits(BitMapHeader, NumberToFind, HintIndex, true);
}

ULONG RtlFindClearBitsAndSet(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex) {
  ULONG index = FindBits(BitMapHeader, NumberToFind, HintIndex, false);
  if (index != kNotFound) FillRange(BitMapHeader->Buffer, index, NumberToFind, true);
  return index;
}

ULONG RtlFindSetBitsAndClear(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex) {
  ULONG index = FindBits(BitMapHeader, NumberToFind, HintIndex, true);
  if (index != kNotFound) FillRange(BitMapHeader->Buffer, index, NumberToFind, false);
  return index;
}

ULONG RtlFindNextForwardRunClear(PRTL_BITMAP BitMapHeader, ULONG FromIndex, PULONG StartingRunIndex) {
  return NextRun(BitMapHeader, FromIndex, false, StartingRunIndex);
}

ULONG RtlFindNextForwardRunSet(PRTL_BITMAP BitMapHeader, ULONG FromIndex, PULONG StartingRunIndex) {
  return NextRun(BitMapHeader, FromIndex, true, StartingRunIndex);
}

ULONG RtlFindFirstRunClear(PRTL_BITMAP BitMapHeader, PULONG StartingIndex) {
  return NextRun(BitMapHeader, 0, false, StartingIndex);
}

ULONG RtlFindLongestRunClear(PRTL_BITMAP BitMapHeader, PULONG StartingIndex) {
  ULONG bestStart = 0;
  ULONG bestLength = 0;
  ULONG from = 0;
  ULONG start = 0;
  while (ULONG length = NextRun(BitMapHeader, from, false, &start)) {
    if (length > bestLength) {
      bestLength = length;
      bestStart = start;
    }
    from = start + length;
  }
  *StartingIndex = bestStart;
  return bestLength;
}

ULONG RtlFindClearRuns(PRTL_BITMAP BitMapHeader, PRTL_BITMAP_RUN RunArray, ULONG SizeOfRunArray,
                       BOOLEAN LocateLongestRuns) {
  if (SizeOfRunArray == 0) return 0;
  ULONG stored = 0;
  ULONG from = 0;
  ULONG start = 0;
  while (ULONG length = NextRun(BitMapHeader, from, false, &start)) {
    from = start + length;
    if (stored < SizeOfRunArray) {
      RunArray[stored++] = {start, length};
      if (!LocateLongestRuns && stored == SizeOfRunArray) break;
      continue;
    }
    // Keep the longest: replace the shortest kept run (the latest of equals) when longer.
    PRTL_BITMAP_RUN shortest = RunArray;
    for (ULONG i = 1; i < stored; ++i)
      if (RunArray[i].NumberOfBits <= shortest->NumberOfBits) shortest = &RunArray[i];
    if (length > shortest->NumberOfBits) *shortest = {start, length};
  }
  if (LocateLongestRuns)
    std::sort(RunArray, RunArray + stored, [](const RTL_BITMAP_RUN& a, const RTL_BITMAP_RUN& b) {
      return a.NumberOfBits != b.NumberOfBits ? a.NumberOfBits > b.NumberOfBits : a.StartingIndex < b.StartingIndex;
    });
  return stored;
}

}  // extern "C"
