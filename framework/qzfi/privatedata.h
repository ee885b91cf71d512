// Per-node private data of a plug-in, created and kept by the framework.
#ifndef QZFI_PRIVATEDATA_H
#define QZFI_PRIVATEDATA_H

#include <map>
#include <mutex>
#include <vector>

#include "records.h"
#include "refcount.h"
#include "trace.h"

namespace qzfi_pdk_4_4 {

class CFiPrivateData : public virtual CFiTraceable {
 public:
  CFiPrivateData(qzfi_objid* id, bool alternate);
  ~CFiPrivateData() override;

  // Initialisation for a new node and for an alternate node; 0 on success.
  virtual int init(qfi_domain* node, qfi_domain** children, int count, qzfi_objid* id);
  virtual int init(qfi_domain* node, qfi_domain* parent, qfi_domain* alternate, bool flag);

  // Serialisation that the framework calls to move the data between hosts.
  virtual int createBlob(qfi_blob* blob);
  virtual int extractFromBlob(qfi_blob* blob);

  int getNodeState() const { return m_nodeState; }
  void setNodeState(int state) { m_nodeState = state; }
  void setSessionId(const tstring& id) { m_sessionId = id; }
  const tstring& getSessionId() const { return m_sessionId; }
  const tstring& getConfiguredTarget() const { return m_target; }
  void setConfiguredTarget(const tstring& target) { m_target = target; }
  // Chooses the target named by the "target" entry of the configuration data.
  int selectTargetFromConfigData();
  std::vector<qfi_confspec>& configDataList() { return m_configData; }
  std::vector<qfi_confspec>& configInfoList() { return m_configInfo; }
  void addDefaultConfigParamsToDataList();
  bool getExportWithMapper() const { return m_exportWithMapper; }
  void setExportWithMapper(bool value) { m_exportWithMapper = value; }
  qzfi_objid* getObjid() const { return m_objid; }
  bool isAlternate() const { return m_alternate; }

 private:
  qzfi_objid* m_objid;
  bool m_alternate;
  int m_nodeState = 0;
  tstring m_sessionId;
  tstring m_target;
  std::vector<qfi_confspec> m_configData;
  std::vector<qfi_confspec> m_configInfo;
  bool m_exportWithMapper = false;
};

using CFiPrivateDataPtr = CFiSmartPtr<CFiPrivateData>;

class CFiPrivateDataFactory : public virtual CFiRefCount {
 public:
  virtual CFiPrivateData* create(qzfi_objid* id, bool alternate) = 0;
};

template <class T>
class CFiPrivateDataConcreteFactory : public CFiPrivateDataFactory {
 public:
  CFiPrivateData* create(qzfi_objid* id, bool alternate) override { return new T(id, alternate); }
};

using CFiPrivateDataFactoryPtr = CFiSmartPtr<CFiPrivateDataFactory>;

// Keeps the private data of each node; the node's pvt field is its handle.
class CFiPrivateDataManager : public virtual CFiRefCount {
 public:
  void registerFactory(const CFiPrivateDataFactoryPtr& factory);
  // Creates the node's private data with the registered factory (flag:
  // alternate node) and stores its handle in the node; null without factory.
  CFiPrivateData* create(qfi_domain* node, int flag);
  CFiPrivateData* find(const qfi_domain* node) const;
  void drop(qfi_domain* node);
  size_t size() const;

 private:
  mutable std::mutex m_mutex;
  CFiPrivateDataFactoryPtr m_factory;
  std::map<const qfi_domain*, CFiPrivateDataPtr> m_data;
};

using CFiPrivateDataManagerPtr = CFiSmartPtr<CFiPrivateDataManager>;

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_PRIVATEDATA_H
