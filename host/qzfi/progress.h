// What a plug-in does during one step, seen through the framework's pipe
// runner: how many tools it ran, and when it pauses between them. The
// plug-in runs its tools one after another on qzfi's thread and pauses only
// to let the volume manager see disks that are still appearing (its busy
// retries pause for a second, below the threshold), so a step without a tool
// run for a while is waiting for disks: a progress line says so while the
// wait lasts.
#ifndef QZFI_HOST_PROGRESS_H
#define QZFI_HOST_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <qzfi/execpipe.h>

namespace qzfi_host {

class CProgressWatch : public qzfi_pdk_4_4::CFiExecObserver {
 public:
  using Clock = std::chrono::steady_clock;
  using Print = std::function<void(const std::string& line)>;

  // What one step did.
  struct Counts {
    unsigned long toolRuns = 0;
    double toolSeconds = 0;    // the tools' time, as the runner measured it
    double waitedSeconds = 0;  // pauses of at least the idle threshold
  };

  // print gets each progress line; a pause of idle without a tool run is a
  // wait, told at once and then every repeat.
  explicit CProgressWatch(Print print, Clock::duration idle = std::chrono::seconds(2),
                          Clock::duration repeat = std::chrono::seconds(5));
  // Stops a running step and restores the previous observer.
  ~CProgressWatch() override;
  CProgressWatch(const CProgressWatch&) = delete;
  CProgressWatch& operator=(const CProgressWatch&) = delete;

  // Installs the watch as the framework's observer of tool runs.
  void install();

  // A step begins: counting starts, and with ticking a thread looks at the
  // clock a few times a second for waits to tell, until the watch goes.
  void beginStep(const std::string& name, bool ticking = true);
  Counts endStep();

  // The observer of the pipe runner.
  void started(const qzfi_pdk_4_4::tstring& command) override;
  void finished(const qzfi_pdk_4_4::tstring& command, int status, long long microseconds) override;

  // One look at the clock: the progress line due at now, if one is. The
  // thread calls it; tests call it with their own times.
  std::optional<std::string> poll(Clock::time_point now);
  // The step's start as if at time now (tests).
  void beginStepAt(const std::string& name, Clock::time_point now);
  Counts endStepAt(Clock::time_point now);
  void startedAt(Clock::time_point now);
  void finishedAt(Clock::time_point now, long long microseconds);

 private:
  void tick();
  void stopTicking();
  // A pause that ends at now, counted as a wait when it was long enough.
  void closePause(Clock::time_point now);

  Print m_print;
  Clock::duration m_idle;
  Clock::duration m_repeat;
  qzfi_pdk_4_4::CFiExecObserver* m_previous = nullptr;
  bool m_installed = false;

  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::thread m_ticker;
  bool m_stop = false;
  bool m_telling = false;  // the current step's waits are told
  bool m_inStep = false;
  std::string m_step;
  bool m_running = false;         // a tool runs now
  Clock::time_point m_idleSince;  // end of the last tool run, or the step's start
  Clock::time_point m_nextTell;   // when the current wait is told next
  Counts m_counts;
};

}  // namespace qzfi_host

#endif  // QZFI_HOST_PROGRESS_H
