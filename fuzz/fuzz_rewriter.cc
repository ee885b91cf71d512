// The configuration-dump rewriter on arbitrary dumps and names. The input's
// first line lists the primary disks, its second the primary disk-media
// names (only those that are names of the volume manager are kept); the
// rest is the dump. The replay file never holds a group or disk-media
// record nor a guid line; rewriting without a change of names is
// idempotent; and rewriting a dump without zero bytes to fresh names and
// back gives the same file as no rewriting at all.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "support/qzvm_support.h"

namespace {

using Names = std::vector<std::string>;
using qzvmfi_fuzz::valueStartsWithComma;

CQzVMSupport& support() {
  qzvmfi_fuzz::privateFolder();
  static CQzVMSupport object;
  return object;
}

const std::string& fileIn() {
  static const std::string path = qzvmfi_fuzz::privateFolder() + "/in";
  return path;
}

const std::string& fileOut() {
  static const std::string path = qzvmfi_fuzz::privateFolder() + "/out";
  return path;
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The replay file that reconfig makes of dump with primary names mapped to
// alternate ones.
std::string rewrite(const std::string& dump, const Names& priDisks, const Names& altDisks,
                    const Names& priDMs, const Names& altDMs) {
  writeFile(fileIn(), dump);
  if (support().reconfig(fileIn(), "dg1", "dg2", priDisks, altDisks, priDMs, altDMs, fileOut()) !=
      0) {
    abort();
  }
  return readFile(fileOut());
}

Names namesOnLine(const std::string& line) {
  Names names;
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    if (qzvmNameFault(word) == nullptr) {
      names.push_back(word);
    }
  }
  return names;
}

// Names of one length that no dump line holds, so that they are found again
// exactly where they were put.
Names freshNames(const char* prefix, size_t count) {
  Names names;
  for (size_t i = 0; i < count; ++i) {
    std::string digits = std::to_string(i);
    names.push_back(prefix + std::string(6 - std::min<size_t>(6, digits.size()), '0') + digits);
  }
  return names;
}

// The dump's lines as the rewriter reads them: a dump holding a zero byte
// is read with fgetline, which ends a line at the zero and glues what it
// reads next to it.
Names readerLines(const std::string& dump) {
  Names lines;
  if (dump.find('\0') == std::string::npos) {
    std::istringstream in(dump);
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    return lines;
  }
  FILE* in = fmemopen(const_cast<char*>(dump.data()), dump.size(), "r");
  for (std::string line; CQzVMSupport::fgetline(line, in), !line.empty();) {
    lines.push_back(line);
  }
  fclose(in);
  return lines;
}

bool rewritableWithDesignedAbort(const std::string& dump) {
  const Names lines = readerLines(dump);
  for (const char* key : {"path", "da_name", "dm_name"}) {
    for (const std::string& line : lines) {
      if (valueStartsWithComma(line, key)) {
        return true;
      }
    }
  }
  return false;
}

void checkNoGroupRecords(const std::string& replay) {
  std::istringstream lines(replay);
  for (std::string line; std::getline(lines, line);) {
    const std::string::size_type first = line.find_first_not_of(" \n\t\r");
    if ((first != std::string::npos && line.compare(first, 5, "guid=") == 0) ||
        line.rfind("dg ", 0) == 0 || line.rfind("dg\t", 0) == 0 || line.rfind("dm ", 0) == 0 ||
        line.rfind("dm\t", 0) == 0) {
      abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string text = qzvmfi_fuzz::textOf(bytes, size);
  std::istringstream input(text);
  std::string diskLine;
  std::string dmLine;
  std::getline(input, diskLine);
  std::getline(input, dmLine);
  const std::string dump =
      input.eof() ? std::string() : text.substr(static_cast<size_t>(input.tellg()));
  if (rewritableWithDesignedAbort(dump)) {
    return 0;
  }
  const Names priDisks = namesOnLine(diskLine);
  const Names priDMs = namesOnLine(dmLine);

  const std::string kept = rewrite(dump, priDisks, priDisks, priDMs, priDMs);
  checkNoGroupRecords(kept);
  if (rewrite(kept, priDisks, priDisks, priDMs, priDMs) != kept) {
    abort();
  }
  // A zero byte ends a line where the reader meets it and glues the rest of
  // the line to the next one, so the replay file is split into other lines
  // than its dump: such dumps are held only to what the file must not hold.
  if (dump.find('\0') != std::string::npos || dump.find("Zq") != std::string::npos ||
      dump.find("Zm") != std::string::npos) {
    return 0;
  }
  const Names altDisks = freshNames("Zq", priDisks.size());
  const Names altDMs = freshNames("Zm", priDMs.size());
  const std::string renamed = rewrite(dump, priDisks, altDisks, priDMs, altDMs);
  checkNoGroupRecords(renamed);
  if (rewrite(renamed, altDisks, priDisks, altDMs, priDMs) != kept) {
    abort();
  }
  return 0;
}
