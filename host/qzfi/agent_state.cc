// The agent's plug-in and kept nodes.
#include "agent_state.h"

#include <errno.h>
#include <sys/stat.h>

namespace qzfi_host {

CAgentState::CAgentState(std::unique_ptr<CPluginLibrary> plugin) : m_plugin(std::move(plugin)) {}

CAgentState::~CAgentState() {
  m_nodes.clear();
  m_plugin.reset();
}

std::unique_ptr<CNode> CAgentState::take(const std::string& record, NodeRole role,
                                         const std::string& object, const ProviderState& state) {
  auto found = m_nodes.find({record, role});
  if (found == m_nodes.end()) {
    return nullptr;
  }
  Kept kept = std::move(found->second);
  m_nodes.erase(found);
  if (kept.node->object() != object || kept.state.bytes != state.bytes) {
    return nullptr;
  }
  return std::move(kept.node);
}

void CAgentState::keep(const std::string& record, NodeRole role, std::unique_ptr<CNode> node,
                       const ProviderState& state) {
  Kept& kept = m_nodes[{record, role}];
  kept.node = std::move(node);
  kept.state = state;
}

void CAgentState::forget(const std::string& record) {
  m_nodes.erase({record, NodeRole::source});
  m_nodes.erase({record, NodeRole::copy});
}

size_t CAgentState::forgetGone() {
  size_t gone = 0;
  for (auto kept = m_nodes.begin(); kept != m_nodes.end();) {
    struct stat file {};
    if (lstat(kept->first.first.c_str(), &file) != 0 && errno == ENOENT) {
      kept = m_nodes.erase(kept);
      ++gone;
    } else {
      ++kept;
    }
  }
  return gone;
}

}  // namespace qzfi_host
