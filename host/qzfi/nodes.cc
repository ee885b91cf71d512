// The framework's records that qzfi hands to a plug-in.
#include "nodes.h"

#include <cstring>

namespace qzfi_host {

namespace {

// The volume a node stands for lies under the layer above it in a storage
// stack: its id is of the sub-object kind.
qzfi_objid* objidOf(const std::string& path, int kind) {
  return qzfi_get_objid(path.c_str(), static_cast<int>(path.size() + 1), kind);
}

}  // namespace

CNode::CNode(CPluginLibrary& plugin, const std::string& object)
    : m_plugin(plugin), m_object(object) {
  m_access.type = QFI_ACCESS_NONE;
  m_domain.objid = objidOf(object, QZFI_OBJID_SUBOBJ);
  m_domain.access = &m_access;
}

CNode::~CNode() {
  if (m_plugin.call().deInitNode != nullptr) {
    m_plugin.call().deInitNode(&m_domain);
  }
  releaseReplacedAccess();
  qzfi_free_objid(m_access.objid);
  qzfi_free_objid(m_domain.objid);
}

qfi_domain* CNode::domain() {
  releaseReplacedAccess();
  return &m_domain;
}

void CNode::releaseReplacedAccess() {
  if (m_heldAccess != m_access.objid) {
    qzfi_free_objid(m_heldAccess);
    m_heldAccess = m_access.objid;
  }
}

std::string CNode::accessObject() const {
  return m_access.objid != nullptr && m_access.objid->name != nullptr ? m_access.objid->name
                                                                      : std::string();
}

int CNode::restore(const ProviderState& state) {
  qfi_blob blob{};
  blob.len = state.bytes.size() + 1;
  blob.data = static_cast<char*>(qzfi_alloc_buf(blob.len));
  if (blob.data == nullptr) {
    return QFI_E_NOMEM;
  }
  std::memcpy(blob.data, state.bytes.data(), state.bytes.size());
  blob.flag = 1;
  const int status = m_plugin.call().processProviderState(&m_domain, &blob, QFI_PS_RESTORE);
  qzfi_free_buf(blob.data, state.bytes.size() + 1);
  return status;
}

int CNode::save(ProviderState& state) {
  qfi_blob blob{};
  const int status = m_plugin.call().processProviderState(&m_domain, &blob, QFI_PS_SAVE);
  state.bytes.clear();
  if (blob.data != nullptr) {
    // The length counts the terminating zero.
    if (status == 0 && blob.len > 0) {
      state.bytes.assign(blob.data, blob.len - 1);
    }
    qzfi_free_buf(blob.data, blob.len);
  }
  return status;
}

int CNode::subObjects(std::vector<std::string>& paths) {
  qzfi_objid** ids = nullptr;
  int count = 0;
  const int status = m_plugin.call().subobjList(&m_domain, &ids, &count);
  paths.clear();
  for (int i = 0; ids != nullptr && i < count; ++i) {
    if (ids[i] != nullptr && ids[i]->name != nullptr) {
      paths.emplace_back(ids[i]->name);
    }
    qzfi_free_objid(ids[i]);
  }
  qzfi_free_buf(ids, sizeof(qzfi_objid*) * static_cast<size_t>(count > 0 ? count : 0));
  return status;
}

CObjidList::CObjidList(const std::vector<std::string>& paths, int kind) {
  for (const std::string& path : paths) {
    m_ids.push_back(objidOf(path, kind));
  }
  m_ids.push_back(nullptr);
}

CObjidList::~CObjidList() {
  for (qzfi_objid* id : m_ids) {
    qzfi_free_objid(id);
  }
}

CNodeSubobjList::CNodeSubobjList(CNode& node, const std::vector<std::string>& subObjects)
    : m_ids(subObjects) {
  m_entry.node = node.domain();
  m_entry.subobjs = m_ids.get();
  m_entry.nsubobjs = m_ids.count();
}

CObjidOutput::~CObjidOutput() {
  qzfi_free_objid(m_ids[0]);
}

std::string CObjidOutput::first() const {
  return m_ids[0] != nullptr && m_ids[0]->name != nullptr ? m_ids[0]->name : std::string();
}

CPathOutput::~CPathOutput() {
  for (int i = 0; m_paths != nullptr && i < m_count; ++i) {
    qzfi_free_buf(m_paths[i], m_paths[i] != nullptr ? std::strlen(m_paths[i]) + 1 : 0);
  }
  qzfi_free_buf(m_paths, sizeof(char*) * static_cast<size_t>(m_count > 0 ? m_count : 0));
}

std::vector<std::string> CPathOutput::texts() const {
  std::vector<std::string> texts;
  for (int i = 0; m_paths != nullptr && i < m_count; ++i) {
    if (m_paths[i] != nullptr) {
      texts.emplace_back(m_paths[i]);
    }
  }
  return texts;
}

CTextArray::CTextArray(std::vector<std::string> texts) : m_texts(std::move(texts)) {
  for (std::string& text : m_texts) {
    m_pointers.push_back(&text[0]);
  }
  m_pointers.push_back(nullptr);
}

std::string rawDevicePath(const std::string& block) {
  const size_t folder = block.find("/dsk/");
  if (folder == std::string::npos) {
    return block;
  }
  return block.substr(0, folder) + "/rdsk/" + block.substr(folder + 5);
}

}  // namespace qzfi_host
