#pragma once

// The detector module as the elements of a process share it. libtavro-core loads a file once, while
// a pipeline may hold any number of elements: the first one loads the module, the last one closes
// it, and each has an instance of its own.

#include <optional>
#include <string>

namespace tavro::gstreamer {

/// Why there is no detector: what the user can do something about, apart from the rest.
struct Failure {
  bool isMissing = false;  ///< the module's file isn't there
  std::string text;        ///< one line for the user
  std::string details;     ///< for the log, possibly empty
};

/// One element's share of a loaded module. May be used from any thread.
class SharedModule {
 public:
  /// Loads the module in `path`, or joins those who have. An empty path stands for the module
  /// beside libtavro-core. A module that the application itself has loaded is used and left to it.
  /// Empty if it fails.
  static std::optional<SharedModule> acquire(const std::string& path, Failure& failure);

  SharedModule(SharedModule&& other) noexcept;
  SharedModule& operator=(SharedModule&&) = delete;
  SharedModule(const SharedModule&) = delete;
  SharedModule& operator=(const SharedModule&) = delete;
  ~SharedModule();

  /// The name that the module has registered.
  const std::string& name() const { return name_; }

 private:
  explicit SharedModule(std::string name) : name_(std::move(name)) {}

  std::string name_;  ///< empty if there is nothing to release
};

}  // namespace tavro::gstreamer
