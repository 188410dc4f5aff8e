// The storage thread.
#include "completion_worker.h"

#include "kvhost/irql.h"
#include "kvtestbed/volume.h"

namespace kvtestbed::detail {

CompletionWorker::CompletionWorker() : thread_([this] { Run(); }) {}

CompletionWorker::~CompletionWorker() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void CompletionWorker::Queue(Volume* volume, PIRP irp) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    queue_.push_back({volume, irp});
  }
  changed_.notify_all();
}

void CompletionWorker::Wake() {
  { std::lock_guard<std::mutex> guard(lock_); }
  changed_.notify_all();
}

void CompletionWorker::Drain() {
  std::unique_lock<std::mutex> lock(lock_);
  draining_ = true;
  changed_.notify_all();
  changed_.wait(lock, [&] { return queue_.empty() && !busy_; });
  draining_ = false;
}

bool CompletionWorker::NextRunnable(size_t* index) const {
  for (size_t i = 0; i < queue_.size(); ++i) {
    if (draining_ || !queue_[i].Target->CompletionsHeld()) {
      *index = i;
      return true;
    }
  }
  return false;
}

void CompletionWorker::Run() {
  std::unique_lock<std::mutex> lock(lock_);
  for (;;) {
    size_t index = 0;
    changed_.wait(lock, [&] { return stopping_ || NextRunnable(&index); });
    if (stopping_) return;
    Request request = queue_[index];
    queue_.erase(queue_.begin() + static_cast<std::ptrdiff_t>(index));
    busy_ = true;
    lock.unlock();
    kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { request.Target->Transfer(request.Irp); });
    lock.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

}  // namespace kvtestbed::detail
