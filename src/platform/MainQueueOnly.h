#pragma once

namespace qvl::detail {

// The entry check of an operation that runs on the main queue only. Off the queue's thread
// a debug build asserts; a release build logs one error per operation per process
// ("<operation> was called off the main queue") and returns false, so the operation can
// refuse the call. An unbound queue adopts the calling thread (MainQueue::adoptCallingThread).
bool requireMainQueue(const char* operation);

}  // namespace qvl::detail
