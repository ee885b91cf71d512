// Per-node private data and the manager that keeps it, one object per node.
#include "qzfi/privatedata.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qzfi/stringtool.h"

namespace qzfi_pdk_4_4 {

namespace {

// Records of the base blob: one "key value" line each.
const char kNodeStateKey[] = "fiid_nodestate";
const char kSessionKey[] = "fiid_sessionid";
const char kTargetKey[] = "fiid_target";
const char kTargetParam[] = "target";

void appendRecord(tstring& text, const char* key, const tstring& value) {
  if (!text.empty()) {
    text += '\n';
  }
  text += tstring(key) + " " + value;
}

bool parseState(const tstring& text, int& state) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < INT32_MIN || value > INT32_MAX) {
    return false;
  }
  state = static_cast<int>(value);
  return true;
}

bool sameName(const qfi_confspec& confspec, const char* name) {
  return confspec.name != nullptr && std::strcmp(confspec.name, name) == 0;
}

bool hasParam(const std::vector<qfi_confspec>& list, const char* name) {
  for (const qfi_confspec& confspec : list) {
    if (sameName(confspec, name)) {
      return true;
    }
  }
  return false;
}

}  // namespace

// CFiPrivateData

CFiPrivateData::CFiPrivateData(qzfi_objid* id, bool alternate)
    : m_objid(id), m_alternate(alternate) {}

CFiPrivateData::~CFiPrivateData() = default;

int CFiPrivateData::init(qfi_domain* node, qfi_domain**, int, qzfi_objid* id) {
  if (node == nullptr) {
    return QFI_E_INVALID;
  }
  // Data created before the node had an identity takes the one given now.
  if (m_objid == nullptr) {
    m_objid = id != nullptr ? id : node->objid;
  }
  return QFI_SUCCESS;
}

int CFiPrivateData::init(qfi_domain* node, qfi_domain*, qfi_domain*, bool) {
  if (node == nullptr) {
    return QFI_E_INVALID;
  }
  if (m_objid == nullptr) {
    m_objid = node->objid;
  }
  return QFI_SUCCESS;
}

int CFiPrivateData::createBlob(qfi_blob* blob) {
  if (blob == nullptr) {
    return QFI_E_INVALID;
  }
  tstring text;
  appendRecord(text, kNodeStateKey, std::to_string(m_nodeState));
  if (!m_sessionId.empty()) {
    appendRecord(text, kSessionKey, m_sessionId);
  }
  if (!m_target.empty()) {
    appendRecord(text, kTargetKey, m_target);
  }
  blob->data = static_cast<char*>(qzfi_alloc_buf(text.size() + 1));
  if (blob->data == nullptr) {
    blob->len = 0;
    return QFI_E_NOMEM;
  }
  std::memcpy(blob->data, text.c_str(), text.size() + 1);
  blob->len = text.size() + 1;
  blob->flag = 1;
  return QFI_SUCCESS;
}

int CFiPrivateData::extractFromBlob(qfi_blob* blob) {
  if (blob == nullptr || blob->data == nullptr) {
    return QFI_E_INVALID;
  }
  // The length counts the terminating zero; never read past it.
  tstring text(blob->data, strnlen(blob->data, blob->len));
  std::vector<tstring> lines;
  CFiStringTool::tokenize(text, "\n", lines);
  for (const tstring& line : lines) {
    size_t blank = line.find(' ');
    tstring key = line.substr(0, blank);
    tstring value = blank == tstring::npos ? tstring() : line.substr(blank + 1);
    if (key == kNodeStateKey && !parseState(value, m_nodeState)) {
      return QFI_CLAIMED;
    }
    if (key == kSessionKey) {
      m_sessionId = value;
    } else if (key == kTargetKey) {
      m_target = value;
    }
  }
  return QFI_SUCCESS;
}

int CFiPrivateData::selectTargetFromConfigData() {
  for (const qfi_confspec& confspec : m_configData) {
    if (sameName(confspec, kTargetParam) && confspec.value != nullptr) {
      m_target = confspec.value;
      return QFI_SUCCESS;
    }
  }
  return QFI_CLAIMED;
}

// The records are copied as they stand: their strings stay with whoever
// filled the information list.
void CFiPrivateData::addDefaultConfigParamsToDataList() {
  for (const qfi_confspec& confspec : m_configInfo) {
    if (confspec.name != nullptr && !hasParam(m_configData, confspec.name)) {
      m_configData.push_back(confspec);
    }
  }
}

// CFiPrivateDataManager

void CFiPrivateDataManager::registerFactory(const CFiPrivateDataFactoryPtr& factory) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_factory = factory;
}

CFiPrivateData* CFiPrivateDataManager::create(qfi_domain* node, int flag) {
  if (node == nullptr) {
    return nullptr;
  }
  std::lock_guard<std::mutex> guard(m_mutex);
  if (!m_factory) {
    return nullptr;
  }
  CFiPrivateDataPtr data(m_factory->create(node->objid, flag != 0));
  if (!data) {
    return nullptr;
  }
  // A node has one private data: a new one replaces the old.
  m_data[node] = data;
  node->pvt = data.get();
  return data.get();
}

CFiPrivateData* CFiPrivateDataManager::find(const qfi_domain* node) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  auto found = m_data.find(node);
  return found != m_data.end() ? found->second.get() : nullptr;
}

void CFiPrivateDataManager::drop(qfi_domain* node) {
  if (node == nullptr) {
    return;
  }
  std::lock_guard<std::mutex> guard(m_mutex);
  auto found = m_data.find(node);
  if (found == m_data.end()) {
    return;
  }
  if (node->pvt == found->second.get()) {
    node->pvt = nullptr;
  }
  m_data.erase(found);
}

size_t CFiPrivateDataManager::size() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_data.size();
}

}  // namespace qzfi_pdk_4_4
