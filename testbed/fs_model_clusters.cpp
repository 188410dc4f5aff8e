// Which clusters of a model volume are in use, and how new ones are chosen.
#include <algorithm>

#include "fs_model_internal.h"

namespace kvtestbed::model {

void ClusterMap::Reset(uint64_t totalClusters) {
  used_.assign(totalClusters, false);
  free_ = totalClusters;
}

bool ClusterMap::IsFree(int64_t lcn, int64_t count) const {
  if (lcn < 0 || count < 0 || uint64_t(lcn) + uint64_t(count) > used_.size()) return false;
  for (int64_t i = 0; i < count; ++i)
    if (used_[lcn + i]) return false;
  return true;
}

void ClusterMap::Mark(int64_t lcn, int64_t count, bool used) {
  for (int64_t i = 0; i < count; ++i) {
    if (used_[lcn + i] == used) continue;
    used_[lcn + i] = used;
    free_ += used ? -1 : 1;
  }
}

void ClusterMap::MarkRuns(const std::vector<Run>& runs, bool used) {
  for (const Run& run : runs) Mark(run.Lcn, run.Clusters, used);
}

int64_t ClusterMap::FindFree(uint64_t count, int64_t from) const {
  uint64_t length = 0;
  for (uint64_t lcn = std::max<int64_t>(from, 0); lcn < used_.size(); ++lcn) {
    length = used_[lcn] ? 0 : length + 1;
    if (length == count) return static_cast<int64_t>(lcn + 1 - count);
  }
  return -1;
}

std::optional<std::vector<Run>> ClusterMap::Allocate(uint64_t count, unsigned pieces, std::optional<int64_t> after) {
  if (count == 0) return std::vector<Run>();
  if (count > free_) return std::nullopt;
  std::vector<Run> runs;
  uint64_t left = count;
  if (pieces > 1) {
    // Each piece starts a cluster past the end of the previous one, so no two touch.
    const uint64_t n = std::min<uint64_t>(pieces, count);
    int64_t from = after ? *after + 1 : 0;
    for (uint64_t i = 0; i < n && left != 0; ++i) {
      const uint64_t size = i + 1 == n ? left : count / n;
      const int64_t lcn = FindFree(size, from);
      if (lcn < 0) break;
      Mark(lcn, static_cast<int64_t>(size), true);
      runs.push_back({lcn, static_cast<int64_t>(size)});
      left -= size;
      from = lcn + static_cast<int64_t>(size) + 1;
    }
  } else {
    if (after) {
      // A growing file continues its last run where the clusters after it are free.
      int64_t lcn = *after;
      while (left != 0 && uint64_t(lcn) < used_.size() && !used_[lcn]) {
        ++lcn;
        --left;
      }
      if (lcn != *after) {
        Mark(*after, lcn - *after, true);
        runs.push_back({*after, lcn - *after});
      }
    }
    if (left != 0) {
      const int64_t lcn = FindFree(left, 0);
      if (lcn >= 0) {
        Mark(lcn, static_cast<int64_t>(left), true);
        runs.push_back({lcn, static_cast<int64_t>(left)});
        left = 0;
      }
    }
  }
  // What is still missing comes from the first free clusters, however scattered.
  for (uint64_t lcn = 0; left != 0 && lcn < used_.size(); ++lcn) {
    if (used_[lcn]) continue;
    Mark(static_cast<int64_t>(lcn), 1, true);
    AppendRuns(runs, {{static_cast<int64_t>(lcn), 1}});
    --left;
  }
  return runs;
}

void AppendRuns(std::vector<Run>& runs, const std::vector<Run>& added) {
  for (const Run& run : added) {
    if (run.Clusters == 0) continue;
    if (!runs.empty() && runs.back().Lcn + runs.back().Clusters == run.Lcn)
      runs.back().Clusters += run.Clusters;
    else
      runs.push_back(run);
  }
}

}  // namespace kvtestbed::model
