// Running a command line through a pipe, and the seam that lets tests answer
// commands without running anything.
#ifndef QZFI_EXECPIPE_H
#define QZFI_EXECPIPE_H

#include <functional>
#include <vector>

#include "errors.h"
#include "trace.h"

namespace qzfi_pdk_4_4 {

// Watches every run of CFiExecPipeBase::Exec in the process, whichever
// plug-in or framework object makes it: a host program counts the tool runs
// of a step and sees when a plug-in pauses between them. Both calls come on
// the running thread, scripted runs of the test seam included; finished
// follows started even when the command cannot be started (status -1).
class CFiExecObserver {
 public:
  virtual ~CFiExecObserver();
  virtual void started(const tstring& command) = 0;
  virtual void finished(const tstring& command, int status, long long microseconds) = 0;
};

class CFiExecPipeBase : public virtual CFiTraceable {
 public:
  ~CFiExecPipeBase() override;

  // The process-wide observer of Exec (null: none); returns the previous one.
  // The caller keeps it alive while it is installed.
  static CFiExecObserver* setObserver(CFiExecObserver* observer);
  // Runs of Exec in this process so far.
  static unsigned long getRunCount();

  // Runs command with /bin/sh -c and LC_ALL=C, appends each line it prints to
  // output (line feeds kept) and returns its exit status unchanged. Standard
  // error is read apart: appended to the output only when the command fails,
  // traced otherwise. input is written to the command's standard input;
  // limitSeconds > 0 kills the command's process group when it runs out
  // (status 124 then). directory, when given, is the working directory, and
  // environment holds extra "NAME=value" settings separated by ';'.
  // Throws EFiExecPipe when the command cannot be started.
  int Exec(const tstring& command, std::vector<tstring>& output, const tstring& input,
           int limitSeconds, const tstring& directory, const tstring& environment,
           const tstring& reserved);

 protected:
  virtual int run(const tstring& command, std::vector<tstring>& output, const tstring& input,
                  int limitSeconds, const tstring& directory, const tstring& environment) = 0;
};

class CFiExecPipePosix : public CFiExecPipeBase {
 public:
  // mode 1: a pipe for the command's output (the only mode plug-ins use).
  explicit CFiExecPipePosix(int mode = 1);

 protected:
  int run(const tstring& command, std::vector<tstring>& output, const tstring& input,
          int limitSeconds, const tstring& directory, const tstring& environment) override;

 private:
  int m_mode;
};

// While enabled, CFiExecPipeBase::Exec runs nothing: it records the command
// line and answers it from the script. Process-wide; tests enable it with
// CFiExecSeamScope.
class CFiExecSeam {
 public:
  struct Answer {
    int status = 0;
    std::vector<tstring> output;  // lines with their line feeds
  };
  // Fallback for lines with no scripted answer; return false to decline.
  using Responder = std::function<bool(const tstring& command, Answer& answer)>;

  static void enable();
  // Back to real runs; forgets the script and the recorded lines.
  static void disable();
  static bool isEnabled();

  // The next run of exactly this line gets this answer (queued answers of one
  // line are used in order before any standing answer of that line).
  static void expect(const tstring& command, int status, std::vector<tstring> output);
  // Every run of exactly this line gets this answer.
  static void answer(const tstring& command, int status, std::vector<tstring> output);
  static void setResponder(Responder responder);

  // Command lines run since enable or clearCommands, in order.
  static std::vector<tstring> commands();
  static void clearCommands();

  // A line with no answer gets status 127 and the single output line
  // "qzfi exec seam: no answer for <command>\n".
  static Answer unanswered(const tstring& command);

  // Recording: while a file is set, real runs (seam disabled) are appended
  // to it; replayFrom loads such a file as standing answers and returns how
  // many it loaded (-1 when it cannot be read).
  static void recordTo(const tstring& file);
  static int replayFrom(const tstring& file);

  // Used by Exec: true and the answer when the seam is enabled.
  static bool intercept(const tstring& command, Answer& answer);
  static void recordRun(const tstring& command, int status, const std::vector<tstring>& output);
};

class CFiExecSeamScope {
 public:
  CFiExecSeamScope() { CFiExecSeam::enable(); }
  ~CFiExecSeamScope() { CFiExecSeam::disable(); }
  CFiExecSeamScope(const CFiExecSeamScope&) = delete;
  CFiExecSeamScope& operator=(const CFiExecSeamScope&) = delete;
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_EXECPIPE_H
