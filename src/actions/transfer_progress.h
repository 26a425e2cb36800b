// The figures of a content transfer as they change, for whoever watches the
// transfer besides the panel (which reads them from "migration.status").
#ifndef FERROW_ACTIONS_TRANSFER_PROGRESS_H_
#define FERROW_ACTIONS_TRANSFER_PROGRESS_H_

#include <cstdint>

namespace tovel {

// The same figures that the transfer writes into the status document.
struct TransferFigures {
  int64_t filesTotal = 0;
  int64_t filesLeft = 0;
  int64_t sizeTotal = 0;  // bytes
  int64_t sizeLeft = 0;   // bytes; below zero when files outgrow the list
  int64_t speed = 0;      // bytes per second since the transfer began
};

class TransferProgressListener {
 public:
  virtual ~TransferProgressListener() = default;
  // Told the figures after each change has been saved. Must not throw: a
  // watcher never stops a transfer.
  virtual void transferProgress(const TransferFigures& figures) = 0;
};

}  // namespace tovel

#endif  // FERROW_ACTIONS_TRANSFER_PROGRESS_H_
