#pragma once
// A test's own context, in force on the test's thread for the object's life.

#include <functional>

#include "quorvel/managers/Context.h"

namespace qvl::test {

/// Builds a context from the environment in force here with `change` applied (or from
/// `env`) and puts it in force on this thread until destroyed. Nested ones start from the
/// enclosing one's environment, with objects (managers, client, defaults) of their own.
class ScopedContext {
 public:
  explicit ScopedContext(const std::function<void(Env&)>& change)
      : context_(change), scope_(context_) {}
  explicit ScopedContext(Env env) : context_(std::move(env)), scope_(context_) {}

  Context& context() { return context_; }

 private:
  Context context_;
  Context::Scope scope_;
};

}  // namespace qvl::test

namespace qvl::test {

/// `work`, made to run in the context in force here now, on whichever thread runs it: for a
/// test's own threads.
inline std::function<void()> inThisContext(std::function<void()> work) {
  return inCurrentContext(std::move(work));
}

}  // namespace qvl::test
