// The model file system: directories and files with their metadata in the catalogue and
// their data at their clusters (see kvtestbed/fs_model.h).
#include <algorithm>
#include <cstring>

#include "file_system_internal.h"
#include "fs_model_internal.h"
#include "kvhost/strings.h"

namespace kvtestbed {

using model::Node;
using model::Run;

struct ModelFileSystem::State {
  VolumeIo* Io = nullptr;
  model::Geometry Geometry;
  model::Catalogue Catalogue;
  model::ClusterMap Clusters;
};

namespace {

// Data is moved through memory at most this many bytes at a time.
constexpr size_t kCopyChunk = 1 << 20;
constexpr size_t kMaximumComponent = 255;

LONGLONG Now() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.QuadPart;
}

uint64_t ClustersFor(uint64_t bytes, ULONG bytesPerCluster) { return (bytes + bytesPerCluster - 1) / bytesPerCluster; }

std::vector<std::u16string> SplitPath(const std::u16string& path) {
  std::vector<std::u16string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find(u'\\', start);
    if (end == std::u16string::npos) end = path.size();
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

bool ValidName(const std::u16string& name) {
  if (name.empty() || name.size() > kMaximumComponent || name == u"." || name == u"..") return false;
  for (char16_t c : name)
    if (c < 0x20 || std::u16string_view(u"\"*/:<>?\\|").find(c) != std::u16string_view::npos) return false;
  return true;
}

bool SameName(const std::u16string& a, const std::u16string& b, bool caseSensitive) {
  return caseSensitive ? a == b : kvhost::EqualNoCase(a, b);
}

Node* Child(ModelFileSystem::State& s, FileId parent, const std::u16string& name, bool caseSensitive) {
  for (auto& [id, node] : s.Catalogue.Nodes)
    if (node.Parent == parent && id != model::kRootId && SameName(node.Name, name, caseSensitive)) return &node;
  return nullptr;
}

bool HasChildren(ModelFileSystem::State& s, FileId id) {
  for (const auto& [childId, node] : s.Catalogue.Nodes)
    if (node.Parent == id && childId != model::kRootId) return true;
  return false;
}

struct Lookup {
  Node* Parent = nullptr;  // the directory the last component is looked up in
  Node* Leaf = nullptr;    // the file or directory itself, when there
  std::u16string LeafName;
};

// STATUS_OBJECT_PATH_NOT_FOUND when a directory on the way is missing (or is a file),
// STATUS_OBJECT_NAME_INVALID for a name no file can have.
NTSTATUS Resolve(ModelFileSystem::State& s, const std::u16string& path, bool caseSensitive, Lookup* out) {
  const std::vector<std::u16string> parts = SplitPath(path);
  Node* current = &s.Catalogue.Nodes.at(model::kRootId);
  if (parts.empty()) {
    out->Leaf = current;
    return STATUS_SUCCESS;
  }
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    if (!ValidName(parts[i])) return STATUS_OBJECT_NAME_INVALID;
    current = Child(s, current->Id, parts[i], caseSensitive);
    if (current == nullptr || !current->Directory) return STATUS_OBJECT_PATH_NOT_FOUND;
  }
  if (!ValidName(parts.back())) return STATUS_OBJECT_NAME_INVALID;
  out->Parent = current;
  out->LeafName = parts.back();
  out->Leaf = Child(s, current->Id, parts.back(), caseSensitive);
  return STATUS_SUCCESS;
}

Node* NodeOf(ModelFileSystem::State& s, FileId id) {
  auto it = s.Catalogue.Nodes.find(id);
  return it == s.Catalogue.Nodes.end() ? nullptr : &it->second;
}

Node* NodeAt(ModelFileSystem::State& s, const std::u16string& path) {
  Lookup lookup;
  return NT_SUCCESS(Resolve(s, path, false, &lookup)) ? lookup.Leaf : nullptr;
}

// Records the catalogue on disk; on failure memory keeps the change and the disk keeps
// the previous catalogue, as after a failed metadata write of a real file system.
NTSTATUS Persist(ModelFileSystem::State& s) {
  s.Catalogue.Sequence++;
  NTSTATUS status = model::WriteCatalogue(*s.Io, s.Geometry, s.Catalogue);
  if (!NT_SUCCESS(status)) s.Catalogue.Sequence--;
  return status;
}

// The volume byte offset of `offset` in the file, and how many bytes follow it in the
// same run.
bool MapOffset(const ModelFileSystem::State& s, const Node& node, uint64_t offset, uint64_t* disk, uint64_t* contiguous) {
  const uint64_t bpc = s.Geometry.BytesPerCluster;
  uint64_t runStart = 0;
  for (const Run& run : node.Runs) {
    const uint64_t runBytes = uint64_t(run.Clusters) * bpc;
    if (offset < runStart + runBytes) {
      *disk = uint64_t(run.Lcn) * bpc + (offset - runStart);
      *contiguous = runStart + runBytes - offset;
      return true;
    }
    runStart += runBytes;
  }
  return false;
}

// Moves file bytes between memory and their clusters; the range must be allocated.
NTSTATUS TransferData(ModelFileSystem::State& s, const Node& node, uint64_t offset, uint8_t* data, uint64_t length,
                      bool write) {
  while (length != 0) {
    uint64_t disk = 0, contiguous = 0;
    if (!MapOffset(s, node, offset, &disk, &contiguous)) return STATUS_FILE_CORRUPT_ERROR;
    const uint64_t piece = std::min({length, contiguous, uint64_t(kCopyChunk)});
    NTSTATUS status = write ? model::WriteBytes(*s.Io, disk, data, piece) : model::ReadBytes(*s.Io, disk, data, piece);
    if (!NT_SUCCESS(status)) return status;
    offset += piece;
    data += piece;
    length -= piece;
  }
  return STATUS_SUCCESS;
}

NTSTATUS WriteZeros(ModelFileSystem::State& s, const Node& node, uint64_t from, uint64_t to) {
  std::vector<uint8_t> zeros(std::min<uint64_t>(to - from, kCopyChunk), 0);
  for (uint64_t at = from; at < to; at += zeros.size()) {
    NTSTATUS status = TransferData(s, node, at, zeros.data(), std::min<uint64_t>(zeros.size(), to - at), true);
    if (!NT_SUCCESS(status)) return status;
  }
  return STATUS_SUCCESS;
}

// Gives the file at least `clusters` clusters.
NTSTATUS Grow(ModelFileSystem::State& s, Node& node, uint64_t clusters, unsigned pieces) {
  const uint64_t have = node.AllocatedClusters();
  if (clusters <= have) return STATUS_SUCCESS;
  std::optional<int64_t> after;
  if (!node.Runs.empty()) after = node.Runs.back().Lcn + node.Runs.back().Clusters;
  auto added = s.Clusters.Allocate(clusters - have, pieces, after);
  if (!added) return STATUS_DISK_FULL;
  model::AppendRuns(node.Runs, *added);
  return STATUS_SUCCESS;
}

// Keeps the file's first `clusters` clusters and frees the rest.
void Shrink(ModelFileSystem::State& s, Node& node, uint64_t clusters) {
  uint64_t kept = 0;
  std::vector<Run> runs;
  for (const Run& run : node.Runs) {
    const uint64_t keep = std::min<uint64_t>(run.Clusters, clusters - std::min(clusters, kept));
    if (keep != 0) runs.push_back({run.Lcn, static_cast<int64_t>(keep)});
    if (keep < uint64_t(run.Clusters)) s.Clusters.Mark(run.Lcn + keep, run.Clusters - keep, false);
    kept += run.Clusters;
  }
  node.Runs = std::move(runs);
}

// Copies the file's data from its runs to `target` runs of the same size (a defragmenter's
// move) and makes them the file's.
NTSTATUS Relocate(ModelFileSystem::State& s, Node& node, std::vector<Run> target) {
  Node moved = node;
  moved.Runs = target;
  const uint64_t bytes = node.AllocatedClusters() * s.Geometry.BytesPerCluster;
  std::vector<uint8_t> chunk(std::min<uint64_t>(bytes, kCopyChunk));
  for (uint64_t at = 0; at < bytes; at += chunk.size()) {
    const uint64_t piece = std::min<uint64_t>(chunk.size(), bytes - at);
    NTSTATUS status = TransferData(s, node, at, chunk.data(), piece, false);
    if (NT_SUCCESS(status)) status = TransferData(s, moved, at, chunk.data(), piece, true);
    if (!NT_SUCCESS(status)) {
      s.Clusters.MarkRuns(target, false);
      return status;
    }
  }
  const std::vector<Run> old = node.Runs;
  node.Runs = std::move(target);
  NTSTATUS status = Persist(s);
  if (!NT_SUCCESS(status)) {
    node.Runs = old;
    s.Clusters.MarkRuns(moved.Runs, false);
    return status;
  }
  s.Clusters.MarkRuns(old, false);
  return STATUS_SUCCESS;
}

FileInfo InfoOf(const ModelFileSystem::State& s, const Node& node) {
  FileInfo info;
  info.Id = node.Id;
  info.Directory = node.Directory;
  info.Attributes = node.Attributes != 0 ? node.Attributes : FILE_ATTRIBUTE_NORMAL;
  info.CreationTime = node.CreationTime;
  info.LastAccessTime = node.LastAccessTime;
  info.LastWriteTime = node.LastWriteTime;
  info.ChangeTime = node.ChangeTime;
  info.EndOfFile = node.EndOfFile;
  info.ValidDataLength = node.ValidDataLength;
  info.AllocationSize = node.AllocatedClusters() * s.Geometry.BytesPerCluster;
  info.CompressionFormat = node.Compression;
  return info;
}

// The attributes a file keeps: settable ones, FILE_ATTRIBUTE_NORMAL being none.
ULONG StoredAttributes(ULONG requested, bool directory) {
  ULONG attributes = requested & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
  return directory ? attributes | FILE_ATTRIBUTE_DIRECTORY : attributes | FILE_ATTRIBUTE_ARCHIVE;
}

}  // namespace

ModelFileSystem::ModelFileSystem() = default;
ModelFileSystem::~ModelFileSystem() = default;

NTSTATUS FormatModelVolume(VolumeIo& volume, const ModelFormat& format) {
  const ULONG bpc = format.BytesPerCluster;
  if (bpc == 0 || (bpc & (bpc - 1)) != 0 || bpc % volume.SectorSize() != 0 || format.CatalogueClusters == 0)
    return STATUS_INVALID_PARAMETER;
  model::Geometry geometry;
  geometry.BytesPerCluster = bpc;
  geometry.TotalClusters = format.VolumeBytes / bpc;
  geometry.CatalogueClusters = format.CatalogueClusters;
  geometry.CatalogueLcn[0] = 1;
  geometry.CatalogueLcn[1] = 1 + uint64_t(format.CatalogueClusters);
  geometry.SerialNumber = format.SerialNumber;
  geometry.CreationTime = Now();
  if (geometry.TotalClusters <= geometry.ReservedClusters()) return STATUS_INVALID_PARAMETER;

  model::Catalogue catalogue;
  catalogue.Label = format.Label;
  Node root;
  root.Id = model::kRootId;
  root.Directory = true;
  root.Attributes = FILE_ATTRIBUTE_DIRECTORY;
  root.CreationTime = root.LastAccessTime = root.LastWriteTime = root.ChangeTime = geometry.CreationTime;
  catalogue.Nodes[root.Id] = root;
  // The second copy is emptied so that nothing an earlier format left there counts.
  std::vector<uint8_t> zeros(size_t(format.CatalogueClusters) * bpc, 0);
  NTSTATUS status = volume.Write(geometry.CatalogueLcn[0] * bpc, zeros.data(), zeros.size());
  if (NT_SUCCESS(status)) status = volume.Write(geometry.CatalogueLcn[1] * bpc, zeros.data(), zeros.size());
  catalogue.Sequence = 1;
  if (NT_SUCCESS(status)) status = model::WriteCatalogue(volume, geometry, catalogue);
  if (NT_SUCCESS(status)) status = model::WriteGeometry(volume, geometry);
  return status;
}

NTSTATUS FormatModelVolume(PDEVICE_OBJECT volume, const ModelFormat& format) {
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(volume);
  NTSTATUS status;
  {
    fs::StackVolumeIo io(top);
    status = FormatModelVolume(io, format);
  }
  ObDereferenceObject(top);
  return status;
}

NTSTATUS ModelFileSystem::Mount(VolumeIo& volume) {
  std::lock_guard<std::mutex> guard(lock_);
  auto state = std::make_unique<State>();
  state->Io = &volume;
  NTSTATUS status = model::ReadGeometry(volume, &state->Geometry);
  if (NT_SUCCESS(status)) status = model::ReadCatalogue(volume, state->Geometry, &state->Catalogue);
  if (!NT_SUCCESS(status)) return status;
  state->Clusters.Reset(state->Geometry.TotalClusters);
  state->Clusters.Mark(0, static_cast<int64_t>(state->Geometry.ReservedClusters()), true);
  for (const auto& [id, node] : state->Catalogue.Nodes) {
    for (const Run& run : node.Runs)
      if (!state->Clusters.IsFree(run.Lcn, run.Clusters)) return STATUS_FILE_CORRUPT_ERROR;
    state->Clusters.MarkRuns(node.Runs, true);
  }
  state_ = std::move(state);
  return STATUS_SUCCESS;
}

void ModelFileSystem::Dismount() {
  std::lock_guard<std::mutex> guard(lock_);
  state_.reset();  // everything is on disk already
}

void ModelFileSystem::Abandon() {
  std::lock_guard<std::mutex> guard(lock_);
  state_.reset();
}

VolumeInfo ModelFileSystem::QueryVolume() {
  std::lock_guard<std::mutex> guard(lock_);
  VolumeInfo info;
  info.FileSystemName = u"KVMODEL";
  info.FileSystemAttributes = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK | FILE_PERSISTENT_ACLS;
  if (!state_) return info;
  info.BytesPerSector = state_->Io->SectorSize();
  info.SectorsPerCluster = state_->Geometry.BytesPerCluster / info.BytesPerSector;
  info.TotalClusters = state_->Geometry.TotalClusters;
  info.FreeClusters = state_->Clusters.FreeCount();
  info.SerialNumber = state_->Geometry.SerialNumber;
  info.CreationTime = state_->Geometry.CreationTime;
  info.Label = state_->Catalogue.Label;
  return info;
}

NTSTATUS ModelFileSystem::Create(const CreateRequest& request, CreateResult* result) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!state_) return STATUS_VOLUME_DISMOUNTED;
  State& s = *state_;
  Lookup lookup;
  NTSTATUS status = Resolve(s, request.Path, request.CaseSensitive, &lookup);
  if (!NT_SUCCESS(status)) return status;
  const bool wantsDirectory = request.Options & FILE_DIRECTORY_FILE;
  const bool wantsFile = request.Options & FILE_NON_DIRECTORY_FILE;
  const ULONG disposition = request.Disposition;
  const uint64_t allocation = ClustersFor(request.AllocationSize, s.Geometry.BytesPerCluster);

  if (Node* node = lookup.Leaf) {
    if (disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    if (node->Directory && wantsFile) return STATUS_FILE_IS_A_DIRECTORY;
    if (!node->Directory && wantsDirectory) return STATUS_NOT_A_DIRECTORY;
    const bool replaces = disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
    if (replaces) {
      if (node->Directory) return STATUS_FILE_IS_A_DIRECTORY;
      // A read-only file is not replaced, nor a hidden or system one by a create that does
      // not ask for those attributes.
      const ULONG kept = node->Attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
      if ((node->Attributes & FILE_ATTRIBUTE_READONLY) || (kept & ~request.Attributes) != 0) return STATUS_ACCESS_DENIED;
    }
    if (request.AdmitExisting) {
      status = request.AdmitExisting(node->Id);
      if (!NT_SUCCESS(status)) return status;
    }
    result->Id = node->Id;
    result->Information = FILE_OPENED;
    if (!replaces) return STATUS_SUCCESS;
    if (node->Protected != 0) return STATUS_ACCESS_DENIED;
    const Node before = *node;
    Shrink(s, *node, 0);
    node->EndOfFile = node->ValidDataLength = 0;
    node->Attributes = disposition == FILE_SUPERSEDE ? StoredAttributes(request.Attributes, false)
                                                     : node->Attributes | StoredAttributes(request.Attributes, false);
    node->LastWriteTime = node->ChangeTime = Now();
    status = Grow(s, *node, allocation, fragmentPieces_);
    if (NT_SUCCESS(status)) status = Persist(s);
    if (!NT_SUCCESS(status)) {
      s.Clusters.MarkRuns(node->Runs, false);
      *node = before;
      s.Clusters.MarkRuns(node->Runs, true);
      return status;
    }
    result->Information = disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
    return STATUS_SUCCESS;
  }

  if (lookup.Parent == nullptr) return STATUS_OBJECT_NAME_INVALID;
  if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
  Node node;
  node.Id = s.Catalogue.NextId++;
  node.Parent = lookup.Parent->Id;
  node.Name = lookup.LeafName;
  node.Directory = wantsDirectory;
  node.Attributes = StoredAttributes(request.Attributes, wantsDirectory);
  node.CreationTime = node.LastAccessTime = node.LastWriteTime = node.ChangeTime = Now();
  node.Security = request.SecurityDescriptor;
  if (!wantsDirectory) {
    status = Grow(s, node, allocation, fragmentPieces_);
    if (!NT_SUCCESS(status)) return status;
  }
  const FileId id = node.Id;
  s.Catalogue.Nodes[id] = std::move(node);
  status = Persist(s);
  if (!NT_SUCCESS(status)) {
    s.Clusters.MarkRuns(s.Catalogue.Nodes[id].Runs, false);
    s.Catalogue.Nodes.erase(id);
    return status;
  }
  result->Id = id;
  result->Information = FILE_CREATED;
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::QueryInformation(FileId file, FileInfo* info) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  *info = InfoOf(*state_, *node);
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::Read(FileId file, uint64_t offset, void* buffer, ULONG length, ULONG* transferred) {
  std::lock_guard<std::mutex> guard(lock_);
  *transferred = 0;
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Directory) return STATUS_INVALID_DEVICE_REQUEST;
  if (offset >= node->EndOfFile) return STATUS_END_OF_FILE;
  const uint64_t length64 = std::min<uint64_t>(length, node->EndOfFile - offset);
  auto* out = static_cast<uint8_t*>(buffer);
  // Bytes past the valid data length were never written: they read as zeros.
  const uint64_t fromDisk = offset < node->ValidDataLength ? std::min(length64, node->ValidDataLength - offset) : 0;
  NTSTATUS status = TransferData(*state_, *node, offset, out, fromDisk, false);
  if (!NT_SUCCESS(status)) return status;
  std::memset(out + fromDisk, 0, length64 - fromDisk);
  node->LastAccessTime = Now();
  *transferred = static_cast<ULONG>(length64);
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::Write(FileId file, uint64_t offset, const void* buffer, ULONG length) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Directory) return STATUS_INVALID_DEVICE_REQUEST;
  State& s = *state_;
  const uint64_t end = offset + length;
  const uint64_t allocatedBefore = node->AllocatedClusters();
  NTSTATUS status = Grow(s, *node, ClustersFor(end, s.Geometry.BytesPerCluster), fragmentPieces_);
  if (!NT_SUCCESS(status)) return status;
  // A write past the valid data length makes the bytes before it zeros on disk.
  if (offset > node->ValidDataLength) status = WriteZeros(s, *node, node->ValidDataLength, offset);
  if (NT_SUCCESS(status))
    status = TransferData(s, *node, offset, static_cast<uint8_t*>(const_cast<void*>(buffer)), length, true);
  if (!NT_SUCCESS(status)) return status;
  const bool extended = end > node->EndOfFile || end > node->ValidDataLength ||
                        node->AllocatedClusters() != allocatedBefore;
  node->EndOfFile = std::max(node->EndOfFile, end);
  node->ValidDataLength = std::max(node->ValidDataLength, end);
  node->LastWriteTime = node->ChangeTime = Now();
  return extended ? Persist(s) : STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::SetBasicInformation(FileId file, const FILE_BASIC_INFORMATION& basic) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (basic.CreationTime.QuadPart != 0) node->CreationTime = basic.CreationTime.QuadPart;
  if (basic.LastAccessTime.QuadPart != 0) node->LastAccessTime = basic.LastAccessTime.QuadPart;
  if (basic.LastWriteTime.QuadPart != 0) node->LastWriteTime = basic.LastWriteTime.QuadPart;
  node->ChangeTime = basic.ChangeTime.QuadPart != 0 ? basic.ChangeTime.QuadPart : Now();
  if (basic.FileAttributes != 0) {
    if ((basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !node->Directory) return STATUS_INVALID_PARAMETER;
    node->Attributes = (basic.FileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL) |
                       (node->Directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
  }
  return Persist(*state_);
}

NTSTATUS ModelFileSystem::SetEndOfFile(FileId file, uint64_t endOfFile) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Directory) return STATUS_INVALID_PARAMETER;
  State& s = *state_;
  const uint64_t clusters = ClustersFor(endOfFile, s.Geometry.BytesPerCluster);
  if (endOfFile > node->EndOfFile) {
    NTSTATUS status = Grow(s, *node, clusters, fragmentPieces_);
    if (!NT_SUCCESS(status)) return status;
  } else {
    Shrink(s, *node, clusters);
    node->ValidDataLength = std::min(node->ValidDataLength, endOfFile);
  }
  node->EndOfFile = endOfFile;
  node->LastWriteTime = node->ChangeTime = Now();
  return Persist(s);
}

NTSTATUS ModelFileSystem::SetValidDataLength(FileId file, uint64_t validDataLength) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Directory || validDataLength < node->ValidDataLength || validDataLength > node->EndOfFile)
    return STATUS_INVALID_PARAMETER;
  node->ValidDataLength = validDataLength;
  return Persist(*state_);
}

NTSTATUS ModelFileSystem::SetAllocationSize(FileId file, uint64_t allocationSize) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Directory) return STATUS_INVALID_PARAMETER;
  State& s = *state_;
  const uint64_t clusters = ClustersFor(allocationSize, s.Geometry.BytesPerCluster);
  if (clusters >= node->AllocatedClusters()) {
    NTSTATUS status = Grow(s, *node, clusters, fragmentPieces_);
    if (!NT_SUCCESS(status)) return status;
  } else {
    Shrink(s, *node, clusters);
    node->EndOfFile = std::min(node->EndOfFile, allocationSize);
    node->ValidDataLength = std::min(node->ValidDataLength, node->EndOfFile);
  }
  return Persist(s);
}

NTSTATUS ModelFileSystem::SetCompression(FileId file, USHORT format) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  // The model keeps every file uncompressed, so that its clusters hold its bytes.
  if (format == COMPRESSION_FORMAT_DEFAULT || format == COMPRESSION_FORMAT_LZNT1) return STATUS_INVALID_DEVICE_REQUEST;
  if (format != COMPRESSION_FORMAT_NONE) return STATUS_INVALID_PARAMETER;
  node->Compression = COMPRESSION_FORMAT_NONE;
  node->Attributes &= ~FILE_ATTRIBUTE_COMPRESSED;
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::CanDelete(FileId file) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Id == model::kRootId || (node->Attributes & FILE_ATTRIBUTE_READONLY)) return STATUS_CANNOT_DELETE;
  if (node->Directory && HasChildren(*state_, file)) return STATUS_DIRECTORY_NOT_EMPTY;
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::Delete(FileId file) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (node->Directory && HasChildren(*state_, file)) return STATUS_DIRECTORY_NOT_EMPTY;
  const Node removed = *node;
  state_->Catalogue.Nodes.erase(file);
  NTSTATUS status = Persist(*state_);
  if (!NT_SUCCESS(status)) {
    state_->Catalogue.Nodes[file] = removed;
    return status;
  }
  // Clusters are free only once the catalogue no longer names them.
  state_->Clusters.MarkRuns(removed.Runs, false);
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::GetExtents(FileId file, std::vector<Extent>* extents) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  extents->clear();
  LONGLONG vcn = 0;
  for (const Run& run : node->Runs) {
    extents->push_back({vcn, run.Lcn, run.Clusters});
    vcn += run.Clusters;
  }
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::SetClustersProtected(FileId file, bool protect) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  if (protect)
    node->Protected++;
  else if (node->Protected != 0)
    node->Protected--;
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::QuerySecurity(FileId file, std::vector<uint8_t>* descriptor) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  *descriptor = node->Security;
  return STATUS_SUCCESS;
}

NTSTATUS ModelFileSystem::SetSecurity(FileId file, const std::vector<uint8_t>& descriptor) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeOf(*state_, file) : nullptr;
  if (node == nullptr) return STATUS_FILE_CLOSED;
  const std::vector<uint8_t> before = node->Security;
  node->Security = descriptor;
  node->ChangeTime = Now();
  NTSTATUS status = Persist(*state_);
  if (!NT_SUCCESS(status)) node->Security = before;
  return status;
}

// ---------------------------------------------------------------------------------------
// Knobs and inspection.

void ModelFileSystem::FragmentNewAllocations(unsigned pieces) {
  std::lock_guard<std::mutex> guard(lock_);
  fragmentPieces_ = std::max(pieces, 1u);
}

NTSTATUS ModelFileSystem::FragmentFile(const std::u16string& path, unsigned pieces) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!state_) return STATUS_VOLUME_DISMOUNTED;
  Node* node = NodeAt(*state_, path);
  if (node == nullptr || node->Directory) return STATUS_OBJECT_NAME_NOT_FOUND;
  if (node->Protected != 0) return STATUS_ACCESS_DENIED;
  auto target = state_->Clusters.Allocate(node->AllocatedClusters(), std::max(pieces, 2u), std::nullopt);
  if (!target) return STATUS_DISK_FULL;
  return Relocate(*state_, *node, std::move(*target));
}

NTSTATUS ModelFileSystem::MoveFile(const std::u16string& path, std::optional<LONGLONG> lcn) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!state_) return STATUS_VOLUME_DISMOUNTED;
  Node* node = NodeAt(*state_, path);
  if (node == nullptr || node->Directory) return STATUS_OBJECT_NAME_NOT_FOUND;
  if (node->Protected != 0) return STATUS_ACCESS_DENIED;
  const int64_t clusters = static_cast<int64_t>(node->AllocatedClusters());
  std::vector<Run> target;
  if (lcn) {
    if (!state_->Clusters.IsFree(*lcn, clusters)) return STATUS_ALREADY_COMMITTED;
    state_->Clusters.Mark(*lcn, clusters, true);
    target.push_back({*lcn, clusters});
  } else {
    auto found = state_->Clusters.Allocate(static_cast<uint64_t>(clusters), 1, std::nullopt);
    if (!found) return STATUS_DISK_FULL;
    target = std::move(*found);
  }
  return Relocate(*state_, *node, std::move(target));
}

std::vector<Extent> ModelFileSystem::ExtentsOf(const std::u16string& path) {
  FileId id = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    Node* node = state_ ? NodeAt(*state_, path) : nullptr;
    if (node == nullptr) return {};
    id = node->Id;
  }
  std::vector<Extent> extents;
  GetExtents(id, &extents);
  return extents;
}

std::optional<FileInfo> ModelFileSystem::Find(const std::u16string& path) {
  std::lock_guard<std::mutex> guard(lock_);
  Node* node = state_ ? NodeAt(*state_, path) : nullptr;
  if (node == nullptr) return std::nullopt;
  return InfoOf(*state_, *node);
}

ULONG ModelFileSystem::BytesPerCluster() {
  std::lock_guard<std::mutex> guard(lock_);
  return state_ ? state_->Geometry.BytesPerCluster : 0;
}

uint64_t ModelFileSystem::FreeClusters() {
  std::lock_guard<std::mutex> guard(lock_);
  return state_ ? state_->Clusters.FreeCount() : 0;
}

}  // namespace kvtestbed
