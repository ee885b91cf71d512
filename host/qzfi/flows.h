// The commands of qzfi: the framework's flows driven through a plug-in's
// entry points. One class over the files of this folder, each named for
// what it holds:
//   flows.cc            running a command, loading and starting the plug-in,
//                       steps, and info
//   source_flows.cc     claim, prepare, deport and access: the source host
//   alternate_flows.cc  import, move and release: the alternate host
//   resource_flows.cc   format, online and unformat: plain disks
// Run alone, each command is its own process: every step after prepare
// first restores the plug-in's nodes from the provider state kept in the
// record. Run by the host's agent, a command uses the agent's plug-in,
// started once, and takes back the nodes that the agent kept while the
// record still holds their state; it writes the record all the same.
#ifndef QZFI_HOST_FLOWS_H
#define QZFI_HOST_FLOWS_H

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent_state.h"
#include "command_mark.h"
#include "nodes.h"
#include "options.h"
#include "plugin_library.h"
#include "progress.h"
#include "record.h"
#include "report.h"

namespace qzfi_host {

class CFlows {
 public:
  // agent: the agent that runs the command, null when it runs alone.
  CFlows(const Options& options, CReport& report, CAgentState* agent = nullptr);
  ~CFlows();
  CFlows(const CFlows&) = delete;
  CFlows& operator=(const CFlows&) = delete;

  // Runs the command of the options; its exit code.
  int run();

  // The user who asked for the command: the agent's client, or this
  // process's real user.
  long long requester() const;
  // The command found stopped half-way on the record when this one took
  // it (its mark left behind), if one was.
  const std::optional<CommandMark>& stoppedBefore() const { return m_stoppedBefore; }

 private:
  // A command that cannot go on: its exit code and why, for the user.
  struct Failure {
    int code;
    std::string why;
  };

  // flows.cc
  int info();
  // Loads the plug-in and starts it as the step "init"; through an agent,
  // the agent's plug-in, started already.
  void startPlugin();
  // The plug-in's library: this command's own, loaded; through an agent,
  // the agent's.
  void loadPlugin();
  // The step "init" of the plug-in, unreported; through an agent, which
  // started it already, nothing to do.
  StepOutcome initStep();
  // The step "init" of a loaded plug-in; exit code 5, and why, when its
  // init fails.
  void startLoadedPlugin();
  // info's results that come from the library itself: its name and file,
  // and its release text.
  void reportLibrary();
  void reportRelease(const std::string& release);
  // Runs one plug-in call as a step: time, tool runs, waits and the
  // messages it pushed. Not reported yet: see finishStep.
  StepOutcome runStep(const std::string& name, const std::function<int()>& call);
  // Reports the step, ok or failed with detail; a failed step ends the
  // command with exit code 6 and the reason "<step> failed: <detail>".
  void finishStep(StepOutcome outcome, bool ok, const std::string& detail);
  // Steps with status 0 wanted; done tells what they did.
  void requireSuccess(const std::string& name, const std::function<int()>& call,
                      const std::string& done, const std::string& failure);
  // processProviderState steps of a node. A provider state that the
  // plug-in refuses (status 3) makes the record unusable: exit code 3, with
  // the plug-in's reason.
  void restoreNode(CNode& node, const ProviderState& state, const std::string& what);
  ProviderState saveNode(CNode& node, const std::string& what);
  // The record's node of role for object: the agent's when it kept it with
  // the record's state, else a new node restored from state.
  CNode& recordNode(NodeRole role, const std::string& object, const ProviderState& state,
                    const std::string& what);
  // A new node of role for object, replacing any the command had.
  CNode& newNode(NodeRole role, const std::string& object);
  // The record's file as the agent knows it: the real file, an absolute
  // path with symbolic links followed, so that every path to one file is
  // one record.
  std::string recordKey() const;
  // The record of the options, locked and checked for this command: made
  // by this plug-in, at one of the steps allowed, writable. Exit code 3
  // otherwise.
  CSnapshotRecord loadRecord(const std::vector<RecordStep>& allowed);
  // Writes the record (its real file, the lock moving to the new one);
  // through an agent, the command's nodes are then kept
  // with the states written (dropped once the copy is released).
  void saveRecord(CSnapshotRecord& record, const std::string& event, bool exclusive);
  // The host check of the door: deport and access run on the source's host,
  // move and release on the host that holds the copy. Exit code 3 on
  // another host, both named; a record without the host has it filled with
  // this one, and --this-host-was takes this host on as the one recorded.
  void checkHost(CSnapshotRecord& record);
  // Marks the record as worked on by this command (see command_mark.h),
  // taking note of a mark that a stopped command left.
  void markRecord(const std::string& file, const CSnapshotRecord& record);
  // The mark removed: the command ended, done or failed.
  void unmarkRecord();

  // source_flows.cc
  int claim();
  int prepare();
  int deport();
  int access();

  // alternate_flows.cc
  int importCopy();
  int move();
  int release();
  void checkSecondaryDisks(const CSnapshotRecord& record) const;
  // release, where the record does not show that this host holds the copy
  // (a record without hosts, or a host taken on): the volume manager here
  // must, before the plug-in starts. Its copy group imported here, or its
  // split disks here and carrying no group (the group is gone); exit code 3
  // otherwise, naming what was found.
  void proveCopyHere(const CSnapshotRecord& record);
  std::string ownerOfDevices(const CSnapshotRecord& record, const std::string& block);

  // resource_flows.cc
  int format();
  int online();
  int unformat();
  void checkParentPlugin(const std::string& disk, int flags);
  // The device path the plug-in handed back in paths, as the result.
  void reportDevice(CPathOutput& paths, const std::string& step);

  const Options& m_options;
  CReport& m_report;
  CProgressWatch m_watch;
  // Held from the record's loading to the command's end, after its
  // nodes and plug-in are gone.
  CRecordLock m_recordLock;
  CAgentState* m_agent;
  HostIdentity m_host;          // this host, read when the record is loaded
  std::string m_takenOn;        // what --this-host-was changed in the record, for its event
  bool m_hostProven = false;    // the record named this host as the command's
  HostIdentity m_recordedHost;  // the host the record named, when taken on
  std::string m_markedRecord;   // the record this command marked, while marked
  std::optional<CommandMark> m_stoppedBefore;
  std::unique_ptr<CPluginLibrary> m_ownPlugin;  // run alone: the plug-in of this command
  CPluginLibrary* m_plugin = nullptr;
  // The command's nodes; they go before the plug-in they belong to.
  std::map<NodeRole, std::unique_ptr<CNode>> m_nodes;
};

}  // namespace qzfi_host

#endif  // QZFI_HOST_FLOWS_H
