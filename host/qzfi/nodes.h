// The framework's records as qzfi makes them for a plug-in: nodes with their
// object ids and access records, object-id lists, node/sub-object lists and
// blobs. Each is allocated with the framework's helpers and freed here; the
// plug-in's private data of a node lives in the plug-in's own manager,
// reached through the node's pvt handle, until the node is de-initialised.
#ifndef QZFI_HOST_NODES_H
#define QZFI_HOST_NODES_H

#include <string>
#include <vector>

#include <qzfi/records.h>

#include "plugin_library.h"

namespace qzfi_host {

// The provider state of a node as it leaves the process: the blob's bytes,
// without the terminating zero that the blob's length counts.
struct ProviderState {
  std::string bytes;
  bool empty() const { return bytes.empty(); }
};

// One node of the storage stack: a zeroed qfi_domain whose object id names
// the object and whose access record starts as QFI_ACCESS_NONE. Neither
// copied nor moved: the plug-in keys its private data by the node's address.
class CNode {
 public:
  CNode(CPluginLibrary& plugin, const std::string& object);
  // The plug-in drops its private data and sub-objects of the node
  // (deinit_node); then the records go.
  ~CNode();
  CNode(const CNode&) = delete;
  CNode& operator=(const CNode&) = delete;

  // The node handed to the plug-in. An id that the plug-in stored in the
  // access record is this host's: when a later call replaced it (a node
  // kept across operations deported again), the earlier one is freed here.
  qfi_domain* domain();
  qzfi_objid* objid() { return m_domain.objid; }
  const std::string& object() const { return m_object; }
  // The object id the plug-in stored in the node's access record
  // (deportTree), empty when none.
  std::string accessObject() const;

  // processProviderState: the node's private data restored from state, or
  // saved into state; the plug-in's status.
  int restore(const ProviderState& state);
  int save(ProviderState& state);
  // The node's sub-objects (subobj_list); the plug-in's status.
  int subObjects(std::vector<std::string>& paths);

 private:
  CPluginLibrary& m_plugin;
  std::string m_object;
  qfi_access m_access{};
  qfi_domain m_domain{};
  // The id found in the access record when the node was last handed over.
  qzfi_objid* m_heldAccess = nullptr;
  void releaseReplacedAccess();
};

// A null-terminated array of object ids made from paths, as the framework
// hands primary and secondary lists to a plug-in.
class CObjidList {
 public:
  explicit CObjidList(const std::vector<std::string>& paths, int kind = QZFI_OBJID_SUBOBJ);
  ~CObjidList();
  CObjidList(const CObjidList&) = delete;
  CObjidList& operator=(const CObjidList&) = delete;

  qzfi_objid** get() { return m_ids.data(); }
  int count() const { return static_cast<int>(m_ids.size()) - 1; }

 private:
  std::vector<qzfi_objid*> m_ids;
};

// A node/sub-object list of one entry, the node with its sub-objects, as
// the access operations take it.
class CNodeSubobjList {
 public:
  CNodeSubobjList(CNode& node, const std::vector<std::string>& subObjects);
  qfi_node_subobj_list* get() { return &m_entry; }

 private:
  CObjidList m_ids;
  qfi_node_subobj_list m_entry{};
};

// An output list of object ids that a plug-in fills (out[0] first); the ids
// it made are the framework's and go with the list.
class CObjidOutput {
 public:
  CObjidOutput() = default;
  ~CObjidOutput();
  CObjidOutput(const CObjidOutput&) = delete;
  CObjidOutput& operator=(const CObjidOutput&) = delete;

  qzfi_objid** get() { return m_ids; }
  // The first id's path name, empty when the plug-in gave none.
  std::string first() const;

 private:
  qzfi_objid* m_ids[2] = {nullptr, nullptr};
};

// A list of C strings that a plug-in allocated with qzfi_alloc_buf (format,
// onlineResource), freed with it.
class CPathOutput {
 public:
  CPathOutput() = default;
  ~CPathOutput();
  CPathOutput(const CPathOutput&) = delete;
  CPathOutput& operator=(const CPathOutput&) = delete;

  char*** paths() { return &m_paths; }
  int* count() { return &m_count; }
  std::vector<std::string> texts() const;

 private:
  char** m_paths = nullptr;
  int m_count = 0;
};

// Writable C strings of a list of texts, for entry points that take char**.
class CTextArray {
 public:
  explicit CTextArray(std::vector<std::string> texts);
  char** get() { return m_pointers.data(); }
  int count() const { return static_cast<int>(m_texts.size()); }

 private:
  std::vector<std::string> m_texts;
  std::vector<char*> m_pointers;
};

// The raw device path of a block device path: the first "/dsk/" folder of
// the path becomes "/rdsk/" (/dev/qz/dsk/dg/vol: /dev/qz/rdsk/dg/vol); a path
// without one stays as it is.
std::string rawDevicePath(const std::string& block);

}  // namespace qzfi_host

#endif  // QZFI_HOST_NODES_H
