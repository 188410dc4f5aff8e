// Volumes whose writes the driver tracks, for the tests of the change bitmap and the write
// path: a volume stacked under the driver (cbt_driver_fixture.h) and given what its file
// system's initialisation would give it (a bitmap geometry, the bitmap, a file-system
// context, online), so that writes sent to the top of its stack are marked.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "cbt_driver_fixture.h"
#include "sent_write.h"

namespace kvtest {

struct TrackedVolumeSpec {
  ULONG BytesPerBit = 4096;
  ULONG VolumeBytes = 1 << 20;
  ULONG FileSystemType = CBT_FILE_SYSTEM_NTFS;
  unsigned Number = 1;
};

class TrackingTest : public CbtDriverTest {
 protected:
  void SetUp() override;

  // A volume whose writes are tracked: BitCount covers the volume. The context is
  // dropped, and the bitmap freed, by the volume's removal at the end of the test.
  Volume& AddTrackedVolume(const TrackedVolumeSpec& spec = {});

  // The indices of the set bits.
  static std::set<ULONG> SetBits(const CBT_DEVICE_EXTENSION* extension);

  // A write of `length` bytes at `offset` through the top of the stack, waited for.
  static Transferred Write(PDEVICE_OBJECT top, LONGLONG offset, ULONG length);

  // A write (sent_write.h) built, or built and sent to `top`; beside the fixture's own Send.
  using CbtDriverTest::Send;
  static void Prepare(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, ULONG length, ULONG irpFlags = 0) {
    kvtest::Prepare(write, top, offset, length, irpFlags);
  }
  static void Send(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, ULONG length, ULONG irpFlags = 0) {
    kvtest::Send(write, top, offset, length, irpFlags);
  }
  // A write of `data`, built and sent to `top`.
  static void SendData(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, const std::vector<uint8_t>& data);

  // A $LogFile restart page as NTFS writes it, its restart area carrying `count` and the
  // clean flag; and whether a page so built still has the flag when it reaches the disk.
  static std::vector<uint8_t> RestartPage(ULONG count);
  static bool IsCleanRestartPage(const uint8_t* page);

  // Records with this text, queued so far.
  static std::vector<CBT_LOG_RECORD_BODY> RecordsOf(const std::string& text);
};

}  // namespace kvtest
