// Running a command line through pipes, and the test seam that answers
// command lines without running anything.
#include "qzfi/execpipe.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

extern char** environ;

namespace qzfi_pdk_4_4 {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTimedOutStatus = 124;
constexpr int kSignalStatusBase = 128;
constexpr size_t kReadChunk = 65536;

// ---------------------------------------------------------------------------
// File descriptors and pipes.

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : m_fd(fd) {}
  Fd(Fd&& other) noexcept : m_fd(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  int get() const { return m_fd; }
  bool isOpen() const { return m_fd >= 0; }
  int release() { return std::exchange(m_fd, -1); }
  void reset(int fd = -1) {
    if (m_fd >= 0) {
      close(m_fd);
    }
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

tstring errnoText(const char* what, int err) {
  return tstring(what) + ": " + CFiPlatformError::returnErrorMsg(err);
}

// Both ends close on exec, and neither takes 0, 1 or 2: the child's standard
// streams are made from them with dup2, which would be a no-op on the same
// number and leave the close-on-exec flag set.
void makePipe(Fd& readEnd, Fd& writeEnd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    throw EFiExecPipe(errnoText("CFiExecPipePosix: pipe failed", errno));
  }
  Fd ends[2] = {Fd(fds[0]), Fd(fds[1])};
  for (Fd& end : ends) {
    if (end.get() <= STDERR_FILENO) {
      int raised = fcntl(end.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
      if (raised < 0) {
        throw EFiExecPipe(errnoText("CFiExecPipePosix: pipe failed", errno));
      }
      end.reset(raised);
    }
  }
  readEnd = std::move(ends[0]);
  writeEnd = std::move(ends[1]);
}

// ---------------------------------------------------------------------------
// The child's environment: the host's, with LC_ALL=C so that the tools print
// the texts their callers parse, then the caller's own settings (which may
// override LC_ALL on purpose).

tstring variableName(const tstring& setting) {
  return setting.substr(0, setting.find('='));
}

std::vector<tstring> childEnvironment(const tstring& extra) {
  std::vector<tstring> settings{"LC_ALL=C"};
  std::istringstream pieces(extra);
  for (tstring piece; std::getline(pieces, piece, ';');) {
    if (piece.find('=') != tstring::npos && piece.front() != '=') {
      settings.push_back(piece);
    }
  }
  std::map<tstring, tstring> byName;
  for (const tstring& setting : settings) {
    byName[variableName(setting)] = setting;
  }
  std::vector<tstring> env;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (byName.count(variableName(*entry)) == 0) {
      env.emplace_back(*entry);
    }
  }
  for (const auto& named : byName) {
    env.push_back(named.second);
  }
  return env;
}

std::vector<char*> pointersTo(std::vector<tstring>& texts) {
  std::vector<char*> pointers;
  for (tstring& text : texts) {
    pointers.push_back(&text[0]);
  }
  pointers.push_back(nullptr);
  return pointers;
}

// ---------------------------------------------------------------------------
// Starting the child: /bin/sh -c in a process group of its own, standard
// streams on the pipes, every other descriptor closed, default signals.

struct ChildStreams {
  Fd input;   // the child's standard input, our write end
  Fd output;  // its standard output, our read end
  Fd error;   // its standard error, our read end
};

// Every step of the set-up is checked: a child that would start without its
// pipes or with the host's descriptors must not start at all.
void checkSetup(int err, const char* step) {
  if (err != 0) {
    throw EFiExecPipe(errnoText((tstring("CFiExecPipePosix: ") + step).c_str(), err));
  }
}

class SpawnSetup {
 public:
  SpawnSetup() {
    checkSetup(posix_spawn_file_actions_init(&m_actions), "spawn set-up failed");
    int err = posix_spawnattr_init(&m_attributes);
    if (err != 0) {
      posix_spawn_file_actions_destroy(&m_actions);
      checkSetup(err, "spawn set-up failed");
    }
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&m_actions);
    posix_spawnattr_destroy(&m_attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  void streams(int in, int out, int err) {
    checkSetup(posix_spawn_file_actions_adddup2(&m_actions, in, STDIN_FILENO),
               "dup2 set-up failed");
    checkSetup(posix_spawn_file_actions_adddup2(&m_actions, out, STDOUT_FILENO),
               "dup2 set-up failed");
    checkSetup(posix_spawn_file_actions_adddup2(&m_actions, err, STDERR_FILENO),
               "dup2 set-up failed");
    // Descriptors the host opened without close-on-exec stay out of the child.
    checkSetup(posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1),
               "closefrom set-up failed");
  }
  void directory(const tstring& dir) {
    if (!dir.empty()) {
      checkSetup(posix_spawn_file_actions_addchdir_np(&m_actions, dir.c_str()),
                 "chdir set-up failed");
    }
  }
  // Own process group, so that a limit can kill the command's children too;
  // default dispositions and an empty mask, whatever the host set.
  void processGroupAndSignals() {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    checkSetup(posix_spawnattr_setpgroup(&m_attributes, 0), "process group set-up failed");
    checkSetup(posix_spawnattr_setsigdefault(&m_attributes, &all), "signal set-up failed");
    checkSetup(posix_spawnattr_setsigmask(&m_attributes, &none), "signal set-up failed");
    checkSetup(
        posix_spawnattr_setflags(
            &m_attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK),
        "spawn flags set-up failed");
  }
  pid_t spawn(const tstring& command, const tstring& extraEnv) {
    std::vector<tstring> argv{"sh", "-c", command};
    std::vector<tstring> env = childEnvironment(extraEnv);
    std::vector<char*> argvPointers = pointersTo(argv);
    std::vector<char*> envPointers = pointersTo(env);
    pid_t pid = -1;
    int err = posix_spawn(&pid, "/bin/sh", &m_actions, &m_attributes, argvPointers.data(),
                          envPointers.data());
    if (err != 0) {
      throw EFiExecPipe(
          errnoText(("CFiExecPipePosix: cannot start '" + command + "'").c_str(), err));
    }
    return pid;
  }

 private:
  posix_spawn_file_actions_t m_actions;
  posix_spawnattr_t m_attributes;
};

pid_t startChild(const tstring& command, const tstring& directory, const tstring& environment,
                 ChildStreams& parentEnds) {
  Fd childIn;
  Fd childOut;
  Fd childErr;
  makePipe(childIn, parentEnds.input);
  makePipe(parentEnds.output, childOut);
  makePipe(parentEnds.error, childErr);
  SpawnSetup setup;
  setup.streams(childIn.get(), childOut.get(), childErr.get());
  setup.directory(directory);
  setup.processGroupAndSignals();
  return setup.spawn(command, environment);
}

// ---------------------------------------------------------------------------
// Talking to the child: feed its input, read both output streams apart until
// they close, all under one deadline.

class Deadline {
 public:
  explicit Deadline(int limitSeconds)
      : m_limited(limitSeconds > 0), m_end(Clock::now() + std::chrono::seconds(limitSeconds)) {}
  // Milliseconds for poll: -1 without a limit, 0 once it has run out.
  int pollTimeout() const {
    if (!m_limited) {
      return -1;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_end - Clock::now());
    // Rounded up, so that poll never returns just before the end and spins.
    return left.count() <= 0 ? 0 : static_cast<int>(left.count()) + 1;
  }
  bool expired() const { return m_limited && Clock::now() >= m_end; }

 private:
  bool m_limited;
  Clock::time_point m_end;
};

// A write to a command that has stopped reading must fail with EPIPE, not
// kill the host: SIGPIPE is blocked in this thread while input is fed, and a
// SIGPIPE raised by those writes is consumed before it is unblocked.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&m_pipeOnly);
    sigaddset(&m_pipeOnly, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &m_pipeOnly, &m_previous);
  }
  ~SigpipeBlock() {
    if (!m_wasPending) {
      timespec now{0, 0};
      while (sigtimedwait(&m_pipeOnly, nullptr, &now) == SIGPIPE) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;

 private:
  sigset_t m_pipeOnly;
  sigset_t m_previous;
  bool m_wasPending = false;
};

struct Collected {
  tstring output;
  tstring error;
  bool timedOut = false;
};

// Reads what is there; closes the stream at its end or on a hard error.
void drain(Fd& stream, tstring& into) {
  char buf[kReadChunk];
  ssize_t got = read(stream.get(), buf, sizeof buf);
  if (got > 0) {
    into.append(buf, static_cast<size_t>(got));
  } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
    stream.reset();
  }
}

// Writes what the pipe takes; closes it when all is written or the command
// no longer reads.
void feed(Fd& stream, const tstring& input, size_t& fed) {
  ssize_t put = write(stream.get(), input.data() + fed, input.size() - fed);
  if (put > 0) {
    fed += static_cast<size_t>(put);
  } else if (errno != EINTR && errno != EAGAIN) {
    stream.reset();
  }
  if (fed == input.size()) {
    stream.reset();
  }
}

void exchange(ChildStreams& streams, const tstring& input, const Deadline& deadline,
              Collected& collected) {
  size_t fed = 0;
  if (input.empty()) {
    streams.input.reset();
  } else {
    fcntl(streams.input.get(), F_SETFL, fcntl(streams.input.get(), F_GETFL) | O_NONBLOCK);
  }
  while (streams.output.isOpen() || streams.error.isOpen()) {
    if (deadline.expired()) {
      collected.timedOut = true;
      return;
    }
    pollfd fds[3] = {{streams.output.get(), POLLIN, 0},
                     {streams.error.get(), POLLIN, 0},
                     {streams.input.get(), POLLOUT, 0}};
    int ready = poll(fds, 3, deadline.pollTimeout());
    if (ready < 0 && errno != EINTR) {
      throw EFiExecPipe(errnoText("CFiExecPipePosix: poll failed", errno));
    }
    if (ready <= 0) {
      continue;
    }
    if (fds[0].revents != 0) {
      drain(streams.output, collected.output);
    }
    if (fds[1].revents != 0) {
      drain(streams.error, collected.error);
    }
    if (fds[2].revents != 0) {
      feed(streams.input, input, fed);
    }
  }
}

// ---------------------------------------------------------------------------
// Waiting for the child, also under the deadline: its streams may close
// before it ends.

int openPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

// False when the deadline passed first.
bool awaitExit(pid_t pid, const Deadline& deadline) {
  Fd exited(openPidFd(pid));
  if (!exited.isOpen()) {
    return true;  // no pidfd on this kernel: waitpid alone, without a limit
  }
  for (;;) {
    pollfd fd{exited.get(), POLLIN, 0};
    int ready = poll(&fd, 1, deadline.pollTimeout());
    if (ready > 0 || (ready < 0 && errno != EINTR)) {
      return true;
    }
    if (deadline.expired()) {
      return false;
    }
  }
}

int reap(pid_t pid) {
  int raw = 0;
  while (waitpid(pid, &raw, 0) < 0) {
    if (errno != EINTR) {
      throw EFiExecPipe(errnoText("CFiExecPipePosix: waitpid failed", errno));
    }
  }
  if (WIFEXITED(raw)) {
    return WEXITSTATUS(raw);
  }
  return WIFSIGNALED(raw) ? kSignalStatusBase + WTERMSIG(raw) : raw;
}

void splitLines(const tstring& text, std::vector<tstring>& lines) {
  size_t begin = 0;
  while (begin < text.size()) {
    size_t newline = text.find('\n', begin);
    size_t end = newline == tstring::npos ? text.size() : newline + 1;
    lines.push_back(text.substr(begin, end - begin));
    begin = end;
  }
}

// ---------------------------------------------------------------------------
// The seam's process-wide state.

struct SeamState {
  std::mutex mutex;
  bool enabled = false;
  std::map<tstring, std::deque<CFiExecSeam::Answer>> queued;
  std::map<tstring, CFiExecSeam::Answer> standing;
  CFiExecSeam::Responder responder;
  std::vector<tstring> commands;
  tstring recordFile;
};

SeamState& seamState() {
  static SeamState state;
  return state;
}

// Recording format, one block per run, lengths in bytes so that every byte
// (line feeds included) comes back exactly:
//   run <status> <command length> <line count>\n<command>\n
//   then per output line: <length>\n<line bytes>\n
struct RecordedRun {
  tstring command;
  CFiExecSeam::Answer answer;
};

void writeRun(std::ostream& out, const tstring& command, int status,
              const std::vector<tstring>& output) {
  out << "run " << status << ' ' << command.size() << ' ' << output.size() << '\n'
      << command << '\n';
  for (const tstring& line : output) {
    out << line.size() << '\n' << line << '\n';
  }
}

bool readBytes(std::istream& in, size_t count, tstring& bytes) {
  bytes.assign(count, '\0');
  if (count > 0 && !in.read(&bytes[0], static_cast<std::streamsize>(count))) {
    return false;
  }
  return in.get() == '\n';
}

bool readRun(std::istream& in, RecordedRun& run) {
  tstring word;
  size_t commandLength = 0;
  size_t lineCount = 0;
  if (!(in >> word >> run.answer.status >> commandLength >> lineCount) || word != "run" ||
      in.get() != '\n' || !readBytes(in, commandLength, run.command)) {
    return false;
  }
  run.answer.output.resize(lineCount);
  for (tstring& line : run.answer.output) {
    size_t length = 0;
    if (!(in >> length) || in.get() != '\n' || !readBytes(in, length, line)) {
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// The observer of every run, and the count of runs.

std::atomic<CFiExecObserver*> execObserver{nullptr};
std::atomic<unsigned long> execRuns{0};

// Tells the observer of one run: started now, finished when the run ends
// however it ends.
class ObservedRun {
 public:
  explicit ObservedRun(const tstring& command)
      : m_command(command), m_observer(execObserver.load()), m_start(Clock::now()) {
    ++execRuns;
    if (m_observer != nullptr) {
      m_observer->started(m_command);
    }
  }
  ~ObservedRun() {
    if (m_observer != nullptr) {
      m_observer->finished(m_command, m_status, elapsedMicroseconds());
    }
  }
  ObservedRun(const ObservedRun&) = delete;
  ObservedRun& operator=(const ObservedRun&) = delete;

  void setStatus(int status) { m_status = status; }
  long long elapsedMicroseconds() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - m_start).count();
  }

 private:
  const tstring& m_command;
  CFiExecObserver* m_observer;
  Clock::time_point m_start;
  int m_status = -1;
};

}  // namespace

// ---------------------------------------------------------------------------
// CFiExecPipeBase

CFiExecObserver::~CFiExecObserver() = default;

CFiExecPipeBase::~CFiExecPipeBase() = default;

CFiExecObserver* CFiExecPipeBase::setObserver(CFiExecObserver* observer) {
  return execObserver.exchange(observer);
}

unsigned long CFiExecPipeBase::getRunCount() {
  return execRuns.load();
}

int CFiExecPipeBase::Exec(const tstring& command, std::vector<tstring>& output,
                          const tstring& input, int limitSeconds, const tstring& directory,
                          const tstring& environment, const tstring&) {
  ObservedRun observed(command);
  CFiExecSeam::Answer answer;
  bool scripted = CFiExecSeam::intercept(command, answer);
  if (!scripted) {
    try {
      answer.status = run(command, answer.output, input, limitSeconds, directory, environment);
    } catch (const EFiExecPipe& failure) {
      if (m_traceLog) {
        m_traceLog->trace(QZFI_TRACE_DETAIL, "CFiExecPipe::Exec command: %s not started: %s",
                          command.c_str(), failure.getText().c_str());
      }
      throw;
    }
    CFiExecSeam::recordRun(command, answer.status, answer.output);
  }
  observed.setStatus(answer.status);
  output.insert(output.end(), answer.output.begin(), answer.output.end());
  if (m_traceLog) {
    long long elapsed = observed.elapsedMicroseconds() / 1000;
    m_traceLog->trace(QZFI_TRACE_DETAIL,
                      "CFiExecPipe::Exec command: %s status: %d duration: %lld ms%s",
                      command.c_str(), answer.status, elapsed, scripted ? " (scripted)" : "");
  }
  return answer.status;
}

// ---------------------------------------------------------------------------
// CFiExecPipePosix

CFiExecPipePosix::CFiExecPipePosix(int mode) : m_mode(mode) {}

int CFiExecPipePosix::run(const tstring& command, std::vector<tstring>& output,
                          const tstring& input, int limitSeconds, const tstring& directory,
                          const tstring& environment) {
  if (m_mode != 1) {
    throw EFiExecPipe("CFiExecPipePosix: unsupported pipe mode " + std::to_string(m_mode));
  }
  Deadline deadline(limitSeconds);
  ChildStreams streams;
  pid_t pid = startChild(command, directory, environment, streams);
  Collected collected;
  try {
    SigpipeBlock sigpipe;
    exchange(streams, input, deadline, collected);
  } catch (const EFiExecPipe&) {
    kill(-pid, SIGKILL);
    reap(pid);
    throw;
  }
  if (collected.timedOut || !awaitExit(pid, deadline)) {
    collected.timedOut = true;
    kill(-pid, SIGKILL);
  }
  streams = ChildStreams();
  int status = reap(pid);
  if (collected.timedOut) {
    status = kTimedOutStatus;
  }
  splitLines(collected.output, output);
  if (status != 0) {
    splitLines(collected.error, output);
  } else if (!collected.error.empty() && m_traceLog) {
    m_traceLog->trace(QZFI_TRACE_DETAIL, "CFiExecPipePosix: standard error of '%s': %s",
                      command.c_str(), collected.error.c_str());
  }
  return status;
}

// ---------------------------------------------------------------------------
// CFiExecSeam

void CFiExecSeam::enable() {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.enabled = true;
}

void CFiExecSeam::disable() {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.enabled = false;
  state.queued.clear();
  state.standing.clear();
  state.responder = nullptr;
  state.commands.clear();
}

bool CFiExecSeam::isEnabled() {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  return state.enabled;
}

void CFiExecSeam::expect(const tstring& command, int status, std::vector<tstring> output) {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.queued[command].push_back(Answer{status, std::move(output)});
}

void CFiExecSeam::answer(const tstring& command, int status, std::vector<tstring> output) {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.standing[command] = Answer{status, std::move(output)};
}

void CFiExecSeam::setResponder(Responder responder) {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.responder = std::move(responder);
}

std::vector<tstring> CFiExecSeam::commands() {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  return state.commands;
}

void CFiExecSeam::clearCommands() {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.commands.clear();
}

CFiExecSeam::Answer CFiExecSeam::unanswered(const tstring& command) {
  return Answer{127, {"qzfi exec seam: no answer for " + command + "\n"}};
}

void CFiExecSeam::recordTo(const tstring& file) {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  state.recordFile = file;
}

int CFiExecSeam::replayFrom(const tstring& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    return -1;
  }
  std::vector<RecordedRun> runs;
  RecordedRun run;
  while ((in >> std::ws).peek() != std::ifstream::traits_type::eof()) {
    if (!readRun(in, run)) {
      return -1;
    }
    runs.push_back(run);
  }
  // Runs of one line are answered in the order they were recorded, and the
  // last one keeps answering after that.
  for (const RecordedRun& recorded : runs) {
    expect(recorded.command, recorded.answer.status, recorded.answer.output);
    answer(recorded.command, recorded.answer.status, recorded.answer.output);
  }
  return static_cast<int>(runs.size());
}

bool CFiExecSeam::intercept(const tstring& command, Answer& reply) {
  Responder responder;
  {
    SeamState& state = seamState();
    std::lock_guard<std::mutex> guard(state.mutex);
    if (!state.enabled) {
      return false;
    }
    state.commands.push_back(command);
    auto queued = state.queued.find(command);
    if (queued != state.queued.end() && !queued->second.empty()) {
      reply = std::move(queued->second.front());
      queued->second.pop_front();
      return true;
    }
    auto standing = state.standing.find(command);
    if (standing != state.standing.end()) {
      reply = standing->second;
      return true;
    }
    responder = state.responder;
  }
  // Called outside the lock so that a responder may script further answers.
  if (!responder || !responder(command, reply)) {
    reply = unanswered(command);
  }
  return true;
}

void CFiExecSeam::recordRun(const tstring& command, int status,
                            const std::vector<tstring>& output) {
  SeamState& state = seamState();
  std::lock_guard<std::mutex> guard(state.mutex);
  if (state.recordFile.empty()) {
    return;
  }
  std::ofstream out(state.recordFile, std::ios::binary | std::ios::app);
  writeRun(out, command, status, output);
}

}  // namespace qzfi_pdk_4_4
