// Volume content: sparse memory and image-file stores, and copy-on-write shadow copies.
#include "volume_content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvtestbed::detail {
namespace {

// Calls `part(chunk index, offset in chunk, offset in the caller's buffer, bytes)` for each
// chunk a range touches.
template <typename Part>
void ForEachChunk(uint64_t offset, size_t length, Part part) {
  size_t done = 0;
  while (done < length) {
    const uint64_t at = offset + done;
    const uint64_t index = at / kChunkBytes;
    const size_t within = static_cast<size_t>(at % kChunkBytes);
    const size_t bytes = std::min<size_t>(length - done, kChunkBytes - within);
    part(index, within, done, bytes);
    done += bytes;
  }
}

class MemoryStore final : public BlockStore {
 public:
  void Read(uint64_t offset, void* buffer, size_t length) override {
    auto* out = static_cast<uint8_t*>(buffer);
    ForEachChunk(offset, length, [&](uint64_t index, size_t within, size_t at, size_t bytes) {
      const uint8_t* chunk = chunks_.Find(index);
      if (chunk != nullptr)
        std::memcpy(out + at, chunk + within, bytes);
      else
        std::memset(out + at, 0, bytes);
    });
  }
  void Write(uint64_t offset, const void* data, size_t length) override {
    auto* in = static_cast<const uint8_t*>(data);
    ForEachChunk(offset, length, [&](uint64_t index, size_t within, size_t at, size_t bytes) {
      std::memcpy(chunks_.Get(index) + within, in + at, bytes);
    });
  }
  bool Resize(uint64_t) override { return true; }
  uint64_t BytesAllocated() const override { return chunks_.BytesHeld(); }

 private:
  ChunkMap chunks_;
};

class ImageStore final : public BlockStore {
 public:
  explicit ImageStore(int fd) : fd_(fd) {}
  ~ImageStore() override { ::close(fd_); }

  void Read(uint64_t offset, void* buffer, size_t length) override {
    auto* out = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < length) {
      const ssize_t n = ::pread(fd_, out + done, length - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;  // past the end of the file: zeros, like a hole
      done += static_cast<size_t>(n);
    }
    std::memset(out + done, 0, length - done);
  }
  void Write(uint64_t offset, const void* data, size_t length) override {
    auto* in = static_cast<const uint8_t*>(data);
    size_t done = 0;
    while (done < length) {
      const ssize_t n = ::pwrite(fd_, in + done, length - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
  }
  bool Resize(uint64_t bytes) override {
    struct stat st {};
    if (::fstat(fd_, &st) != 0) return false;
    return static_cast<uint64_t>(st.st_size) >= bytes || ::ftruncate(fd_, static_cast<off_t>(bytes)) == 0;
  }
  uint64_t BytesAllocated() const override {
    struct stat st {};
    return ::fstat(fd_, &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
  }

 private:
  int fd_;
};

}  // namespace

const uint8_t* ChunkMap::Find(uint64_t index) const {
  auto it = chunks_.find(index);
  return it == chunks_.end() ? nullptr : it->second.get();
}

uint8_t* ChunkMap::Get(uint64_t index) {
  std::unique_ptr<uint8_t[]>& chunk = chunks_[index];
  if (chunk == nullptr) chunk = std::make_unique<uint8_t[]>(kChunkBytes);  // zeroed
  return chunk.get();
}

bool ChunkMap::Adopt(uint64_t index, const uint8_t* initial) {
  std::unique_ptr<uint8_t[]>& chunk = chunks_[index];
  if (chunk != nullptr) return false;
  chunk = std::make_unique_for_overwrite<uint8_t[]>(kChunkBytes);
  std::memcpy(chunk.get(), initial, kChunkBytes);
  return true;
}

std::unique_ptr<BlockStore> MakeMemoryStore() { return std::make_unique<MemoryStore>(); }

std::unique_ptr<BlockStore> OpenImageStore(const std::string& path, uint64_t bytes, std::string* error) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = "cannot open image file " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  auto store = std::make_unique<ImageStore>(fd);
  if (!store->Resize(bytes)) {
    *error = "cannot extend image file " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  return store;
}

VolumeContent::VolumeContent(std::unique_ptr<BlockStore> store)
    : lock_(std::make_shared<std::mutex>()), store_(std::move(store)) {}

void VolumeContent::Read(uint64_t offset, void* buffer, size_t length) {
  std::lock_guard<std::mutex> guard(*lock_);
  store_->Read(offset, buffer, length);
}

void VolumeContent::Write(uint64_t offset, const void* data, size_t length) {
  std::lock_guard<std::mutex> guard(*lock_);
  std::erase_if(snapshots_, [](const std::weak_ptr<SnapshotContent>& s) { return s.expired(); });
  if (!snapshots_.empty()) {
    ForEachChunk(offset, length, [&](uint64_t index, size_t, size_t, size_t) {
      for (const std::weak_ptr<SnapshotContent>& weak : snapshots_)
        if (std::shared_ptr<SnapshotContent> snapshot = weak.lock()) snapshot->Preserve(index);
    });
  }
  store_->Write(offset, data, length);
}

bool VolumeContent::Resize(uint64_t bytes) {
  std::lock_guard<std::mutex> guard(*lock_);
  return store_->Resize(bytes);
}

uint64_t VolumeContent::BytesAllocated() const {
  std::lock_guard<std::mutex> guard(*lock_);
  return store_->BytesAllocated();
}

std::shared_ptr<SnapshotContent> VolumeContent::TakeSnapshot() {
  auto snapshot = std::make_shared<SnapshotContent>(shared_from_this());
  std::lock_guard<std::mutex> guard(*lock_);
  snapshots_.push_back(snapshot);
  return snapshot;
}

SnapshotContent::SnapshotContent(std::shared_ptr<VolumeContent> original) : original_(std::move(original)) {}

void SnapshotContent::Preserve(uint64_t index) {
  if (preserved_.Holds(index)) return;
  auto old = std::make_unique_for_overwrite<uint8_t[]>(kChunkBytes);
  original_->store_->Read(index * kChunkBytes, old.get(), kChunkBytes);
  preserved_.Adopt(index, old.get());
}

void SnapshotContent::Read(uint64_t offset, void* buffer, size_t length) {
  std::lock_guard<std::mutex> guard(*original_->lock_);
  auto* out = static_cast<uint8_t*>(buffer);
  ForEachChunk(offset, length, [&](uint64_t index, size_t within, size_t at, size_t bytes) {
    const uint8_t* chunk = preserved_.Find(index);
    if (chunk != nullptr)
      std::memcpy(out + at, chunk + within, bytes);
    else
      original_->store_->Read(offset + at, out + at, bytes);
  });
}

void SnapshotContent::Write(uint64_t offset, const void* data, size_t length) {
  std::lock_guard<std::mutex> guard(*original_->lock_);
  auto* in = static_cast<const uint8_t*>(data);
  ForEachChunk(offset, length, [&](uint64_t index, size_t within, size_t at, size_t bytes) {
    Preserve(index);
    std::memcpy(preserved_.Get(index) + within, in + at, bytes);
  });
}

uint64_t SnapshotContent::BytesAllocated() const {
  std::lock_guard<std::mutex> guard(*original_->lock_);
  return preserved_.BytesHeld();
}

}  // namespace kvtestbed::detail
