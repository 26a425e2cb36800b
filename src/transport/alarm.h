// Alarm: work that a long remote command lets run on the main thread at
// each wait round (the dump's periodic status pull).
#ifndef FERROW_TRANSPORT_ALARM_H_
#define FERROW_TRANSPORT_ALARM_H_

namespace tovel {

class Alarm {
 public:
  virtual ~Alarm() = default;
  // May run further commands on the same Ssh; may unregister itself.
  virtual void doAlarm() = 0;
};

}  // namespace tovel

#endif  // FERROW_TRANSPORT_ALARM_H_
