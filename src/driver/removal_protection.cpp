// Removal protection (cbt_removal_protection.h).
#include "driver/cbt_device_extension.h"
#include "driver/cbt_removal_protection.h"

ULONG CbtAcquireRemovalProtection(PDEVICE_OBJECT DeviceObject) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  if (extension->RundownProtection != NULL && !ExAcquireRundownProtectionCacheAware(extension->RundownProtection))
    InterlockedIncrement(&extension->RundownBypassCount);
  return static_cast<ULONG>(ReadAcquire(&extension->RemovalState));
}

VOID CbtReleaseRemovalProtection(PDEVICE_OBJECT DeviceObject) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  // A failed acquisition owes a release that must not reach the rundown block: pay the
  // bypass count back first, one at a time, whoever's release it is.
  LONG bypassed = ReadAcquire(&extension->RundownBypassCount);
  while (bypassed != 0) {
    const LONG found = InterlockedCompareExchange(&extension->RundownBypassCount, bypassed - 1, bypassed);
    if (found == bypassed) return;
    bypassed = found;
  }
  if (extension->RundownProtection != NULL) ExReleaseRundownProtectionCacheAware(extension->RundownProtection);
}

BOOLEAN CbtWaitForRemovalProtection(PDEVICE_OBJECT DeviceObject) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  if (extension->RundownProtection != NULL) {
    CbtReleaseRemovalProtection(DeviceObject);  // the device's own reference
    ExWaitForRundownProtectionReleaseCacheAware(extension->RundownProtection);
    ExFreePoolWithTag(extension->RundownProtection, CBT_POOL_TAG);
    extension->RundownProtection = NULL;
  }
  WriteRelease(&extension->RemovalState, CbtRemovalComplete);
  return TRUE;
}
