// Tool runs and waits of a step, and the progress lines of long waits.
#include "progress.h"

namespace qzfi_host {

namespace {

constexpr std::chrono::milliseconds kTickInterval(250);

double secondsOf(CProgressWatch::Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

}  // namespace

CProgressWatch::CProgressWatch(Print print, Clock::duration idle, Clock::duration repeat)
    : m_print(std::move(print)), m_idle(idle), m_repeat(repeat) {}

CProgressWatch::~CProgressWatch() {
  stopTicking();
  if (m_installed) {
    qzfi_pdk_4_4::CFiExecPipeBase::setObserver(m_previous);
  }
}

void CProgressWatch::install() {
  if (!m_installed) {
    m_previous = qzfi_pdk_4_4::CFiExecPipeBase::setObserver(this);
    m_installed = true;
  }
}

void CProgressWatch::beginStep(const std::string& name, bool ticking) {
  beginStepAt(name, Clock::now());
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_telling = ticking;
  }
  // One thread for the whole run: a command has several steps, and a thread
  // started and joined per step costs more than the steps without a tool run.
  if (ticking && !m_ticker.joinable()) {
    m_stop = false;
    m_ticker = std::thread([this] { tick(); });
  }
}

CProgressWatch::Counts CProgressWatch::endStep() {
  return endStepAt(Clock::now());
}

void CProgressWatch::beginStepAt(const std::string& name, Clock::time_point now) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_inStep = true;
  m_step = name;
  m_running = false;
  m_idleSince = now;
  m_nextTell = now + m_idle;
  m_counts = Counts();
}

CProgressWatch::Counts CProgressWatch::endStepAt(Clock::time_point now) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (!m_running) {
    closePause(now);
  }
  m_inStep = false;
  return m_counts;
}

void CProgressWatch::started(const qzfi_pdk_4_4::tstring&) {
  startedAt(Clock::now());
}

void CProgressWatch::finished(const qzfi_pdk_4_4::tstring&, int, long long microseconds) {
  finishedAt(Clock::now(), microseconds);
}

void CProgressWatch::startedAt(Clock::time_point now) {
  std::lock_guard<std::mutex> guard(m_mutex);
  closePause(now);
  m_running = true;
  ++m_counts.toolRuns;
}

void CProgressWatch::finishedAt(Clock::time_point now, long long microseconds) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_running = false;
  m_idleSince = now;
  m_nextTell = now + m_idle;
  m_counts.toolSeconds += static_cast<double>(microseconds) / 1e6;
}

void CProgressWatch::closePause(Clock::time_point now) {
  if (m_inStep && now - m_idleSince >= m_idle) {
    m_counts.waitedSeconds += secondsOf(now - m_idleSince);
  }
  m_idleSince = now;
}

std::optional<std::string> CProgressWatch::poll(Clock::time_point now) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (!m_inStep || m_running || now < m_nextTell) {
    return std::nullopt;
  }
  m_nextTell = now + m_repeat;
  const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - m_idleSince).count();
  return "  ... " + m_step + ": waiting for disks to appear, " + std::to_string(waited) +
         " s so far (" + std::to_string(m_counts.toolRuns) + " tool runs)";
}

void CProgressWatch::tick() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_wake.wait_for(lock, kTickInterval, [this] { return m_stop; })) {
    if (!m_telling) {
      continue;
    }
    lock.unlock();
    std::optional<std::string> line = poll(Clock::now());
    if (line && m_print) {
      m_print(*line);
    }
    lock.lock();
  }
}

void CProgressWatch::stopTicking() {
  if (!m_ticker.joinable()) {
    return;
  }
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_stop = true;
  }
  m_wake.notify_all();
  m_ticker.join();
}

}  // namespace qzfi_host
