#include "actions/transfer_progress.h"

namespace tovel {

TransferProgressListener* theTransferProgressListener = nullptr;

void reportTransferProgress(const TransferFigures& figures) {
  if (theTransferProgressListener != nullptr) {
    theTransferProgressListener->transferProgress(figures);
  }
}

}  // namespace tovel
