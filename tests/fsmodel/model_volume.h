// A volume with the model file system for the tests: a RAM disk named like a volume, a
// pass-through filter above it (as the driver will sit), the links the mount manager would
// create, formatted and given a ModelFileSystem. Files are reached through ZwCreateFile and
// friends, raw bytes through requests built straight to the disk.
#pragma once

#include <gtest/gtest.h>
#include <ntifs.h>

#include <memory>
#include <string>
#include <vector>

#include "../io/drivers/test_drivers.h"
#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvtestbed/file_system.h"
#include "kvtestbed/fs_model.h"

// A counted string that owns its text.
class Text {
 public:
  explicit Text(std::u16string text) : text_(std::move(text)) {
    value_.Buffer = reinterpret_cast<PWCH>(text_.data());
    value_.Length = value_.MaximumLength = static_cast<USHORT>(text_.size() * sizeof(WCHAR));
  }
  PUNICODE_STRING get() { return &value_; }

 private:
  std::u16string text_;
  UNICODE_STRING value_{};
};

// A kernel handle that is closed when it goes.
class Handle {
 public:
  Handle() = default;
  explicit Handle(HANDLE h) : h_(h) {}
  ~Handle() { Close(); }
  Handle(Handle&& other) noexcept : h_(other.h_) { other.h_ = nullptr; }
  Handle& operator=(Handle&& other) noexcept {
    Close();
    h_ = other.h_;
    other.h_ = nullptr;
    return *this;
  }
  HANDLE get() const { return h_; }
  HANDLE* put() {
    Close();
    return &h_;
  }
  void Close() {
    if (h_ != nullptr) ZwClose(h_);
    h_ = nullptr;
  }

 private:
  HANDLE h_ = nullptr;
};

struct OpenResult {
  NTSTATUS Status = STATUS_UNSUCCESSFUL;
  ULONG_PTR Information = 0;
  Handle File;
};

class ModelVolumeTest : public testing::Test {
 protected:
  static constexpr ULONG kVolumeBytes = 8u << 20;
  static constexpr ULONG kCluster = 4096;
  static constexpr const char16_t* kDeviceName = u"\\Device\\HarddiskVolume7";
  static constexpr const char16_t* kGuidLink = u"\\??\\Volume{6d3c1a52-1f0e-4b9a-9c3e-5a1b2c3d4e5f}";

  void SetUp() override;
  void TearDown() override;

 public:
  // ZwCreateFile as the driver calls it, on a full name.
  static OpenResult Open(std::u16string name, ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE,
                         ULONG share = FILE_SHARE_READ, ULONG disposition = FILE_OPEN_IF,
                         ULONG options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT,
                         ULONG attributes = FILE_ATTRIBUTE_NORMAL, LONGLONG allocation = 0,
                         PSECURITY_DESCRIPTOR descriptor = nullptr);
  static NTSTATUS Write(HANDLE file, const std::vector<unsigned char>& data, LONGLONG offset);
  static std::vector<unsigned char> Read(HANDLE file, ULONG length, LONGLONG offset, NTSTATUS* status = nullptr);
  static NTSTATUS SetInformation(HANDLE file, const void* info, ULONG length, FILE_INFORMATION_CLASS infoClass);
  template <typename T>
  static NTSTATUS QueryInformation(HANDLE file, T* info, FILE_INFORMATION_CLASS infoClass) {
    IO_STATUS_BLOCK iosb{};
    return ZwQueryInformationFile(file, &iosb, info, sizeof(T), infoClass);
  }
  static NTSTATUS FsControl(HANDLE file, ULONG code, void* in, ULONG inLength, void* out, ULONG outLength,
                            ULONG_PTR* information = nullptr);
  // FSCTL_GET_RETRIEVAL_POINTERS from `vcn` into a buffer of `bytes` bytes.
  static NTSTATUS RetrievalPointers(HANDLE file, LONGLONG vcn, std::vector<unsigned char>* answer, ULONG bytes,
                                    ULONG_PTR* information = nullptr);

 protected:
  // The disk's bytes, read with a request built straight to the disk device: below the
  // filter and the file system.
  std::vector<unsigned char> RawRead(LONGLONG offset, ULONG length);
  static std::vector<unsigned char> Pattern(size_t bytes, unsigned char seed);

  // Detaches the file system and attaches a new model, as a reboot does.
  void Remount();

  PDRIVER_OBJECT ramDriver_ = nullptr;
  PDRIVER_OBJECT filterDriver_ = nullptr;
  PDEVICE_OBJECT disk_ = nullptr;
  PDEVICE_OBJECT filter_ = nullptr;
  std::shared_ptr<kvtestbed::ModelFileSystem> model_;
  std::vector<std::u16string> links_;
};
