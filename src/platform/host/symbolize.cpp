// Code addresses to names: dl_iterate_phdr finds the module and its load bias, addr2line
// reads its debug information.
#include "kvhost/symbolize.h"

#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

namespace kvhost {
namespace {

struct ModuleHit {
  const void* Address;
  std::string Path;
  unsigned long long Offset = 0;  // address as the module's file sees it
  bool Found = false;
};

// The main program has an empty module name; addr2line runs in another process, so the
// path is resolved here.
std::string MainProgramPath() {
  char path[4096];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "/proc/self/exe";
  path[length] = '\0';
  return path;
}

int FindModule(dl_phdr_info* info, size_t, void* data) {
  auto* hit = static_cast<ModuleHit*>(data);
  auto address = reinterpret_cast<ElfW(Addr)>(hit->Address);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD) continue;
    ElfW(Addr) start = info->dlpi_addr + segment.p_vaddr;
    if (address < start || address >= start + segment.p_memsz) continue;
    hit->Path = (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0') ? info->dlpi_name : MainProgramPath();
    hit->Offset = address - info->dlpi_addr;
    hit->Found = true;
    return 1;
  }
  return 0;
}

std::string RunAddr2Line(const std::string& module, unsigned long long offset) {
  char command[4200];
  std::snprintf(command, sizeof command, "addr2line -f -C -e '%s' 0x%llx 2>/dev/null", module.c_str(), offset);
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return {};
  char function[2048] = "";
  char location[2048] = "";
  if (std::fgets(function, sizeof function, pipe) == nullptr) function[0] = '\0';
  if (std::fgets(location, sizeof location, pipe) == nullptr) location[0] = '\0';
  pclose(pipe);
  function[std::strcspn(function, "\n")] = '\0';
  location[std::strcspn(location, "\n")] = '\0';
  if (function[0] == '\0' || std::strcmp(function, "??") == 0) return {};
  std::string out = function;
  // Keep the file's own name: full build paths only make messages longer.
  const char* file = std::strrchr(location, '/');
  file = file != nullptr ? file + 1 : location;
  if (file[0] != '\0' && std::strncmp(file, "??", 2) != 0) {
    // addr2line may append " (discriminator N)".
    std::string where = file;
    size_t cut = where.find(" (discriminator");
    if (cut != std::string::npos) where.resize(cut);
    out += " (" + where + ")";
  }
  return out;
}

std::string Describe(const void* address, bool isReturnAddress) {
  if (address == nullptr) return "(null)";
  static std::mutex* lock = new std::mutex;
  static auto* cache = new std::map<std::pair<const void*, bool>, std::string>;
  std::lock_guard<std::mutex> guard(*lock);
  auto key = std::make_pair(address, isReturnAddress);
  auto it = cache->find(key);
  if (it != cache->end()) return it->second;

  // A return address points after the call; one byte back lies inside the call itself,
  // which is the line that made it.
  const void* probe = isReturnAddress ? static_cast<const char*>(address) - 1 : address;
  ModuleHit hit{probe};
  dl_iterate_phdr(FindModule, &hit);
  std::string name;
  if (hit.Found) {
    name = RunAddr2Line(hit.Path, hit.Offset);
    if (name.empty()) {
      char text[600];
      const char* base = std::strrchr(hit.Path.c_str(), '/');
      std::snprintf(text, sizeof text, "%s+0x%llx", base != nullptr ? base + 1 : hit.Path.c_str(), hit.Offset);
      name = text;
    }
  } else {
    char text[40];
    std::snprintf(text, sizeof text, "%p", address);
    name = text;
  }
  cache->emplace(key, name);
  return name;
}

}  // namespace

std::string DescribeCodeAddress(const void* address) { return Describe(address, true); }

std::string DescribeRoutine(const void* routine) { return Describe(routine, false); }

}  // namespace kvhost
