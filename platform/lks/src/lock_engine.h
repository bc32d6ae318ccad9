// lock_engine.h - what a lock store must offer the named-lock service.
//
// The service keeps the bookkeeping (which handle holds which names, the
// status record, the timeout); an engine only knows how to take and give
// back one hold on one name. One engine per registry engine; make_engine()
// picks it from the registry location.
#ifndef LKS_LOCK_ENGINE_H
#define LKS_LOCK_ENGINE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "hvs/holds.h"

namespace lks {

enum class Mode { Shared, Exclusive };

// One granted hold. What the value means is the engine's business (a file
// descriptor for file locks); the service only keeps it and hands it back.
using Token = std::intptr_t;

// Outcome of an engine call: an LKS_* code, the errno behind it, a message.
struct Outcome {
  int32_t code = 0;
  int err = 0;
  std::string message;
  static Outcome ok() { return {}; }
};

class LockEngine {
public:
  virtual ~LockEngine() = default;
  // Waits up to timeout for a hold of name in mode; on success *token
  // holds it until release(). Fails with LKS_ERR_TIMEOUT when another
  // holder kept it for the whole time.
  virtual Outcome acquire(const std::string &name, Mode mode, std::chrono::milliseconds timeout,
                          Token *token) = 0;
  // Gives back one hold. Never fails for a token from acquire(), but for
  // LKS_ERR_LOST when the engine knows the lock was taken from its holder.
  virtual Outcome release(Token token) = 0;
  // What a fenced write checks to prove the hold (hvs/holds.h); "" for none.
  virtual std::string fence(Token) const { return {}; }
  // The registry client's record of the hold, for the engine to mark lost
  // when it learns of the loss first.
  virtual void attach(Token, hvs_hold *) {}
};

// The engine for the location the registry client would use; nullptr with
// *why filled when none can be had.
std::unique_ptr<LockEngine> make_engine(Outcome *why);

} // namespace lks
#endif
