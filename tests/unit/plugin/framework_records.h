// Records of the framework as a test hands them to the plug-in: a node with
// its object id and access record, null-terminated object-id lists and the
// list of nodes with their sub-objects. What they allocate goes with them.
#ifndef QZVMFI_TESTS_UNIT_PLUGIN_FRAMEWORK_RECORDS_H
#define QZVMFI_TESTS_UNIT_PLUGIN_FRAMEWORK_RECORDS_H

#include <memory>
#include <string>
#include <vector>

#include <qzfi/pdk.h>

namespace qzvmfi_test {

// A node of the framework for an object path, with its access record; the
// object ids it holds are freed with it.
class TestNode {
 public:
  explicit TestNode(const std::string& path) {
    m_objid = qzfi_get_objid(path.c_str(), static_cast<int>(path.size() + 1), 3);
    domain.objid = m_objid;
    domain.access = &access;
  }
  // A node without an object id.
  TestNode() { domain.access = &access; }
  ~TestNode() {
    qzfi_free_objid(m_objid);
    qzfi_free_objid(access.objid);
  }
  TestNode(const TestNode&) = delete;
  TestNode& operator=(const TestNode&) = delete;

  qzfi_objid* objid() const { return m_objid; }
  const char* path() const { return m_objid != nullptr ? m_objid->name : nullptr; }

  qfi_domain domain{};
  qfi_access access{};

 private:
  qzfi_objid* m_objid = nullptr;
};

// Object ids of paths, as the framework passes lists of them: null
// terminated.
class TestObjids {
 public:
  explicit TestObjids(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
      m_ids.push_back(qzfi_get_objid(path.c_str(), static_cast<int>(path.size() + 1), 3));
    }
    m_ids.push_back(nullptr);
  }
  ~TestObjids() {
    for (qzfi_objid* id : m_ids) {
      qzfi_free_objid(id);
    }
  }
  TestObjids(const TestObjids&) = delete;
  TestObjids& operator=(const TestObjids&) = delete;

  qzfi_objid** get() { return m_ids.data(); }
  int count() const { return static_cast<int>(m_ids.size() - 1); }

 private:
  std::vector<qzfi_objid*> m_ids;
};

// A list of nodes as disableAccess and enableAccess get it, each with the
// sub-objects given.
class TestNodeList {
 public:
  void add(qfi_domain* node, TestObjids* subobjs = nullptr) {
    auto entry = std::make_unique<qfi_node_subobj_list>();
    entry->node = node;
    entry->subobjs = subobjs != nullptr ? subobjs->get() : nullptr;
    entry->nsubobjs = subobjs != nullptr ? subobjs->count() : 0;
    if (!m_entries.empty()) {
      m_entries.back()->next = entry.get();
    }
    m_entries.push_back(std::move(entry));
  }
  qfi_node_subobj_list* get() { return m_entries.empty() ? nullptr : m_entries.front().get(); }

 private:
  std::vector<std::unique_ptr<qfi_node_subobj_list>> m_entries;
};

// Disk names as the framework passes them to the resource operations, and
// the paths those hand back (freed as the framework frees them).
class TestTextArray {
 public:
  explicit TestTextArray(const std::vector<std::string>& texts) : m_texts(texts) {
    for (std::string& text : m_texts) {
      m_pointers.push_back(&text[0]);
    }
    m_pointers.push_back(nullptr);
  }
  char** get() { return m_pointers.data(); }
  int count() const { return static_cast<int>(m_texts.size()); }

 private:
  std::vector<std::string> m_texts;
  std::vector<char*> m_pointers;
};

class TestPaths {
 public:
  ~TestPaths() { qzfi_pdk_4_4::CFiStringTool::tstrfreelist(m_paths); }
  char*** paths() { return &m_paths; }
  int* count() { return &m_count; }
  std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (int i = 0; m_paths != nullptr && i < m_count; ++i) {
      texts.push_back(m_paths[i]);
    }
    return texts;
  }

 private:
  char** m_paths = nullptr;
  int m_count = 0;
};

}  // namespace qzvmfi_test

#endif  // QZVMFI_TESTS_UNIT_PLUGIN_FRAMEWORK_RECORDS_H
