// The volume manager's dispatch: transfers, the device controls a volume answers, Plug and
// Play and power at the bottom of a volume stack.
#include "volume_driver.h"

#include <devguid.h>
#include <diskguid.h>
#include <mountdev.h>
#include <ntdddisk.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "completion_worker.h"
#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvtestbed/names.h"
#include "kvtestbed/volume.h"

namespace kvtestbed::detail {
namespace {

// Where the partition begins on its disk (the volume's offset 0), as a disk partitioned by
// Windows has it.
constexpr LONGLONG kPartitionOffset = 1 << 20;

struct VolumeExtension {
  Volume* Owner;
};

Volume& OwnerOf(PDEVICE_OBJECT device) { return *static_cast<VolumeExtension*>(device->DeviceExtension)->Owner; }

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

// A buffered control request's buffers.
struct Control {
  PIRP Irp;
  PVOID Buffer;
  ULONG InLength;
  ULONG OutLength;
};

template <typename T>
NTSTATUS Reply(const Control& c, const T& value) {
  if (c.OutLength < sizeof(T)) return Complete(c.Irp, STATUS_BUFFER_TOO_SMALL);
  std::memcpy(c.Buffer, &value, sizeof(T));
  return Complete(c.Irp, STATUS_SUCCESS, sizeof(T));
}

DISK_GEOMETRY Geometry(const VolumeConfig& config) {
  DISK_GEOMETRY g{};
  g.TracksPerCylinder = 255;
  g.SectorsPerTrack = 63;
  g.BytesPerSector = config.SectorSize;
  g.Cylinders.QuadPart = static_cast<LONGLONG>(config.SizeBytes / (255ull * 63 * config.SectorSize));
  g.MediaType = config.RemovableMedia ? RemovableMedia : FixedMedia;
  return g;
}

PARTITION_INFORMATION_EX PartitionInformation(const Volume& volume, const VolumeConfig& config, const GUID& id) {
  PARTITION_INFORMATION_EX p{};
  p.PartitionStyle = config.PartitionStyle;
  p.StartingOffset.QuadPart = kPartitionOffset;
  p.PartitionLength.QuadPart = static_cast<LONGLONG>(config.SizeBytes);
  p.PartitionNumber = volume.Number();
  p.IsServicePartition = config.Partition == PartitionKind::Recovery;
  if (config.PartitionStyle == PARTITION_STYLE_MBR) {
    p.Mbr.PartitionType = config.Partition == PartitionKind::Recovery ? PARTITION_MSFT_RECOVERY : PARTITION_IFS;
    p.Mbr.BootIndicator = config.DriveLetter == u'C';
    p.Mbr.RecognizedPartition = TRUE;
    p.Mbr.HiddenSectors = static_cast<ULONG>(kPartitionOffset / config.SectorSize);
    p.Mbr.PartitionId = id;
    return p;
  }
  const char16_t* name = u"Basic data partition";
  p.Gpt.PartitionType = PARTITION_BASIC_DATA_GUID;
  if (config.Partition == PartitionKind::Recovery) {
    p.Gpt.PartitionType = PARTITION_MSFT_RECOVERY_GUID;
    name = u"Recovery";
  } else if (config.Partition == PartitionKind::Reserved) {
    p.Gpt.PartitionType = PARTITION_MSFT_RESERVED_GUID;
    name = u"Microsoft reserved partition";
  }
  p.Gpt.PartitionId = id;
  p.Gpt.Attributes = config.GptAttributes;
  for (size_t i = 0; name[i] != 0 && i < 35; ++i) p.Gpt.Name[i] = name[i];
  return p;
}

// The device descriptor followed by its NUL-terminated identifiers.
std::vector<uint8_t> DeviceDescriptor(const VolumeConfig& config) {
  std::vector<uint8_t> bytes(sizeof(STORAGE_DEVICE_DESCRIPTOR), 0);
  auto append = [&](const std::string& text) {
    const ULONG offset = static_cast<ULONG>(bytes.size());
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
    return offset;
  };
  const ULONG vendor = append(config.Vendor);
  const ULONG product = append(config.Product);
  const ULONG revision = append(config.Revision);
  const ULONG serial = append(config.SerialNumber);
  STORAGE_DEVICE_DESCRIPTOR d{};
  d.Version = sizeof(STORAGE_DEVICE_DESCRIPTOR);
  d.Size = static_cast<ULONG>(bytes.size());
  d.DeviceType = 0;  // a direct-access block device
  d.RemovableMedia = config.RemovableMedia;
  d.CommandQueueing = TRUE;
  d.VendorIdOffset = vendor;
  d.ProductIdOffset = product;
  d.ProductRevisionOffset = revision;
  d.SerialNumberOffset = serial;
  d.BusType = config.Bus;
  std::memcpy(bytes.data(), &d, FIELD_OFFSET(STORAGE_DEVICE_DESCRIPTOR, RawDeviceProperties));
  return bytes;
}

std::vector<uint8_t> AdapterDescriptor(const VolumeConfig& config) {
  STORAGE_ADAPTER_DESCRIPTOR a{};
  a.Version = sizeof(STORAGE_ADAPTER_DESCRIPTOR);
  a.Size = sizeof(STORAGE_ADAPTER_DESCRIPTOR);
  a.MaximumTransferLength = 1 << 20;
  a.MaximumPhysicalPages = 257;
  a.AlignmentMask = 3;
  a.CommandQueueing = TRUE;
  a.BusType = static_cast<UCHAR>(config.Bus);
  a.BusMajorVersion = 1;
  std::vector<uint8_t> bytes(sizeof a);
  std::memcpy(bytes.data(), &a, sizeof a);
  return bytes;
}

// IOCTL_STORAGE_QUERY_PROPERTY: a descriptor is copied as far as the output holds it (its
// header tells the caller the whole size).
NTSTATUS QueryProperty(const Control& c, const VolumeConfig& config) {
  if (c.InLength < sizeof(STORAGE_PROPERTY_QUERY)) return Complete(c.Irp, STATUS_INVALID_PARAMETER);
  STORAGE_PROPERTY_QUERY query;
  std::memcpy(&query, c.Buffer, sizeof query);
  std::vector<uint8_t> descriptor;
  if (query.PropertyId == StorageDeviceProperty)
    descriptor = DeviceDescriptor(config);
  else if (query.PropertyId == StorageAdapterProperty)
    descriptor = AdapterDescriptor(config);
  else
    return Complete(c.Irp, STATUS_NOT_SUPPORTED);
  if (query.QueryType == PropertyExistsQuery) return Complete(c.Irp, STATUS_SUCCESS);
  if (query.QueryType != PropertyStandardQuery) return Complete(c.Irp, STATUS_INVALID_PARAMETER);
  if (c.OutLength < sizeof(STORAGE_DESCRIPTOR_HEADER)) return Complete(c.Irp, STATUS_BUFFER_TOO_SMALL);
  const ULONG copied = std::min<ULONG>(c.OutLength, static_cast<ULONG>(descriptor.size()));
  std::memcpy(c.Buffer, descriptor.data(), copied);
  return Complete(c.Irp, STATUS_SUCCESS, copied);
}

// IOCTL_MOUNTDEV_QUERY_DEVICE_NAME: a buffer too small for the name gets its length alone.
NTSTATUS QueryDeviceName(const Control& c, const std::u16string& name) {
  if (c.OutLength < sizeof(MOUNTDEV_NAME)) return Complete(c.Irp, STATUS_INVALID_PARAMETER);
  auto* out = static_cast<PMOUNTDEV_NAME>(c.Buffer);
  out->NameLength = static_cast<USHORT>(name.size() * sizeof(WCHAR));
  const ULONG needed = FIELD_OFFSET(MOUNTDEV_NAME, Name) + out->NameLength;
  if (c.OutLength < needed) return Complete(c.Irp, STATUS_BUFFER_OVERFLOW, sizeof(MOUNTDEV_NAME));
  std::memcpy(out->Name, name.data(), out->NameLength);
  return Complete(c.Irp, STATUS_SUCCESS, needed);
}

// The name carried by IOCTL_MOUNTDEV_LINK_CREATED / _DELETED; false when the input does not
// hold it.
bool LinkName(const Control& c, std::u16string* name) {
  if (c.InLength < sizeof(USHORT)) return false;
  const auto* in = static_cast<const MOUNTDEV_NAME*>(c.Buffer);
  if (in->NameLength % sizeof(WCHAR) != 0 || sizeof(USHORT) + in->NameLength > c.InLength)
    return false;
  name->assign(reinterpret_cast<const char16_t*>(in->Name), in->NameLength / sizeof(WCHAR));
  return true;
}

}  // namespace

NTSTATUS VolumeDriver::DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
  UNREFERENCED_PARAMETER(registryPath);
  for (PDRIVER_DISPATCH& slot : driver->MajorFunction) slot = DispatchSucceed;
  driver->MajorFunction[IRP_MJ_READ] = DispatchTransfer;
  driver->MajorFunction[IRP_MJ_WRITE] = DispatchTransfer;
  driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
  driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
  driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  driver->DriverUnload = Unload;
  return STATUS_SUCCESS;
}

NTSTATUS VolumeDriver::CreateDevice(PDRIVER_OBJECT driver, Volume& volume, PDEVICE_OBJECT* device) {
  const VolumeConfig config = volume.Config();
  UNICODE_STRING name;
  name.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t*>(volume.DeviceName().data()));
  name.Length = static_cast<USHORT>(volume.DeviceName().size() * sizeof(WCHAR));
  name.MaximumLength = name.Length;
  const ULONG characteristics = FILE_DEVICE_SECURE_OPEN | (config.RemovableMedia ? FILE_REMOVABLE_MEDIA : 0);
  PDEVICE_OBJECT created = nullptr;
  NTSTATUS status =
      IoCreateDevice(driver, sizeof(VolumeExtension), &name, config.DeviceType, characteristics, FALSE, &created);
  if (!NT_SUCCESS(status)) return status;
  static_cast<VolumeExtension*>(created->DeviceExtension)->Owner = &volume;
  created->Flags |= DO_DIRECT_IO | DO_POWER_PAGABLE;
  created->SectorSize = static_cast<USHORT>(config.SectorSize);
  kvhost::IoSetPhysicalDeviceObject(created);
  kvhost::IoSetDeviceClassGuid(created, volume.IsShadowCopy() ? GUID_DEVCLASS_VOLUMESNAPSHOT : GUID_DEVCLASS_VOLUME);
  created->Flags &= ~DO_DEVICE_INITIALIZING;
  *device = created;
  return STATUS_SUCCESS;
}

NTSTATUS VolumeDriver::DispatchTransfer(PDEVICE_OBJECT device, PIRP irp) {
  Volume& volume = OwnerOf(device);
  if (volume.CompletesFromThread()) {
    IoMarkIrpPending(irp);
    volume.worker_->Queue(&volume, irp);
    return STATUS_PENDING;
  }
  return volume.Transfer(irp);
}

NTSTATUS VolumeDriver::DispatchDeviceControl(PDEVICE_OBJECT device, PIRP irp) {
  Volume& volume = OwnerOf(device);
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const ULONG code = sp->Parameters.DeviceIoControl.IoControlCode;
  const Control c{irp, irp->AssociatedIrp.SystemBuffer, sp->Parameters.DeviceIoControl.InputBufferLength,
                  sp->Parameters.DeviceIoControl.OutputBufferLength};
  const VolumeConfig config = volume.Config();
  std::u16string link;
  switch (code) {
    case IOCTL_DISK_GET_DRIVE_GEOMETRY:
      return Reply(c, Geometry(config));
    case IOCTL_DISK_GET_LENGTH_INFO: {
      GET_LENGTH_INFORMATION length{};
      length.Length.QuadPart = static_cast<LONGLONG>(config.SizeBytes);
      return Reply(c, length);
    }
    case IOCTL_DISK_GET_PARTITION_INFO_EX:
      return Reply(c, PartitionInformation(volume, config, volume.guid_));
    case IOCTL_DISK_IS_WRITABLE:
      return Complete(irp, config.WriteProtected ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS);
    case IOCTL_STORAGE_QUERY_PROPERTY:
      return QueryProperty(c, config);
    case IOCTL_MOUNTDEV_QUERY_DEVICE_NAME:
      return QueryDeviceName(c, volume.DeviceName());
    case IOCTL_MOUNTDEV_LINK_CREATED:
    case IOCTL_MOUNTDEV_LINK_DELETED:
      if (!LinkName(c, &link)) return Complete(irp, STATUS_INVALID_PARAMETER);
      volume.Record(ControlCodeName(code) + " " + kvhost::ToUtf8(link));
      return Complete(irp, STATUS_SUCCESS);
    case IOCTL_VOLUME_SUPPORTS_ONLINE_OFFLINE:
      return Complete(irp, STATUS_SUCCESS);
    case IOCTL_VOLUME_ONLINE:
    case IOCTL_VOLUME_OFFLINE:
      volume.SetOnline(code == IOCTL_VOLUME_ONLINE);
      volume.Record(ControlCodeName(code));
      return Complete(irp, STATUS_SUCCESS);
    case IOCTL_VOLUME_IS_OFFLINE:
      return Complete(irp, volume.Online() ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS);
    case IOCTL_VOLUME_GET_GPT_ATTRIBUTES: {
      VOLUME_GET_GPT_ATTRIBUTES_INFORMATION attributes{config.GptAttributes};
      return Reply(c, attributes);
    }
    default:
      volume.Record(ControlCodeName(code));
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  }
}

NTSTATUS VolumeDriver::DispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
  Volume& volume = OwnerOf(device);
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const UCHAR minor = sp->MinorFunction;
  volume.Record(PnpMinorName(minor));
  NTSTATUS status = irp->IoStatus.Status;  // what no driver of the stack handled stays as it is
  ULONG_PTR information = irp->IoStatus.Information;
  switch (minor) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
    case IRP_MN_REMOVE_DEVICE:  // the device itself goes once the bus has let it go (Machine)
      status = STATUS_SUCCESS;
      break;
    default:
      break;
  }
  return Complete(irp, status, information);
}

NTSTATUS VolumeDriver::DispatchPower(PDEVICE_OBJECT device, PIRP irp) {
  Volume& volume = OwnerOf(device);
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  PoStartNextPowerIrp(irp);
  std::string request = PowerMinorName(sp->MinorFunction);
  if (sp->MinorFunction == IRP_MN_SET_POWER || sp->MinorFunction == IRP_MN_QUERY_POWER) {
    if (sp->Parameters.Power.Type == SystemPowerState)
      request += " " + SystemPowerStateName(sp->Parameters.Power.State.SystemState);
    volume.Record(request);
    return Complete(irp, STATUS_SUCCESS);
  }
  volume.Record(request);
  return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
}

// Create, cleanup, close, flush and shutdown succeed; what a volume does not serve is refused.
NTSTATUS VolumeDriver::DispatchSucceed(PDEVICE_OBJECT device, PIRP irp) {
  const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
  switch (major) {
    case IRP_MJ_SHUTDOWN:
      OwnerOf(device).Record("IRP_MJ_SHUTDOWN");
      return Complete(irp, STATUS_SUCCESS);
    case IRP_MJ_FLUSH_BUFFERS:
      OwnerOf(device).Record("IRP_MJ_FLUSH_BUFFERS");
      return Complete(irp, STATUS_SUCCESS);
    case IRP_MJ_CREATE:
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
      return Complete(irp, STATUS_SUCCESS);
    default:
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  }
}

void VolumeDriver::Unload(PDRIVER_OBJECT driver) { UNREFERENCED_PARAMETER(driver); }

}  // namespace kvtestbed::detail
