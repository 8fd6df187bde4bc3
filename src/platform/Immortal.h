#pragma once
// Process-wide objects that are never destroyed.

namespace qvl::detail {

/// The one default-constructed instance of T, built on first use (thread-safe) and never
/// destroyed, because worker and network threads may still reach it while static objects
/// are being destroyed at exit. Objects that must stop threads at exit do so from a guard
/// of their own.
template <class T>
T& immortal() {
  static T* instance = new T();
  return *instance;
}

}  // namespace qvl::detail
