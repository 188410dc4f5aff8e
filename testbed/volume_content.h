// The bytes of a volume as its disk holds them (not a test control).
//
// A volume's content lives in a block store: sparse memory, or a sparse image file. Ranges
// never written read as zeros and cost nothing, so a 2 TB volume costs only what is written.
// A shadow copy is a view of its original volume frozen at the moment it was taken: before a
// write changes a chunk of the original, the chunk's old bytes are preserved in every shadow
// copy that does not hold it yet (copy on write, as a shadow-copy provider's diff area does).
// A volume and its shadow copies share one lock, so a view never sees half a write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kvtestbed::detail {

constexpr uint64_t kChunkBytes = 64 * 1024;

// Chunks that were written (or preserved), each kChunkBytes long.
class ChunkMap {
 public:
  // The chunk, or null when it is not held.
  const uint8_t* Find(uint64_t index) const;
  // The chunk, created zeroed when it is not held.
  uint8_t* Get(uint64_t index);
  // The chunk, created from `initial` (kChunkBytes) when it is not held; true when created.
  bool Adopt(uint64_t index, const uint8_t* initial);
  bool Holds(uint64_t index) const { return chunks_.count(index) != 0; }
  uint64_t BytesHeld() const { return chunks_.size() * kChunkBytes; }

 private:
  std::unordered_map<uint64_t, std::unique_ptr<uint8_t[]>> chunks_;
};

// Where a volume's bytes are kept. Callers hold the content's lock.
class BlockStore {
 public:
  virtual ~BlockStore() = default;
  virtual void Read(uint64_t offset, void* buffer, size_t length) = 0;
  virtual void Write(uint64_t offset, const void* data, size_t length) = 0;
  // The store grows (or shrinks) with its volume.
  virtual bool Resize(uint64_t bytes) = 0;
  virtual uint64_t BytesAllocated() const = 0;
};

std::unique_ptr<BlockStore> MakeMemoryStore();
// A sparse image file, created when it does not exist and extended to `bytes` when shorter
// (an existing longer file keeps its length). Null with `error` set when it cannot be used.
std::unique_ptr<BlockStore> OpenImageStore(const std::string& path, uint64_t bytes, std::string* error);

// The bytes a volume device reads and writes.
class Content {
 public:
  virtual ~Content() = default;
  virtual void Read(uint64_t offset, void* buffer, size_t length) = 0;
  virtual void Write(uint64_t offset, const void* data, size_t length) = 0;
  virtual bool Resize(uint64_t bytes) = 0;
  virtual uint64_t BytesAllocated() const = 0;
};

class SnapshotContent;

// The content of one volume, with the shadow copies taken of it.
class VolumeContent final : public Content, public std::enable_shared_from_this<VolumeContent> {
 public:
  explicit VolumeContent(std::unique_ptr<BlockStore> store);

  void Read(uint64_t offset, void* buffer, size_t length) override;
  void Write(uint64_t offset, const void* data, size_t length) override;
  bool Resize(uint64_t bytes) override;
  uint64_t BytesAllocated() const override;

  // A view of this volume as it is now.
  std::shared_ptr<SnapshotContent> TakeSnapshot();

 private:
  friend class SnapshotContent;

  std::shared_ptr<std::mutex> lock_;  // shared with the shadow copies
  std::unique_ptr<BlockStore> store_;
  std::vector<std::weak_ptr<SnapshotContent>> snapshots_;
};

// A shadow copy: the chunks preserved from the original (and those written to the shadow
// copy itself), the original's bytes for the rest.
class SnapshotContent final : public Content {
 public:
  explicit SnapshotContent(std::shared_ptr<VolumeContent> original);

  void Read(uint64_t offset, void* buffer, size_t length) override;
  void Write(uint64_t offset, const void* data, size_t length) override;
  bool Resize(uint64_t) override { return false; }  // a shadow copy keeps its size
  uint64_t BytesAllocated() const override;

 private:
  friend class VolumeContent;
  // With the lock held: keeps the original's chunk `index` before it changes.
  void Preserve(uint64_t index);

  std::shared_ptr<VolumeContent> original_;
  ChunkMap preserved_;
};

}  // namespace kvtestbed::detail
