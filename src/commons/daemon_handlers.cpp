#include "commons/daemon_handlers.h"

namespace tovel {

DaemonHandlerList parentDaemonHandlers;
DaemonHandlerList childDaemonHandlers;

}  // namespace tovel
