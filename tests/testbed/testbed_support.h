// What the testbed's tests share: volume configurations, data patterns, and views of what the
// test filter saw.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kvhost/object.h"
#include "kvtestbed/machine.h"
#include "kvtestbed/test_filter.h"

namespace kvtestbed::testing {

inline VolumeConfig LetteredVolume(char16_t letter, uint64_t bytes = 64ull << 20) {
  VolumeConfig c;
  c.Name = std::string(1, static_cast<char>(letter)) + ":";
  c.DriveLetter = letter;
  c.SizeBytes = bytes;
  return c;
}

inline std::vector<uint8_t> Pattern(size_t bytes, uint8_t seed) {
  std::vector<uint8_t> data(bytes);
  for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 9));
  return data;
}

// What the test filter saw on one volume device ("\Device\HarddiskVolume1"), as "What" or
// "What Detail" strings, in order.
inline std::vector<std::string> SeenOn(const std::vector<TestFilterEvent>& events, const std::string& device,
                                       bool withDetail = false) {
  std::vector<std::string> out;
  for (const TestFilterEvent& e : events)
    if (e.Device == device) out.push_back(withDetail && !e.Detail.empty() ? e.What + " " + e.Detail : e.What);
  return out;
}

inline size_t CountSeen(const std::vector<TestFilterEvent>& events, const std::string& what) {
  size_t n = 0;
  for (const TestFilterEvent& e : events) n += e.What == what;
  return n;
}

}  // namespace kvtestbed::testing
