// kvcbt-inspect's commands: reading their arguments and files, and saying what they hold.
#include "inspect.h"

#include <cstdint>
#include <fstream>
#include <optional>
#include <span>

#include "bitmap_view.h"
#include "byte_sizes.h"

namespace kvinspect {
namespace {

constexpr const char* kUsage =
    "usage: kvcbt-inspect bitmap <file> --bytes-per-bit <N> [--bit-count <N>] [--map] [--picture <file.png>] [--json]\n"
    "  Decodes a change bitmap copied out of the driver (IOCTL_KVCBT_GET_VOLUME_BITMAP, or saved by\n"
    "  kvcbt-sim's bitmap step) into the changed ranges of the volume, in byte offsets.\n"
    "  --bytes-per-bit N  bytes of volume per bit: BytesPerBit of the tracking-information query\n"
    "  --bit-count N      blocks the bitmap covers: its BitCount (default: every bit of the file)\n"
    "  --map              also a compact map of the bitmap\n"
    "  --picture F        also a PNG picture of it, one pixel a block\n"
    "  --json             the geometry and the ranges as JSON\n";

constexpr uint64_t kMaxFileBytes = 1ull << 30;  // a bitmap of 8 billion blocks is not a bitmap

Output Usage(const std::string& problem) {
  return {"", problem.empty() ? kUsage : "kvcbt-inspect: " + problem + "\n" + kUsage, 2};
}

std::optional<uint64_t> ParseCount(const std::string& text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return value;
}

struct BitmapArguments {
  std::string File;
  uint64_t BytesPerBit = 0;
  std::optional<uint64_t> BitCount;
  bool Map = false;
  bool Json = false;
  std::string Picture;
};

std::string ParseBitmapArguments(const std::vector<std::string>& a, BitmapArguments* out) {
  for (size_t i = 1; i < a.size(); ++i) {
    const std::string& arg = a[i];
    // The value of an option that takes one: the next argument.
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= a.size()) return std::nullopt;
      return a[++i];
    };
    if (arg == "--bytes-per-bit" || arg == "--bit-count") {
      const std::optional<std::string> text = value();
      if (!text) return arg + " needs a number";
      const std::optional<uint64_t> number = ParseCount(*text);
      if (!number || *number == 0) return "bad " + arg + " '" + *text + "' (a positive whole number)";
      if (arg == "--bytes-per-bit")
        out->BytesPerBit = *number;
      else
        out->BitCount = *number;
    } else if (arg == "--picture") {
      const std::optional<std::string> text = value();
      if (!text || text->empty()) return "--picture needs a file name";
      out->Picture = *text;
    } else if (arg == "--map") {
      out->Map = true;
    } else if (arg == "--json") {
      out->Json = true;
    } else if (!arg.empty() && arg[0] == '-') {
      return "unknown option '" + arg + "'";
    } else if (out->File.empty()) {
      out->File = arg;
    } else {
      return "one bitmap file at a time ('" + arg + "' is one too many)";
    }
  }
  if (out->File.empty()) return "bitmap needs the file to decode";
  if (out->BytesPerBit == 0) return "bitmap needs --bytes-per-bit: a bitmap alone does not say how much a bit is";
  return "";
}

std::string JsonGeometryAndRanges(const std::string& file, const kvtools::BitmapGeometry& geometry,
                                  const std::vector<kvtools::ChangedRange>& ranges, uint64_t changed) {
  std::string out = "{\"file\":\"";
  for (char c : file) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) >= 0x20) out += c;
  }
  out += "\",\"bitCount\":" + std::to_string(geometry.BitCount) +
         ",\"bytesPerBit\":" + std::to_string(geometry.BytesPerBit) + ",\"changedBlocks\":" + std::to_string(changed) +
         ",\"ranges\":[";
  for (size_t i = 0; i < ranges.size(); ++i)
    out += std::string(i ? "," : "") + "{\"offset\":" + std::to_string(ranges[i].Offset) +
           ",\"length\":" + std::to_string(ranges[i].Length) + "}";
  return out + "]}\n";
}

Output InspectBitmap(const std::vector<std::string>& arguments) {
  BitmapArguments a;
  const std::string problem = ParseBitmapArguments(arguments, &a);
  if (!problem.empty()) return Usage(problem);

  std::ifstream in(a.File, std::ios::binary | std::ios::ate);
  if (!in) return {"", "kvcbt-inspect: cannot read " + a.File + "\n", 1};
  const std::streamoff size = in.tellg();
  if (size <= 0) return {"", "kvcbt-inspect: " + a.File + " is empty: a bitmap has at least one byte\n", 1};
  if (static_cast<uint64_t>(size) > kMaxFileBytes)
    return {"", "kvcbt-inspect: " + a.File + " is larger than any bitmap the driver hands out\n", 1};
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  in.seekg(0);
  in.read(reinterpret_cast<char*>(bytes.data()), size);
  if (!in) return {"", "kvcbt-inspect: cannot read " + a.File + "\n", 1};

  const uint64_t fileBits = static_cast<uint64_t>(bytes.size()) * 8;
  const uint64_t bitCount = a.BitCount.value_or(fileBits);
  if (bitCount > fileBits || (bitCount + 7) / 8 != bytes.size())
    return {"", "kvcbt-inspect: " + a.File + " holds " + std::to_string(bytes.size()) + " bytes, but " +
                    std::to_string(bitCount) + " blocks take " + std::to_string((bitCount + 7) / 8) +
                    ": not a bitmap of that geometry\n",
            1};
  const kvtools::BitmapGeometry geometry{bitCount, a.BytesPerBit};
  const std::span<const uint8_t> bitmap(bytes);
  const std::vector<kvtools::ChangedRange> ranges = kvtools::ChangedRanges(bitmap, geometry);
  const uint64_t changed = kvtools::CountChangedBlocks(bitmap, geometry);

  Output output;
  // The driver never sets a bit past the last block: one set there means the geometry given
  // is not the bitmap's.
  for (uint64_t bit = bitCount; bit < fileBits; ++bit)
    if (kvtools::IsBitSet(bitmap, bit)) {
      output.Err = "kvcbt-inspect: bits past block " + std::to_string(bitCount - 1) +
                   " are set: is --bit-count the bitmap's?\n";
      output.Status = 1;
      break;
    }
  if (!a.Picture.empty()) {
    const std::string error = kvtools::WriteBitmapPicture(a.Picture, bitmap, geometry);
    if (!error.empty()) return {"", "kvcbt-inspect: " + error + "\n", 1};
  }
  if (a.Json) {
    output.Out = JsonGeometryAndRanges(a.File, geometry, ranges, changed);
    return output;
  }
  output.Out = "bitmap   " + a.File + ": " + std::to_string(bitCount) + " blocks of " +
               kvtools::DescribeSize(geometry.BytesPerBit) + " (" +
               kvtools::DescribeSize(bitCount * geometry.BytesPerBit) + " of volume)\n";
  output.Out += "changed  " + std::to_string(changed) + (changed == 1 ? " block, " : " blocks, ") +
                kvtools::DescribeSize(changed * geometry.BytesPerBit) + " in " + std::to_string(ranges.size()) +
                (ranges.size() == 1 ? " range\n" : " ranges\n");
  for (const kvtools::ChangedRange& range : ranges) output.Out += "  " + kvtools::DescribeRange(range) + "\n";
  if (a.Map)
    for (const std::string& line : kvtools::TextMap(bitmap, geometry)) output.Out += line + "\n";
  if (!a.Picture.empty()) output.Out += "picture  " + a.Picture + "\n";
  return output;
}

}  // namespace

Output Inspect(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return Usage("");
  if (arguments[0] == "-h" || arguments[0] == "--help") return {kUsage, "", 0};
  if (arguments[0] == "bitmap") return InspectBitmap(arguments);
  return Usage("unknown command '" + arguments[0] + "'");
}

}  // namespace kvinspect
