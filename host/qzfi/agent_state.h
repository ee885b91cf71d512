// What the host's agent keeps from one command to the next: the plug-in,
// loaded and started once, and each record's nodes as the last command that
// wrote the record left them, with the provider state it wrote. A command
// takes a record's node back only while the record still holds that state;
// otherwise (another host or the one-shot form moved the record on) the node
// is restored from the record as a new process would.
//
// Nodes are kept only while this host has more to do with them: the agent
// forgets a record's nodes once its host's part is done (after deport on the
// source's host, after move on the host that moved the copy on, after
// release) and once the record's file is gone, so that an agent that serves
// for months holds the nodes of the backups under way, not of every backup.
#ifndef QZFI_HOST_AGENT_STATE_H
#define QZFI_HOST_AGENT_STATE_H

#include <stddef.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "nodes.h"
#include "plugin_library.h"

namespace qzfi_host {

// A record's nodes: the source object's, and the copy's on the alternate
// host.
enum class NodeRole { source, copy };

class CAgentState {
 public:
  explicit CAgentState(std::unique_ptr<CPluginLibrary> plugin);
  // The nodes go first (the plug-in drops their private data), then the
  // plug-in is finalised.
  ~CAgentState();
  CAgentState(const CAgentState&) = delete;
  CAgentState& operator=(const CAgentState&) = delete;

  CPluginLibrary& plugin() { return *m_plugin; }

  // The node kept for the record's role when it stands for object and was
  // last saved as state; null otherwise. The node is handed over: a command
  // that fails keeps it no more.
  std::unique_ptr<CNode> take(const std::string& record, NodeRole role, const std::string& object,
                              const ProviderState& state);
  // node kept for the record's role, as saved in state.
  void keep(const std::string& record, NodeRole role, std::unique_ptr<CNode> node,
            const ProviderState& state);
  // The record's nodes dropped: the backup is over.
  void forget(const std::string& record);
  // The nodes of every record whose file is gone dropped; how many.
  size_t forgetGone();
  // The nodes kept now.
  size_t nodes() const { return m_nodes.size(); }

  // The user who asked for the command that runs now (its client's uid).
  void setClientUid(long long uid) { m_clientUid = uid; }
  long long clientUid() const { return m_clientUid; }

 private:
  struct Kept {
    std::unique_ptr<CNode> node;
    ProviderState state;
  };
  using Key = std::pair<std::string, NodeRole>;

  std::unique_ptr<CPluginLibrary> m_plugin;
  std::map<Key, Kept> m_nodes;
  long long m_clientUid = -1;
};

}  // namespace qzfi_host

#endif  // QZFI_HOST_AGENT_STATE_H
