// One small pool of worker threads for the whole component: frame decoders split a picture into
// bands on it instead of starting threads per frame.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vx {

class WorkerPool {
 public:
  // The component's pool: min(processors, 8) threads in all, the caller counted as one.
  static WorkerPool& Shared();

  explicit WorkerPool(int threads);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Threads that work on a ParallelFor, the caller included.
  int Concurrency() const { return threads_; }

  // Calls task(0) ... task(count - 1) on the workers and the calling thread and returns when all
  // have run. The first exception a task throws is rethrown here after the rest finished. A call
  // from inside a task, or while another thread's batch runs, does its tasks on the caller alone,
  // so nothing can deadlock.
  void ParallelFor(int count, const std::function<void(int)>& task);

  // Joins the workers (before the module may be unloaded); they start again when needed.
  void Stop();

 private:
  void StartLocked();
  void WorkerMain();
  void RunTasks();

  const int threads_;
  std::mutex batchMutex_;  // one batch at a time
  std::mutex mutex_;
  std::condition_variable wake_, done_;
  std::vector<std::thread> workers_;
  bool stopping_ = false;
  std::uint64_t generation_ = 0;
  const std::function<void(int)>* task_ = nullptr;
  int count_ = 0;
  int next_ = 0;
  int finished_ = 0;
  int active_ = 0;  // workers inside the current batch
  std::exception_ptr error_;
};

}  // namespace vx
