// The mount manager's link requests at the top of a volume's stack: which names the driver
// takes for a drive letter or the volume GUID name, which it leaves alone, and that every
// request still reaches the volume below and comes back with the volume's status.
#include <gtest/gtest.h>

#include <mountdev.h>

#include <cstring>
#include <string>
#include <vector>

#include "control_request.h"
#include "probe_machine.h"

namespace {

using kvtest::ControlResult;

constexpr char16_t kGuidName[] = u"\\??\\Volume{6d3c1a52-1f0e-4b9a-9c3e-5a1b2c3d4e5f}";

// A MOUNTDEV_NAME as the mount manager sends it: NameLength (which may be stated otherwise
// than the name is long), then the name, cut to `inputBytes` bytes when given.
std::vector<uint8_t> LinkInput(const std::u16string& name, int statedLength = -1, int inputBytes = -1) {
  const USHORT length = static_cast<USHORT>(statedLength >= 0 ? statedLength : name.size() * sizeof(char16_t));
  std::vector<uint8_t> input(sizeof(USHORT) + name.size() * sizeof(char16_t));
  std::memcpy(input.data(), &length, sizeof length);
  std::memcpy(input.data() + sizeof(USHORT), name.data(), name.size() * sizeof(char16_t));
  if (inputBytes >= 0) input.resize(static_cast<size_t>(inputBytes));
  return input;
}

std::u16string GuidNameOf(const CBT_DEVICE_EXTENSION* e) {
  return std::u16string(reinterpret_cast<const char16_t*>(e->VolumeGuidName.Buffer),
                        e->VolumeGuidName.Length / sizeof(char16_t));
}

class MountLinkTest : public kvtest::ProbeMachineTest {
 protected:
  void SetUp() override {
    BootWithOneVolume();
  }

  PCBT_DEVICE_EXTENSION Extension() const { return ExtensionOf(volume_); }

  ControlResult SendLink(ULONG code, std::vector<uint8_t> input) {
    return kvtest::SendControlRequest(volume_->TopOfStack(), {.Code = code, .Input = std::move(input)});
  }
};

TEST_F(MountLinkTest, TheMountManagersNamesAtBootAreRecorded) {
  EXPECT_EQ(Extension()->DriveLetter, L'D');
  EXPECT_EQ(GuidNameOf(Extension()), volume_->VolumeGuidName());
  EXPECT_EQ(Extension()->VolumeGuidName.MaximumLength, 96);
  EXPECT_TRUE(CbtFlagsSet(Extension(), CBT_FLAG_MOUNT_LINK));
}

TEST_F(MountLinkTest, OnlyWellFormedDriveLetterLinksChangeTheLetter) {
  struct Case {
    const char* What;
    std::vector<uint8_t> Input;
    WCHAR Letter;  // the drive letter afterwards
  };
  const Case cases[] = {
      {"another letter", LinkInput(u"\\DosDevices\\E:"), L'E'},
      {"a lower-case letter", LinkInput(u"\\DosDevices\\f:"), L'E'},
      {"not a letter", LinkInput(u"\\DosDevices\\1:"), L'E'},
      {"no colon", LinkInput(u"\\DosDevices\\GG"), L'E'},
      {"a longer name", LinkInput(u"\\DosDevices\\GH:"), L'E'},
      {"a shorter name", LinkInput(u"\\DosDevices\\G"), L'E'},
      {"another prefix", LinkInput(u"\\DosDevicez\\G:"), L'E'},
      {"the right length stated, the input cut short", LinkInput(u"\\DosDevices\\G:", -1, 26), L'E'},
      {"a length that does not fit the input", LinkInput(u"\\DosDevices\\G:", 28, 4), L'E'},
      {"no name at all", {}, L'E'},
      {"half a length", {0x1C}, L'E'},
      {"Z, the last letter", LinkInput(u"\\DosDevices\\Z:"), L'Z'},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.What);
    probe_.Clear();
    const ControlResult result = SendLink(IOCTL_MOUNTDEV_LINK_CREATED, c.Input);
    EXPECT_EQ(Extension()->DriveLetter, c.Letter);
    // Whatever the name, the request went on to the volume and came back with its answer.
    ASSERT_EQ(probe_.ControlRequests().size(), 1u);
    EXPECT_EQ(probe_.ControlRequests()[0].ControlCode, IOCTL_MOUNTDEV_LINK_CREATED);
    EXPECT_EQ(result.Status, c.Input.size() >= 2 && c.Input.size() >= 2u + (c.Input[0] | (c.Input[1] << 8))
                                 ? STATUS_SUCCESS
                                 : STATUS_INVALID_PARAMETER)
        << "the volume's own answer";
  }
  EXPECT_EQ(TakeRecords("CbtMountDevLinkCreated").size(), 2u) << "each letter taken is recorded";
}

TEST_F(MountLinkTest, VolumeGuidLinksOfBothFormsAreRecordedWithoutTheirSeparator) {
  // With a trailing separator the name is 98 bytes; the driver keeps the 96 of the name.
  std::u16string withSeparator = u"\\\\?\\Volume{0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9}\\";
  ASSERT_EQ(withSeparator.size(), 49u);
  SendLink(IOCTL_MOUNTDEV_LINK_CREATED, LinkInput(withSeparator));
  EXPECT_EQ(GuidNameOf(Extension()), withSeparator.substr(0, 48));
  EXPECT_EQ(Extension()->VolumeGuidName.Length, 96);
  EXPECT_EQ(Extension()->DriveLetter, L'D') << "a GUID link leaves the letter alone";

  SendLink(IOCTL_MOUNTDEV_LINK_CREATED, LinkInput(kGuidName));
  EXPECT_EQ(GuidNameOf(Extension()), kGuidName) << "a later GUID link replaces the name";
  EXPECT_EQ(TakeRecords("CbtMountDevLinkCreated").size(), 2u);
}

TEST_F(MountLinkTest, MalformedGuidLinksLeaveTheNameAlone) {
  const std::u16string good = kGuidName;
  auto with = [&](size_t at, char16_t c) {
    std::u16string name = good;
    name[at] = c;
    return name;
  };
  struct Case {
    const char* What;
    std::vector<uint8_t> Input;
  };
  const Case cases[] = {
      {"an underscore for a hyphen", LinkInput(with(19, u'_'))},
      {"a hyphen moved", LinkInput(with(24, u'0'))},
      {"no closing brace", LinkInput(with(47, u')'))},
      {"another word than Volume", LinkInput(with(9, u'X'))},
      {"a slash for the first backslash", LinkInput(with(0, u'/'))},
      {"98 bytes without a trailing backslash", LinkInput(good + u"x")},
      {"97 bytes", LinkInput(good, 97)},
      {"the name stated whole, the input cut in the GUID", LinkInput(good, 96, 60)},
      {"the name stated whole, the input one character short", LinkInput(good, 96, 96)},
  };
  const std::u16string before = GuidNameOf(Extension());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.What);
    SendLink(IOCTL_MOUNTDEV_LINK_CREATED, c.Input);
    EXPECT_EQ(GuidNameOf(Extension()), before);
  }
  EXPECT_TRUE(TakeRecords("CbtMountDevLinkCreated").empty());
}

TEST_F(MountLinkTest, DeletingALinkForgetsOnlyTheLetterItNames) {
  SendLink(IOCTL_MOUNTDEV_LINK_DELETED, LinkInput(u"\\DosDevices\\E:"));
  EXPECT_EQ(Extension()->DriveLetter, L'D') << "E: is not this volume's letter";
  SendLink(IOCTL_MOUNTDEV_LINK_DELETED, LinkInput(kGuidName));
  EXPECT_EQ(Extension()->DriveLetter, L'D');
  EXPECT_TRUE(TakeRecords("CbtMountDevLinkDeleted").empty());

  ASSERT_EQ(machine_->RemoveDriveLetter(*volume_), STATUS_SUCCESS);
  EXPECT_EQ(Extension()->DriveLetter, L'?');
  EXPECT_EQ(GuidNameOf(Extension()), volume_->VolumeGuidName()) << "the GUID name is never forgotten here";
  EXPECT_EQ(TakeRecords("CbtMountDevLinkDeleted").size(), 1u);
}

TEST_F(MountLinkTest, TheVolumesRefusalComesBackButTheNameIsTakenFirst) {
  CbtClearFlags(Extension(), CBT_FLAG_MOUNT_LINK);
  probe_.Answer(IOCTL_MOUNTDEV_LINK_CREATED, {.Status = STATUS_INSUFFICIENT_RESOURCES});
  const ControlResult refused = SendLink(IOCTL_MOUNTDEV_LINK_CREATED, LinkInput(u"\\DosDevices\\K:"));
  EXPECT_EQ(refused.Status, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(Extension()->DriveLetter, L'K') << "recorded before the volume saw the request";
  EXPECT_FALSE(CbtFlagsSet(Extension(), CBT_FLAG_MOUNT_LINK)) << "no link exists";

  probe_.Answer(IOCTL_MOUNTDEV_LINK_CREATED, {.Status = STATUS_SUCCESS});
  EXPECT_EQ(SendLink(IOCTL_MOUNTDEV_LINK_CREATED, LinkInput(u"\\DosDevices\\K:")).Status, STATUS_SUCCESS);
  EXPECT_TRUE(CbtFlagsSet(Extension(), CBT_FLAG_MOUNT_LINK));
}

}  // namespace
