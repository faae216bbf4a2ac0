#pragma once

// TaskPool: a few threads that share out numbered tasks. They wait for work as long as the pool
// lives; the caller of run() takes part.

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavro::host {

class TaskPool {
 public:
  /// With `helpers` threads beside the caller, or fewer if the system has no more or there is no
  /// memory for them: only the time depends on it.
  explicit TaskPool(size_t helpers) {
    threads_.reserve(helpers);
    try {
      for (size_t i = 0; i < helpers; ++i)
        threads_.emplace_back([this] { help(); });
    } catch (const std::exception&) {
    }
  }
  ~TaskPool() {
    {
      const std::lock_guard lock(mutex_);
      isClosing_ = true;
    }
    begun_.notify_all();
    for (std::thread& thread : threads_)
      thread.join();
  }
  TaskPool(const TaskPool&) = delete;
  TaskPool& operator=(const TaskPool&) = delete;

  size_t threads() const { return threads_.size() + 1; }

  /// Calls task(0) to task(count - 1), each once, on any of the threads, and returns when all are
  /// done. Tasks throw nothing. One run at a time.
  void run(size_t count, const std::function<void(size_t)>& task) {
    std::unique_lock lock(mutex_);
    task_ = &task;
    next_ = 0;
    left_ = count_ = count;
    if (count > 1)
      begun_.notify_all();
    work(lock);
    finished_.wait(lock, [this] { return left_ == 0; });
  }

 private:
  void help() {
    std::unique_lock lock(mutex_);
    for (;;) {
      begun_.wait(lock, [this] { return isClosing_ || next_ < count_; });
      if (isClosing_)
        return;
      work(lock);
    }
  }

  void work(std::unique_lock<std::mutex>& lock) {
    while (next_ < count_) {
      const size_t index = next_++;
      lock.unlock();
      (*task_)(index);
      lock.lock();
      if (--left_ == 0)
        finished_.notify_one();
    }
  }

  std::mutex mutex_;  ///< guards all below but the threads
  std::condition_variable begun_;
  std::condition_variable finished_;
  const std::function<void(size_t)>* task_ = nullptr;
  size_t next_ = 0;
  size_t count_ = 0;
  size_t left_ = 0;
  bool isClosing_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace tavro::host
