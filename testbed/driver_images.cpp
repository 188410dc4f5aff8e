// The registry of driver images by service name, with the testbed's own test filter in it.
#include "kvtestbed/driver_images.h"

#include <map>
#include <mutex>

#include "kvhost/strings.h"
#include "kvtestbed/test_filter.h"

namespace kvtestbed {
namespace {

struct Image {
  std::u16string Name;
  PDRIVER_INITIALIZE Entry;
};

struct Images {
  std::mutex Lock;
  // Keyed by the upper-case name: service names compare without regard to case.
  std::map<std::u16string, Image> ByName{
      {kvhost::UpcaseText(kTestFilterService), {kTestFilterService, PassThroughFilterDriverEntry}}};
};

Images& Table() {
  static Images* images = new Images;
  return *images;
}

}  // namespace

void RegisterDriverImage(std::u16string_view serviceName, PDRIVER_INITIALIZE entry) {
  Images& t = Table();
  std::lock_guard<std::mutex> guard(t.Lock);
  t.ByName[kvhost::UpcaseText(serviceName)] = Image{std::u16string(serviceName), entry};
}

PDRIVER_INITIALIZE FindDriverImage(std::u16string_view serviceName) {
  Images& t = Table();
  std::lock_guard<std::mutex> guard(t.Lock);
  auto it = t.ByName.find(kvhost::UpcaseText(serviceName));
  return it == t.ByName.end() ? nullptr : it->second.Entry;
}

std::vector<std::u16string> DriverImageNames() {
  Images& t = Table();
  std::lock_guard<std::mutex> guard(t.Lock);
  std::vector<std::u16string> names;
  for (const auto& [key, image] : t.ByName) names.push_back(image.Name);
  return names;
}

}  // namespace kvtestbed
