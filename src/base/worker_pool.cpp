#include "base/worker_pool.h"

#include <algorithm>

namespace vx {
namespace {
thread_local bool t_insideTask = false;

int DefaultThreads() {
  const unsigned n = std::thread::hardware_concurrency();
  return static_cast<int>(std::clamp(n == 0 ? 2u : n, 1u, 8u));
}
}  // namespace

WorkerPool& WorkerPool::Shared() {
  static WorkerPool pool(DefaultThreads());
  return pool;
}

WorkerPool::WorkerPool(int threads) : threads_(std::max(threads, 1)) {}

WorkerPool::~WorkerPool() {
  Stop();
}

void WorkerPool::StartLocked() {
  if (!workers_.empty() || threads_ <= 1) return;
  stopping_ = false;
  try {
    for (int i = 1; i < threads_; ++i) workers_.emplace_back([this] { WorkerMain(); });
  } catch (...) {
    // Fewer workers than planned (a thread could not start): the caller does the rest.
  }
}

void WorkerPool::Stop() {
  std::lock_guard<std::mutex> batch(batchMutex_);
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    workers.swap(workers_);
  }
  wake_.notify_all();
  for (std::thread& t : workers) t.join();
}

void WorkerPool::RunTasks() {
  for (;;) {
    int index;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (next_ >= count_) return;
      index = next_++;
    }
    try {
      (*task_)(index);
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!error_) error_ = std::current_exception();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (++finished_ == count_) done_.notify_all();
  }
}

void WorkerPool::WorkerMain() {
  t_insideTask = true;
  std::uint64_t seen = 0;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
    if (stopping_) return;
    seen = generation_;
    ++active_;
    lock.unlock();
    RunTasks();
    lock.lock();
    if (--active_ == 0) done_.notify_all();
  }
}

void WorkerPool::ParallelFor(int count, const std::function<void(int)>& task) {
  if (count <= 0) return;
  std::unique_lock<std::mutex> batch(batchMutex_, std::defer_lock);
  if (count == 1 || t_insideTask || threads_ <= 1 || !batch.try_lock()) {
    for (int i = 0; i < count; ++i) task(i);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    StartLocked();
    task_ = &task;
    count_ = count;
    next_ = 0;
    finished_ = 0;
    error_ = nullptr;
    ++generation_;
  }
  wake_.notify_all();
  t_insideTask = true;
  RunTasks();
  t_insideTask = false;
  std::exception_ptr error;
  {
    // Wait for the last task and for every worker to have left the batch, so the task object
    // (the caller's) is not touched after we return.
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [&] { return finished_ == count_ && active_ == 0; });
    task_ = nullptr;
    count_ = 0;
    error = error_;
    error_ = nullptr;
  }
  if (error) std::rethrow_exception(error);
}

}  // namespace vx
