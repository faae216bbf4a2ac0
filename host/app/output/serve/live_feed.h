#pragma once

// LiveFeed: the latest picture and the latest result, for any number of viewers on threads of their
// own. Publishing never waits for a viewer, and a viewer always gets the latest there is: a slow
// one misses what came in between.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace tavro::host {

class LiveFeed {
 public:
  using Bytes = std::shared_ptr<const std::string>;

  void publish(std::string bytes) {
    auto latest = std::make_shared<const std::string>(std::move(bytes));
    const std::lock_guard lock(mutex_);
    latest_ = std::move(latest);
    ++number_;
    changed_.notify_all();
  }

  /// No more will come. A viewer that hasn't had what was published last still gets it.
  void close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

  /// Waits for something newer than number `seen`, and sets `seen` to its number. Null at the end,
  /// or if nothing comes for a while; isClosed() says which.
  Bytes next(uint64_t& seen) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return number_ != seen || closed_; });
    if (number_ == seen)
      return nullptr;
    seen = number_;
    return latest_;
  }

  bool isClosed() const {
    const std::lock_guard lock(mutex_);
    return closed_;
  }

  // A viewer joins before its first next() and leaves when it has sent all that it got.
  void join() {
    const std::lock_guard lock(mutex_);
    ++viewers_;
  }
  void leave() {
    const std::lock_guard lock(mutex_);
    --viewers_;
    changed_.notify_all();
  }
  int viewers() const {
    const std::lock_guard lock(mutex_);
    return viewers_;
  }
  /// Waits until all have left, but not beyond `end`.
  void waitUntilLeft(std::chrono::steady_clock::time_point end) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, end, [this] { return viewers_ == 0; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Bytes latest_;
  uint64_t number_ = 0;
  int viewers_ = 0;
  bool closed_ = false;
};

}  // namespace tavro::host
