// The framework's C helpers: object ids, buffers, provider lists and the
// bounded string functions.
#include "qzfi/records.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Every record and buffer handed to a plug-in comes from here, so that
// qzfi_free_buf can release any of them.
char* copyText(const char* text, size_t len) {
  char* copy = static_cast<char*>(qzfi_alloc_buf(len + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text, len);
  }
  return copy;
}

char* copyText(const char* text) {
  return copyText(text, std::strlen(text));
}

void freeTextArray(char** texts, int count) {
  if (texts == nullptr) {
    return;
  }
  for (int i = 0; i < count; ++i) {
    std::free(texts[i]);
  }
  std::free(texts);
}

qfi_provider_list* newProviderNode(const char* provider, char** names, int nnames) {
  auto* node = static_cast<qfi_provider_list*>(qzfi_alloc_buf(sizeof(qfi_provider_list)));
  if (node == nullptr) {
    return nullptr;
  }
  node->provider = copyText(provider);
  node->names = static_cast<char**>(qzfi_alloc_buf(sizeof(char*) * (nnames + 1)));
  bool complete = node->provider != nullptr && node->names != nullptr;
  for (int i = 0; complete && i < nnames; ++i) {
    node->names[i] = copyText(names[i] != nullptr ? names[i] : "");
    complete = node->names[i] != nullptr;
    node->nnames = i + 1;
  }
  if (!complete) {
    qzfi_free_providerlist(node);
    return nullptr;
  }
  return node;
}

}  // namespace

extern "C" {

qzfi_objid* qzfi_get_objid(const char* name, int len, int kind) {
  if (name == nullptr) {
    return nullptr;
  }
  // len counts the terminator; a non-positive len means "the whole name".
  size_t textLen = len > 0 ? strnlen(name, static_cast<size_t>(len) - 1) : std::strlen(name);
  auto* id = static_cast<qzfi_objid*>(qzfi_alloc_buf(sizeof(qzfi_objid)));
  if (id == nullptr) {
    return nullptr;
  }
  id->name = copyText(name, textLen);
  if (id->name == nullptr) {
    std::free(id);
    return nullptr;
  }
  id->kind = kind;
  id->len = static_cast<int32_t>(textLen + 1);
  return id;
}

void qzfi_free_objid(qzfi_objid* id) {
  if (id != nullptr) {
    std::free(id->name);
    std::free(id);
  }
}

void* qzfi_alloc_buf(size_t size) {
  return std::calloc(1, size != 0 ? size : 1);
}

void qzfi_free_buf(void* ptr, size_t, ...) {
  std::free(ptr);
}

int qzfi_build_providerlist_node(qfi_provider_list** list, const char* provider, char** names,
                                 int nnames) {
  if (list == nullptr || provider == nullptr || nnames < 0 || (nnames > 0 && names == nullptr)) {
    return QFI_E_INVALID;
  }
  qfi_provider_list* node = newProviderNode(provider, names, nnames);
  if (node == nullptr) {
    return QFI_E_NOMEM;
  }
  qfi_provider_list** tail = list;
  while (*tail != nullptr) {
    tail = &(*tail)->next;
  }
  *tail = node;
  return QFI_SUCCESS;
}

void qzfi_free_providerlist(qfi_provider_list* list) {
  while (list != nullptr) {
    qfi_provider_list* next = list->next;
    std::free(list->provider);
    freeTextArray(list->names, list->nnames);
    std::free(list);
    list = next;
  }
}

size_t V_strlncpy(char* dst, const char* src, size_t n, size_t size) {
  size_t len = src != nullptr ? strnlen(src, n) : 0;
  if (dst != nullptr && size > 0) {
    size_t copied = len < size ? len : size - 1;
    std::memmove(dst, src != nullptr ? src : "", copied);
    dst[copied] = '\0';
  }
  return len;
}

size_t V_strlcpy(char* dst, const char* src, size_t size) {
  return V_strlncpy(dst, src, static_cast<size_t>(-1), size);
}

size_t V_strlcat(char* dst, const char* src, size_t size) {
  size_t used = dst != nullptr ? strnlen(dst, size) : 0;
  size_t srcLen = src != nullptr ? std::strlen(src) : 0;
  if (used == size) {
    // No terminator inside size: nothing can be appended safely.
    return size + srcLen;
  }
  V_strlcpy(dst + used, src, size - used);
  return used + srcLen;
}

int V_snprintf(char* dst, size_t size, const char* fmt, ...) {
  if (fmt == nullptr || (dst == nullptr && size > 0)) {
    return -1;
  }
  va_list args;
  va_start(args, fmt);
  int written = std::vsnprintf(dst, size, fmt, args);
  va_end(args);
  if (written < 0 && size > 0) {
    dst[0] = '\0';
  }
  return written;
}

int V_sscanf(const char* src, const char* fmt, ...) {
  if (src == nullptr || fmt == nullptr) {
    return EOF;
  }
  va_list args;
  va_start(args, fmt);
  int assigned = std::vsscanf(src, fmt, args);
  va_end(args);
  return assigned;
}

}  // extern "C"
