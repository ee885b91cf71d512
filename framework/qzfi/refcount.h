// Reference counting, the intrusive smart pointer and per-plug-in singletons.
// These live in the headers and are compiled into each plug-in.
#ifndef QZFI_REFCOUNT_H
#define QZFI_REFCOUNT_H

#include <atomic>
#include <mutex>
#include <utility>

namespace qzfi_pdk_4_4 {

class CFiRefCount {
 public:
  CFiRefCount() = default;
  CFiRefCount(const CFiRefCount&) : m_count(0) {}
  CFiRefCount& operator=(const CFiRefCount&) { return *this; }
  virtual ~CFiRefCount() = default;

  long increment() { return ++m_count; }
  long decrement() { return --m_count; }
  long getCount() const { return m_count.load(); }

 private:
  std::atomic<long> m_count{0};
};

struct CFiDefaultAllocator {
  template <class T>
  static void destroy(T* object) {
    delete object;
  }
};

// Intrusive pointer: the count lives in the object (CFiRefCount), so a raw
// pointer handed across the framework boundary can be wrapped again safely.
template <class T, class Allocator = CFiDefaultAllocator>
class CFiSmartPtr {
 public:
  CFiSmartPtr() = default;
  explicit CFiSmartPtr(T* object) : m_ptr(object) { acquire(); }
  CFiSmartPtr(const CFiSmartPtr& other) : m_ptr(other.m_ptr) { acquire(); }
  CFiSmartPtr(CFiSmartPtr&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
  template <class U>
  CFiSmartPtr(const CFiSmartPtr<U, Allocator>& other) : m_ptr(other.get()) {
    acquire();
  }
  ~CFiSmartPtr() { release(); }

  CFiSmartPtr& operator=(CFiSmartPtr other) noexcept {
    std::swap(m_ptr, other.m_ptr);
    return *this;
  }

  // Drops this reference; the object goes when its count reaches zero.
  void release() {
    T* object = std::exchange(m_ptr, nullptr);
    if (object != nullptr && object->decrement() == 0) {
      Allocator::destroy(object);
    }
  }

  T* get() const { return m_ptr; }
  T* operator->() const { return m_ptr; }
  T& operator*() const { return *m_ptr; }
  explicit operator bool() const { return m_ptr != nullptr; }
  bool operator==(const CFiSmartPtr& other) const { return m_ptr == other.m_ptr; }
  bool operator!=(const CFiSmartPtr& other) const { return m_ptr != other.m_ptr; }

 private:
  void acquire() {
    if (m_ptr != nullptr) {
      m_ptr->increment();
    }
  }

  T* m_ptr = nullptr;
};

// One instance of T per plug-in (Tag names the plug-in). instance(true)
// tears it down; a later instance() creates a fresh one.
template <class T, class Tag>
class CFiContextSingleton {
 public:
  static CFiSmartPtr<T> instance(bool teardown = false) {
    std::lock_guard<std::mutex> guard(mutex());
    CFiSmartPtr<T>& held = slot();
    if (teardown) {
      held.release();
      return CFiSmartPtr<T>();
    }
    if (!held) {
      held = CFiSmartPtr<T>(new T());
    }
    return held;
  }

  static bool exists() {
    std::lock_guard<std::mutex> guard(mutex());
    return static_cast<bool>(slot());
  }

 private:
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static CFiSmartPtr<T>& slot() {
    static CFiSmartPtr<T> held;
    return held;
  }
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_REFCOUNT_H
