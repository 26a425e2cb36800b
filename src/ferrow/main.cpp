#include <signal.h>

#include <exception>
#include <iostream>
#include <log4cpp/Category.hh>

#include "commons/termination.h"
#include "errors/ex_traceable.h"
#include "errors/text_msg_formatter.h"
#include "ferrow/driver.h"

namespace {

int guardedMain(int argc, char** argv) {
  try {
    tovel::installTerminationHandlers();
    return tovel::real_main(argc, argv);
  } catch (const tovel::ExTraceable& e) {
    std::cerr << "Uncaught ExTraceableException: "
              << tovel::formatPlainTextMessage(e) << "\n";
  } catch (const std::exception& e) {
    std::cerr << "Uncaught std::exception: " << e.what() << "\n";
  } catch (...) {
    std::cerr << "Uncaught unknown exception\n";
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  // The launcher may have blocked signals; the run must see them all.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  int code = guardedMain(argc, argv);
  log4cpp::Category::shutdown();
  return code;
}
