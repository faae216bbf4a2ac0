#pragma once

// RunEnv: what a Net asks about the machine it runs on. An environment names the key under which
// the layer classes are registered, may rewrite the graph once it is built, and has hooks around
// warm-up and run for a device that queues its work. There is no such device yet, but the interface
// is that of all environments; impl_x86/x86_run_env.h, the only one so far, leaves them empty.

#include <cstdint>

namespace TavroRTC::FDModule {

class Net;

namespace core {

class RunEnv {
 public:
  virtual ~RunEnv() = default;
  virtual int32_t key() const = 0;  ///< of the layer registry
  virtual void beginRun() {}
  virtual void endRun() {}
  virtual void flush() {}
  virtual void sync() {}
  virtual void beginWarmup() {}
  virtual void endWarmup() {}
  virtual bool prepare() { return false; }
  virtual bool rewriteGraph(Net* /*net*/) { return false; }
  virtual bool afterRun(Net* /*net*/) { return false; }
  virtual bool afterWarmup(Net* /*net*/) { return false; }

  bool deferred = false;       ///< layers only queue work; beginRun, endRun and sync wait for it
  bool halfPrecision = false;  ///< weights and activations live as half floats
};

}  // namespace core
}  // namespace TavroRTC::FDModule
