// Snapshot sessions: the split nodes of one run and their snapshot identities.
#include "qzfi/session.h"

#include <unistd.h>

#include <cstring>

namespace qzfi_pdk_4_4 {

namespace {

// The split object's name, else the name of the node it splits.
const char* snapshotName(const qfi_splitnode* node) {
  if (node == nullptr) {
    return nullptr;
  }
  if (node->objid != nullptr && node->objid->name != nullptr) {
    return node->objid->name;
  }
  if (node->node != nullptr && node->node->objid != nullptr) {
    return node->node->objid->name;
  }
  return nullptr;
}

// Frees the first made ids and the array of slots entries.
void freeIds(qzfi_objid** ids, int made, int slots) {
  for (int i = 0; i < made; ++i) {
    qzfi_free_objid(ids[i]);
  }
  qzfi_free_buf(ids, slots * sizeof(qzfi_objid*));
}

}  // namespace

// CFiSession

CFiSession::CFiSession(tstring id) : m_id(std::move(id)) {}

void CFiSession::addNodes(qfi_splitnode** nodes, int count) {
  if (nodes == nullptr) {
    return;
  }
  for (int i = 0; i < count; ++i) {
    if (nodes[i] != nullptr) {
      m_nodes.push_back(nodes[i]);
    }
  }
}

int CFiSession::exportSnapshotList(qfi_splitnode** nodes, int count, qzfi_objid*** ids, int* nids) {
  if (ids == nullptr || nids == nullptr || count < 0 || (nodes == nullptr && count > 0)) {
    return QFI_E_INVALID;
  }
  *ids = nullptr;
  *nids = 0;
  if (count == 0) {
    return QFI_SUCCESS;
  }
  auto** list = static_cast<qzfi_objid**>(qzfi_alloc_buf(count * sizeof(qzfi_objid*)));
  if (list == nullptr) {
    return QFI_E_NOMEM;
  }
  for (int i = 0; i < count; ++i) {
    const char* name = snapshotName(nodes[i]);
    list[i] = name != nullptr ? qzfi_get_objid(name, static_cast<int>(std::strlen(name) + 1),
                                               QZFI_OBJID_SNAPSHOT)
                              : nullptr;
    if (list[i] == nullptr) {
      freeIds(list, i, count);
      return QFI_E_NOOBJID;
    }
  }
  *ids = list;
  *nids = count;
  return QFI_SUCCESS;
}

// CFiSessionManager

CFiSessionPtr CFiSessionManager::getSession() {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (!m_session) {
    // Unique within the host: a framework process runs one session at a time.
    tstring id = "qzfi-session-" + std::to_string(getpid()) + "-" + std::to_string(++m_serial);
    m_session = CFiSessionPtr(new CFiSession(id));
  }
  return m_session;
}

void CFiSessionManager::endSession() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_session.release();
}

}  // namespace qzfi_pdk_4_4
