// Callbacks for code that forks daemons: the parent's list runs in the
// parent after the fork, the child's list in the daemon. ferrow itself
// never forks a daemon; the lists exist so that components that do can
// tell the logs.
#ifndef FERROW_COMMONS_DAEMON_HANDLERS_H_
#define FERROW_COMMONS_DAEMON_HANDLERS_H_

#include <functional>
#include <list>

namespace tovel {

typedef std::function<void()> DaemonHandler;
typedef std::list<DaemonHandler> DaemonHandlerList;

extern DaemonHandlerList parentDaemonHandlers;
extern DaemonHandlerList childDaemonHandlers;

}  // namespace tovel

#endif  // FERROW_COMMONS_DAEMON_HANDLERS_H_
