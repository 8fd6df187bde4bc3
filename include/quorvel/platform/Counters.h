#pragma once
/// @file
/// Process-wide counts of the library's work, for a host's diagnostics.

#include <cstdint>

#include "quorvel/Export.h"

/// Every counter, once, each with what it counts: X(name). Counters and the library's own
/// tally are both made from this list; a host may use it too, to print or export every
/// counter by name with a macro X of its own (qvl-demo does so).
// clang-format off
#define QVL_COUNTERS(X)                                                                     \
  X(requestsSent)            /* service requests the client started (records, views,     \
                                inbox, push endpoint) */                                     \
  X(requestsFailedTransport) /* of those, the ones that got no answer: a transport error, \
                                a connection refused by pinning included */                  \
  X(requestsFailedStatus)    /* of those, the ones answered with a status outside         \
                                200-299 */                                                   \
  X(pinningRefusals)         /* connections refused: no pinned key in the server's chain, \
                                or an API host without pins */                               \
  X(recordsRejected)         /* records of an answer refused for a missing or bad value */ \
  X(viewsQueued)             /* closed, valid post and beacon views handed over to send */ \
  X(viewsSent)               /* views the service answered for, accepting or refusing;    \
                                they leave the store */                                      \
  X(viewsKept)               /* views left in the store for a later batch: no answer */    \
  X(viewsWithoutGuest)       /* views not opened because the store holds no guest */       \
  X(advertisementsSeen)      /* Bluetooth device reports the device backend read */        \
  X(deviceMessagesDropped)   /* D-Bus messages dropped: the sender does not own the name  \
                                it speaks for */                                             \
  X(regionEntries)           /* region entries delivered to the location delegate */       \
  X(regionExits)             /* region exits delivered to the location delegate */         \
  X(storeOpens)              /* store files opened (a thread's first handle on a file) */  \
  X(storeOpenRetries)        /* 2 ms waits for another opener's lock on the store folder */
// clang-format on

namespace qvl {

/// A copy of every counter (see QVL_COUNTERS for what each counts), each the total since
/// the process started. Counters only grow; compare two snapshots to see what happened in
/// between.
struct Counters {
  /// @cond
#define QVL_COUNTER_FIELD(name) std::uint64_t name = 0;
  QVL_COUNTERS(QVL_COUNTER_FIELD)
#undef QVL_COUNTER_FIELD
  /// @endcond
};

/// The counters now. Thread-safe and lock-free, from any thread; never throws. Each
/// counter is read on its own, so a snapshot taken while work goes on is not one instant
/// across counters (a view may show as sent before it shows as queued).
QVL_EXPORT Counters countersSnapshot();

}  // namespace qvl
