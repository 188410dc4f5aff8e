/* The state word of a tracked volume.
 *
 * Every volume the driver filters carries one 32-bit word of state bits. The driver
 * changes it as the volume goes through its life (arrival, online, mount, tracking-file
 * load, removal) and stamps it into every record of its debug log, so these names are the
 * vocabulary shared by the driver and the tools that read the log. Bits not named here
 * are never set. */
#ifndef KVCBT_DEVICE_FLAGS_H
#define KVCBT_DEVICE_FLAGS_H

#define CBT_FLAG_SURPRISE_REMOVED 0x00000001u     /* surprise removal or query-remove took the tracking file away */
#define CBT_FLAG_REMOVED 0x00000002u              /* removal of the volume has begun */
#define CBT_FLAG_SNAPSHOT_DEVICE 0x00000004u      /* the device is a volume shadow copy */
#define CBT_FLAG_SANDBOX_BASE_LAYER 0x00000008u   /* the volume is the sandbox base layer */
#define CBT_FLAG_USB 0x00000010u                  /* storage bus is USB */
#define CBT_FLAG_VHD 0x00000020u                  /* virtual disk */
#define CBT_FLAG_XVDD 0x00000040u                 /* Xvdd virtual disk */
#define CBT_FLAG_RECOVERY_PARTITION 0x00000080u   /* recovery partition */
#define CBT_FLAG_RESERVED_PARTITION 0x00000100u   /* Microsoft reserved partition */
#define CBT_FLAG_READ_ONLY 0x00000200u            /* volume write-protected or GPT read-only */
#define CBT_FLAG_ONLINE 0x00001000u               /* volume online */
#define CBT_FLAG_SIZE_CHANGED 0x00002000u         /* a size change was seen */
#define CBT_FLAG_BITLOCKER_LOCKED 0x00004000u     /* file system locked by BitLocker */
#define CBT_FLAG_WRITTEN 0x00008000u              /* a write reached the tracking path */
#define CBT_FLAG_TRACKING_ERROR 0x00010000u       /* a tracking-file flush failed */
#define CBT_FLAG_NEEDS_CHKDSK 0x00020000u         /* the file system asked for a check */
#define CBT_FLAG_MOUNT_LINK 0x00040000u           /* a mount-point link was seen */
#define CBT_FLAG_FILE_SYSTEM_READABLE 0x00080000u /* the file system can be read */
#define CBT_FLAG_FS_CONTEXT 0x00100000u           /* file-system reader ready; writes are tracked only while set */
#define CBT_FLAG_MOUNTED 0x00200000u              /* a file system is mounted */
#define CBT_FLAG_LOCKED 0x00400000u               /* volume locked */
#define CBT_FLAG_TRACKING_FILE_READY 0x01000000u  /* tracking file initialised */
#define CBT_FLAG_TRACKING_FILE_OPEN 0x02000000u   /* tracking-file handle open */
#define CBT_FLAG_FLUSH_METADATA 0x04000000u       /* a flush was requested by a metadata change or shutdown */
#define CBT_FLAG_BITMAP_DIRTY 0x08000000u         /* new bits were set by the write that requested the flush */
#define CBT_FLAG_MFT_ATTRIBUTE_LIST 0x20000000u   /* the NTFS $MFT base record carries an attribute list */
#define CBT_FLAG_TRACKING_VALID 0x40000000u       /* the tracking data can be trusted */
#define CBT_FLAG_SHUTDOWN 0x80000000u             /* the system is shutting down */

#endif /* KVCBT_DEVICE_FLAGS_H */
