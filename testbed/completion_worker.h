// The machine's storage thread (not a test control): completes the transfers of volumes set
// to complete asynchronously, from another thread at DISPATCH_LEVEL, as a disk's interrupt
// and DPC would, in the order they arrived.
#pragma once

#include <wdm.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace kvtestbed {
class Volume;
}

namespace kvtestbed::detail {

class CompletionWorker {
 public:
  CompletionWorker();
  ~CompletionWorker();  // the queue must be empty (Drain)
  CompletionWorker(const CompletionWorker&) = delete;
  CompletionWorker& operator=(const CompletionWorker&) = delete;

  // `irp` is marked pending; the thread carries it out and completes it.
  void Queue(Volume* volume, PIRP irp);
  // A volume's hold was released.
  void Wake();
  // Carries out every queued request, held ones included, and returns when none is left.
  void Drain();

 private:
  struct Request {
    Volume* Target;
    PIRP Irp;
  };
  void Run();
  // With the lock held: the index of the oldest request whose volume is not held.
  bool NextRunnable(size_t* index) const;

  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Request> queue_;
  bool draining_ = false;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace kvtestbed::detail
