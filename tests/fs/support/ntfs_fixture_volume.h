/* What the fixtures do to an NTFS image through libntfs-3g, an NTFS implementation of its
 * own: fill a volume so that its $MFT carries an attribute list, find $LogFile's clusters,
 * and build restart pages by libntfs-3g's description of the log's layout. Kept apart from
 * the driver's reader, so that the tests compare the reader with an independent one. */
#ifndef KVFS_NTFS_FIXTURE_VOLUME_H
#define KVFS_NTFS_FIXTURE_VOLUME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Gives the $MFT base record of the image an attribute list, then fills the volume with a
 * file of bigBytes and `files` small files, so that $MFT grows in fragments. 0 or -errno. */
int kvfs_add_mft_attribute_list(const char* path, int files, int64_t bigBytes);

/* The volume as libntfs-3g reads it. 0 or -errno. */
struct kvfs_geometry {
  uint32_t sector_size;
  uint32_t cluster_size;
  uint32_t mft_record_size;
  int64_t total_clusters;
  int64_t mft_lcn;
  char label[256]; /* UTF-8 */
};
int kvfs_volume_geometry(const char* path, struct kvfs_geometry* geometry);

struct kvfs_run {
  int64_t vcn;
  int64_t lcn; /* negative for a hole */
  int64_t clusters;
};

/* $LogFile's runs (at most maxRuns), the cluster size and the file's size. The number of
 * runs, or -errno. */
int kvfs_log_file_runs(const char* path, struct kvfs_run* runs, int maxRuns, uint32_t* clusterSize,
                       int64_t* dataSize);

/* The mapping pairs of the unnamed $DATA of file record `inode`, encoded by libntfs-3g into
 * `pairs` (at most maxBytes, with the terminating zero). Their length, or -errno. */
int kvfs_data_mapping_pairs(const char* path, uint64_t inode, uint8_t* pairs, int maxBytes);

/* Fills the 4096 bytes at `page` with a restart page: the signature ("RSTR" or "CHKD"), a
 * restart area at areaOffset with the count, the current LSN and the flags, one log client;
 * protected by its update sequence array. 0 or -1. */
int kvfs_build_restart_page(uint8_t* page, const char* signature, uint16_t areaOffset, uint32_t restartCount,
                            int64_t currentLsn, uint16_t flags);

/* Undoes (unprotect) or applies (protect) the update sequence protection of a file record or
 * log page of `size` bytes in place, as libntfs-3g does after reading and before writing.
 * 0, or -1 when the bytes are not protected as their header says. */
int kvfs_unprotect(uint8_t* record, uint32_t size);
int kvfs_protect(uint8_t* record, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
