/* libntfs-3g's side of the fixtures. */
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <ntfs-3g/types.h>
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logfile.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/mst.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>

#include "ntfs_fixture_volume.h"

static void quiet(void) { ntfs_log_set_handler(ntfs_log_handler_null); }

static int create_file(ntfs_inode* dir, const char* name, const char* data, int64_t bytes) {
  ntfschar* uname = NULL;
  int len = ntfs_mbstoucs(name, &uname);
  if (len < 0) return -errno;
  ntfs_inode* ni = ntfs_create(dir, const_cpu_to_le32(0), uname, (u8)len, S_IFREG);
  free(uname);
  if (ni == NULL) return -errno;
  int result = 0;
  if (bytes > 0) {
    ntfs_attr* na = ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0);
    if (na == NULL) {
      result = -errno;
    } else {
      for (int64_t done = 0; done < bytes && result == 0;) {
        int64_t chunk = bytes - done < (1 << 20) ? bytes - done : (1 << 20);
        if (ntfs_attr_pwrite(na, done, chunk, data) != chunk) result = errno ? -errno : -EIO;
        done += chunk;
      }
      ntfs_attr_close(na);
    }
  }
  /* Closing syncs the inode; with $MFT carrying an attribute list libntfs-3g reports EIO for
   * some of them although the volume checks clean afterwards (ntfsfix, the tests' reads). */
  ntfs_inode_close(ni);
  return result;
}

int kvfs_add_mft_attribute_list(const char* path, int files, int64_t bigBytes) {
  quiet();
  ntfs_volume* vol = ntfs_mount(path, NTFS_MNT_NONE);
  if (vol == NULL) return -errno;
  int result = ntfs_inode_add_attrlist(vol->mft_ni) == 0 ? 0 : -errno;
  ntfs_inode* root = result == 0 ? ntfs_inode_open(vol, FILE_root) : NULL;
  if (result == 0 && root == NULL) result = -errno;
  /* Data that is not zero: libntfs-3g would leave zeros out as holes. */
  char* data = malloc(1 << 20);
  if (data == NULL)
    result = -ENOMEM;
  else
    memset(data, 'k', 1 << 20);
  /* The big file takes the data zone, so that $MFT's later extensions and the small files'
   * clusters interleave: every sixteenth file has a cluster of data. */
  if (result == 0 && bigBytes > 0) result = create_file(root, "filler", data, bigBytes);
  for (int i = 0; result == 0 && i < files; ++i) {
    char name[32];
    snprintf(name, sizeof(name), "f%05d", i);
    result = create_file(root, name, data, i % 16 == 0 ? 1000 : 0);
  }
  free(data);
  if (root != NULL && ntfs_inode_close(root) != 0 && result == 0) result = -errno;
  if (ntfs_umount(vol, FALSE) != 0 && result == 0) result = -errno;
  return result;
}

int kvfs_volume_geometry(const char* path, struct kvfs_geometry* geometry) {
  quiet();
  ntfs_volume* vol = ntfs_mount(path, NTFS_MNT_RDONLY);
  if (vol == NULL) return -errno;
  memset(geometry, 0, sizeof(*geometry));
  geometry->sector_size = vol->sector_size;
  geometry->cluster_size = vol->cluster_size;
  geometry->mft_record_size = vol->mft_record_size;
  geometry->total_clusters = vol->nr_clusters;
  geometry->mft_lcn = vol->mft_lcn;
  if (vol->vol_name != NULL) snprintf(geometry->label, sizeof(geometry->label), "%s", vol->vol_name);
  ntfs_umount(vol, FALSE);
  return 0;
}

int kvfs_log_file_runs(const char* path, struct kvfs_run* runs, int maxRuns, uint32_t* clusterSize,
                       int64_t* dataSize) {
  quiet();
  ntfs_volume* vol = ntfs_mount(path, NTFS_MNT_RDONLY);
  if (vol == NULL) return -errno;
  int result = 0;
  ntfs_inode* ni = ntfs_inode_open(vol, FILE_LogFile);
  ntfs_attr* na = ni != NULL ? ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0) : NULL;
  if (na == NULL || ntfs_attr_map_whole_runlist(na) != 0) {
    result = -errno;
  } else {
    *clusterSize = vol->cluster_size;
    *dataSize = na->data_size;
    for (const runlist_element* rl = na->rl; rl->length != 0; ++rl) {
      if (result >= maxRuns) {
        result = -ENOSPC;
        break;
      }
      runs[result].vcn = rl->vcn;
      runs[result].lcn = rl->lcn;
      runs[result].clusters = rl->length;
      ++result;
    }
  }
  if (na != NULL) ntfs_attr_close(na);
  if (ni != NULL) ntfs_inode_close(ni);
  ntfs_umount(vol, FALSE);
  return result;
}

int kvfs_data_mapping_pairs(const char* path, uint64_t inode, uint8_t* pairs, int maxBytes) {
  quiet();
  ntfs_volume* vol = ntfs_mount(path, NTFS_MNT_RDONLY);
  if (vol == NULL) return -errno;
  int result = -EIO;
  ntfs_inode* ni = ntfs_inode_open(vol, inode);
  ntfs_attr* na = ni != NULL ? ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0) : NULL;
  if (na != NULL && ntfs_attr_map_whole_runlist(na) == 0) {
    const int size = ntfs_get_size_for_mapping_pairs(vol, na->rl, 0, INT32_MAX);
    if (size > 0 && size <= maxBytes && ntfs_mapping_pairs_build(vol, pairs, maxBytes, na->rl, 0, NULL) == 0)
      result = size;
  }
  if (na != NULL) ntfs_attr_close(na);
  if (ni != NULL) ntfs_inode_close(ni);
  ntfs_umount(vol, FALSE);
  return result;
}

int kvfs_build_restart_page(uint8_t* page, const char* signature, uint16_t areaOffset, uint32_t restartCount,
                            int64_t currentLsn, uint16_t flags) {
  enum { kPage = 4096 };
  memset(page, 0, kPage);
  RESTART_PAGE_HEADER* header = (RESTART_PAGE_HEADER*)page;
  memcpy(&header->magic, signature, 4);
  header->usa_ofs = cpu_to_le16(offsetof(RESTART_PAGE_HEADER, usn));
  header->usa_count = cpu_to_le16(kPage / NTFS_BLOCK_SIZE + 1);
  header->system_page_size = cpu_to_le32(kPage);
  header->log_page_size = cpu_to_le32(kPage);
  header->restart_area_offset = cpu_to_le16(areaOffset);
  header->minor_ver = cpu_to_sle16(1);
  header->major_ver = cpu_to_sle16(1);
  if ((size_t)areaOffset + sizeof(RESTART_AREA) + sizeof(LOG_CLIENT_RECORD) > kPage) return -1;

  RESTART_AREA* area = (RESTART_AREA*)(page + areaOffset);
  area->current_lsn = cpu_to_sle64(currentLsn);
  area->log_clients = cpu_to_le16(1);
  area->client_free_list = LOGFILE_NO_CLIENT;
  area->client_in_use_list = cpu_to_le16(0);
  area->flags = cpu_to_le16(flags);
  area->seq_number_bits = cpu_to_le32(44);
  area->restart_area_length = cpu_to_le16(sizeof(RESTART_AREA) + sizeof(LOG_CLIENT_RECORD));
  area->client_array_offset = cpu_to_le16(sizeof(RESTART_AREA));
  area->file_size = cpu_to_sle64(4 << 20);
  area->log_record_header_length = cpu_to_le16(0x30);
  area->log_page_data_offset = cpu_to_le16(0x40);
  area->restart_log_open_count = cpu_to_le32(restartCount);

  LOG_CLIENT_RECORD* client = (LOG_CLIENT_RECORD*)(page + areaOffset + sizeof(RESTART_AREA));
  client->prev_client = LOGFILE_NO_CLIENT;
  client->next_client = LOGFILE_NO_CLIENT;
  client->client_name_length = cpu_to_le32(8);
  const char* name = "NTFS";
  for (int i = 0; i < 4; ++i) client->client_name[i] = cpu_to_le16(name[i]);

  return ntfs_mst_pre_write_fixup((NTFS_RECORD*)page, kPage) == 0 ? 0 : -1;
}

int kvfs_unprotect(uint8_t* record, uint32_t size) {
  quiet();
  return ntfs_mst_post_read_fixup((NTFS_RECORD*)record, size) == 0 ? 0 : -1;
}

int kvfs_protect(uint8_t* record, uint32_t size) {
  quiet();
  return ntfs_mst_pre_write_fixup((NTFS_RECORD*)record, size) == 0 ? 0 : -1;
}
