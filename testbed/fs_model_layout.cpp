// The model file system on disk.
//
// Sector 0 holds the boot record:
//   0  "KVMODEL1"           8  u32 version (1)       12 u32 bytes per cluster
//   16 u64 total clusters   24 u64 catalogue copy 0   32 u64 catalogue copy 1 (LCNs)
//   40 u32 clusters per copy 44 u32 serial number     48 i64 creation time
//   56 u32 CRC-32 of bytes 0 to 55
// Each catalogue copy starts with a 32-byte header ("KVCATLG1", u64 sequence, u32 payload
// bytes, u32 CRC-32 of the payload, 8 bytes zero) followed by the payload: u64 next file id,
// the label, u32 node count and the nodes (id, parent, name, directory flag, attributes, four
// times, end of file, valid data length, compression, security descriptor, runs). Integers
// are little-endian; strings and byte arrays carry a u32 count first.
#include <array>
#include <cstring>

#include "fs_model_internal.h"

namespace kvtestbed::model {
namespace {

constexpr char kBootMagic[8] = {'K', 'V', 'M', 'O', 'D', 'E', 'L', '1'};
constexpr char kCatalogueMagic[8] = {'K', 'V', 'C', 'A', 'T', 'L', 'G', '1'};
constexpr ULONG kVersion = 1;
constexpr size_t kBootRecordBytes = 60;
constexpr size_t kCatalogueHeaderBytes = 32;

uint32_t Crc32(const uint8_t* data, size_t length) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < length; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

class Writer {
 public:
  template <typename T>
  void Put(T value) {
    const size_t at = bytes_.size();
    bytes_.resize(at + sizeof value);
    std::memcpy(bytes_.data() + at, &value, sizeof value);
  }
  void PutText(const std::u16string& text) {
    Put<uint32_t>(static_cast<uint32_t>(text.size()));
    for (char16_t c : text) Put<uint16_t>(c);
  }
  void PutBytes(const std::vector<uint8_t>& data) {
    Put<uint32_t>(static_cast<uint32_t>(data.size()));
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  }
  std::vector<uint8_t>& Bytes() { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// Reads with bounds checks; any read past the end marks the whole decode failed.
class Reader {
 public:
  Reader(const uint8_t* data, size_t length) : data_(data), length_(length) {}
  template <typename T>
  T Get() {
    T value{};
    if (length_ - at_ < sizeof value) {
      failed_ = true;
      return value;
    }
    std::memcpy(&value, data_ + at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  std::u16string GetText() {
    const uint32_t count = Get<uint32_t>();
    if (failed_ || (length_ - at_) / 2 < count) return Fail<std::u16string>();
    std::u16string text(count, u'\0');
    for (auto& c : text) c = Get<uint16_t>();
    return text;
  }
  std::vector<uint8_t> GetBytes() {
    const uint32_t count = Get<uint32_t>();
    if (failed_ || length_ - at_ < count) return Fail<std::vector<uint8_t>>();
    std::vector<uint8_t> data(data_ + at_, data_ + at_ + count);
    at_ += count;
    return data;
  }
  bool Failed() const { return failed_; }

 private:
  template <typename T>
  T Fail() {
    failed_ = true;
    return T();
  }
  const uint8_t* data_;
  size_t length_;
  size_t at_ = 0;
  bool failed_ = false;
};

std::vector<uint8_t> EncodeCatalogue(const Catalogue& catalogue) {
  Writer w;
  w.Put<uint64_t>(catalogue.NextId);
  w.PutText(catalogue.Label);
  w.Put<uint32_t>(static_cast<uint32_t>(catalogue.Nodes.size()));
  for (const auto& [id, node] : catalogue.Nodes) {
    w.Put<uint64_t>(node.Id);
    w.Put<uint64_t>(node.Parent);
    w.PutText(node.Name);
    w.Put<uint8_t>(node.Directory ? 1 : 0);
    w.Put<uint32_t>(node.Attributes);
    for (LONGLONG time : {node.CreationTime, node.LastAccessTime, node.LastWriteTime, node.ChangeTime})
      w.Put<int64_t>(time);
    w.Put<uint64_t>(node.EndOfFile);
    w.Put<uint64_t>(node.ValidDataLength);
    w.Put<uint16_t>(node.Compression);
    w.PutBytes(node.Security);
    w.Put<uint32_t>(static_cast<uint32_t>(node.Runs.size()));
    for (const Run& run : node.Runs) {
      w.Put<int64_t>(run.Lcn);
      w.Put<int64_t>(run.Clusters);
    }
  }
  return std::move(w.Bytes());
}

bool DecodeCatalogue(const uint8_t* data, size_t length, Catalogue* catalogue) {
  Reader r(data, length);
  catalogue->NextId = r.Get<uint64_t>();
  catalogue->Label = r.GetText();
  const uint32_t count = r.Get<uint32_t>();
  for (uint32_t i = 0; i < count && !r.Failed(); ++i) {
    Node node;
    node.Id = r.Get<uint64_t>();
    node.Parent = r.Get<uint64_t>();
    node.Name = r.GetText();
    node.Directory = r.Get<uint8_t>() != 0;
    node.Attributes = r.Get<uint32_t>();
    node.CreationTime = r.Get<int64_t>();
    node.LastAccessTime = r.Get<int64_t>();
    node.LastWriteTime = r.Get<int64_t>();
    node.ChangeTime = r.Get<int64_t>();
    node.EndOfFile = r.Get<uint64_t>();
    node.ValidDataLength = r.Get<uint64_t>();
    node.Compression = r.Get<uint16_t>();
    node.Security = r.GetBytes();
    const uint32_t runs = r.Get<uint32_t>();
    for (uint32_t k = 0; k < runs && !r.Failed(); ++k) {
      Run run;
      run.Lcn = r.Get<int64_t>();
      run.Clusters = r.Get<int64_t>();
      node.Runs.push_back(run);
    }
    catalogue->Nodes[node.Id] = std::move(node);
  }
  return !r.Failed() && catalogue->Nodes.count(kRootId) != 0;
}

uint64_t RoundUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

}  // namespace

NTSTATUS ReadBytes(VolumeIo& io, uint64_t offset, void* buffer, size_t length) {
  if (length == 0) return STATUS_SUCCESS;
  const ULONG sector = io.SectorSize();
  const uint64_t start = offset / sector * sector;
  const uint64_t end = RoundUp(offset + length, sector);
  if (start == offset && end == offset + length) return io.Read(offset, buffer, length);
  std::vector<uint8_t> bounce(end - start);
  NTSTATUS status = io.Read(start, bounce.data(), bounce.size());
  if (NT_SUCCESS(status)) std::memcpy(buffer, bounce.data() + (offset - start), length);
  return status;
}

NTSTATUS WriteBytes(VolumeIo& io, uint64_t offset, const void* buffer, size_t length) {
  if (length == 0) return STATUS_SUCCESS;
  const ULONG sector = io.SectorSize();
  const uint64_t start = offset / sector * sector;
  const uint64_t end = RoundUp(offset + length, sector);
  if (start == offset && end == offset + length) return io.Write(offset, buffer, length);
  // The sectors at the edges keep the bytes around the range.
  std::vector<uint8_t> bounce(end - start);
  NTSTATUS status = io.Read(start, bounce.data(), sector);
  if (NT_SUCCESS(status) && end - start > sector) status = io.Read(end - sector, bounce.data() + bounce.size() - sector, sector);
  if (!NT_SUCCESS(status)) return status;
  std::memcpy(bounce.data() + (offset - start), buffer, length);
  return io.Write(start, bounce.data(), bounce.size());
}

NTSTATUS ReadGeometry(VolumeIo& io, Geometry* geometry) {
  std::vector<uint8_t> sector(io.SectorSize());
  NTSTATUS status = io.Read(0, sector.data(), sector.size());
  if (!NT_SUCCESS(status)) return status;
  uint32_t crc;
  std::memcpy(&crc, sector.data() + 56, sizeof crc);
  ULONG version;
  std::memcpy(&version, sector.data() + 8, sizeof version);
  if (std::memcmp(sector.data(), kBootMagic, sizeof kBootMagic) != 0 || version != kVersion ||
      crc != Crc32(sector.data(), 56))
    return STATUS_UNRECOGNIZED_VOLUME;
  Geometry g;
  std::memcpy(&g.BytesPerCluster, sector.data() + 12, 4);
  std::memcpy(&g.TotalClusters, sector.data() + 16, 8);
  std::memcpy(&g.CatalogueLcn[0], sector.data() + 24, 8);
  std::memcpy(&g.CatalogueLcn[1], sector.data() + 32, 8);
  std::memcpy(&g.CatalogueClusters, sector.data() + 40, 4);
  std::memcpy(&g.SerialNumber, sector.data() + 44, 4);
  std::memcpy(&g.CreationTime, sector.data() + 48, 8);
  const bool sane = g.BytesPerCluster != 0 && g.BytesPerCluster % io.SectorSize() == 0 &&
                    (g.BytesPerCluster & (g.BytesPerCluster - 1)) == 0 && g.CatalogueClusters != 0 &&
                    g.CatalogueLcn[0] + g.CatalogueClusters <= g.TotalClusters &&
                    g.CatalogueLcn[1] + g.CatalogueClusters <= g.TotalClusters;
  if (!sane) return STATUS_FILE_CORRUPT_ERROR;
  *geometry = g;
  return STATUS_SUCCESS;
}

NTSTATUS WriteGeometry(VolumeIo& io, const Geometry& geometry) {
  static_assert(kBootRecordBytes == 60, "the boot record ends with its CRC at 56");
  std::vector<uint8_t> sector(io.SectorSize(), 0);
  std::memcpy(sector.data(), kBootMagic, sizeof kBootMagic);
  std::memcpy(sector.data() + 8, &kVersion, 4);
  std::memcpy(sector.data() + 12, &geometry.BytesPerCluster, 4);
  std::memcpy(sector.data() + 16, &geometry.TotalClusters, 8);
  std::memcpy(sector.data() + 24, &geometry.CatalogueLcn[0], 8);
  std::memcpy(sector.data() + 32, &geometry.CatalogueLcn[1], 8);
  std::memcpy(sector.data() + 40, &geometry.CatalogueClusters, 4);
  std::memcpy(sector.data() + 44, &geometry.SerialNumber, 4);
  std::memcpy(sector.data() + 48, &geometry.CreationTime, 8);
  const uint32_t crc = Crc32(sector.data(), 56);
  std::memcpy(sector.data() + 56, &crc, 4);
  return io.Write(0, sector.data(), sector.size());
}

NTSTATUS ReadCatalogue(VolumeIo& io, const Geometry& geometry, Catalogue* catalogue) {
  const size_t room = size_t(geometry.CatalogueClusters) * geometry.BytesPerCluster;
  std::optional<Catalogue> newest;
  NTSTATUS failure = STATUS_FILE_CORRUPT_ERROR;
  for (uint64_t lcn : geometry.CatalogueLcn) {
    std::vector<uint8_t> copy(room);
    NTSTATUS status = io.Read(lcn * geometry.BytesPerCluster, copy.data(), copy.size());
    if (!NT_SUCCESS(status)) {
      failure = status;
      continue;
    }
    uint64_t sequence;
    uint32_t payload, crc;
    std::memcpy(&sequence, copy.data() + 8, 8);
    std::memcpy(&payload, copy.data() + 16, 4);
    std::memcpy(&crc, copy.data() + 20, 4);
    if (std::memcmp(copy.data(), kCatalogueMagic, sizeof kCatalogueMagic) != 0 ||
        payload > room - kCatalogueHeaderBytes || crc != Crc32(copy.data() + kCatalogueHeaderBytes, payload))
      continue;
    Catalogue decoded;
    if (!DecodeCatalogue(copy.data() + kCatalogueHeaderBytes, payload, &decoded)) continue;
    decoded.Sequence = sequence;
    if (!newest || decoded.Sequence > newest->Sequence) newest = std::move(decoded);
  }
  if (!newest) return failure;
  *catalogue = std::move(*newest);
  return STATUS_SUCCESS;
}

NTSTATUS WriteCatalogue(VolumeIo& io, const Geometry& geometry, const Catalogue& catalogue) {
  const std::vector<uint8_t> payload = EncodeCatalogue(catalogue);
  const size_t room = size_t(geometry.CatalogueClusters) * geometry.BytesPerCluster;
  if (payload.size() > room - kCatalogueHeaderBytes) return STATUS_DISK_FULL;
  std::vector<uint8_t> copy(RoundUp(kCatalogueHeaderBytes + payload.size(), io.SectorSize()), 0);
  std::memcpy(copy.data(), kCatalogueMagic, sizeof kCatalogueMagic);
  std::memcpy(copy.data() + 8, &catalogue.Sequence, 8);
  const uint32_t payloadBytes = static_cast<uint32_t>(payload.size());
  const uint32_t crc = Crc32(payload.data(), payload.size());
  std::memcpy(copy.data() + 16, &payloadBytes, 4);
  std::memcpy(copy.data() + 20, &crc, 4);
  std::memcpy(copy.data() + kCatalogueHeaderBytes, payload.data(), payload.size());
  const uint64_t lcn = geometry.CatalogueLcn[catalogue.Sequence % 2];
  return io.Write(lcn * geometry.BytesPerCluster, copy.data(), copy.size());
}

}  // namespace kvtestbed::model
