// Snapshot sessions: the split nodes of one snapshot run.
#ifndef QZFI_SESSION_H
#define QZFI_SESSION_H

#include <mutex>
#include <vector>

#include "records.h"
#include "refcount.h"
#include "trace.h"

namespace qzfi_pdk_4_4 {

class CFiSession : public virtual CFiRefCount {
 public:
  explicit CFiSession(tstring id = tstring());
  const tstring& getId() const { return m_id; }
  void addNodes(qfi_splitnode** nodes, int count);
  const std::vector<qfi_splitnode*>& nodes() const { return m_nodes; }
  // One snapshot identity (kind 1) per split node, in an array from
  // qzfi_alloc_buf; 0 on success.
  int exportSnapshotList(qfi_splitnode** nodes, int count, qzfi_objid*** ids, int* nids);

 private:
  tstring m_id;
  std::vector<qfi_splitnode*> m_nodes;
};

using CFiSessionPtr = CFiSmartPtr<CFiSession>;

class CFiSessionManager : public virtual CFiRefCount {
 public:
  // The current session, created on first use.
  CFiSessionPtr getSession();
  void endSession();

 private:
  std::mutex m_mutex;
  CFiSessionPtr m_session;
  int m_serial = 0;
};

using CFiSessionManagerPtr = CFiSmartPtr<CFiSessionManager>;

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_SESSION_H
