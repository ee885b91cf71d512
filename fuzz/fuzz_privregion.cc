// The private-region parser on arbitrary "qzdisk list" output. It never
// fails; the values it reads hold no separator; and a record whose every
// field is a name of the volume manager, printed as the tool prints it,
// reads back as the same record.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "support/qzvm_support.h"

namespace {

using qzvmfi_fuzz::toolLines;
using qzvmfi_fuzz::valueStartsWithComma;
using Record = vol_pvt_info;

// The tags whose value the parser takes apart by key.
const char* const kKeyedTags[][2] = {
    {"disk:", "name"},    {"group:", "name"},     {"group:", "id"},      {"info:", "format"},
    {"public:", "slice"}, {"public:", "len"},     {"public:", "offset"}, {"private:", "slice"},
    {"private:", "len"},  {"private:", "offset"}, {"configs:", "len"},   {"configs:", "count"},
    {"logs:", "len"},     {"logs:", "count"},
};

bool hasDesignedAbort(const std::vector<std::string>& lines) {
  for (const auto& tag : kKeyedTags) {
    std::string value;
    if (getMetaValForkey(lines, tag[0], value) == 0 && valueStartsWithComma(value, tag[1])) {
      return true;
    }
  }
  return false;
}

std::vector<std::string Record::*> parsedFields() {
  return {&Record::vpi_da,         &Record::vpi_dm,       &Record::vpi_dgname,
          &Record::vpi_dgid,       &Record::vpi_da_type,  &Record::vpi_format,
          &Record::vpi_pub_slice,  &Record::vpi_pub_len,  &Record::vpi_pub_offset,
          &Record::vpi_priv_slice, &Record::vpi_priv_len, &Record::vpi_priv_offset,
          &Record::vpi_configlen,  &Record::vpi_nconfig,  &Record::vpi_loglen,
          &Record::vpi_nlogs};
}

bool sameRecord(const Record& a, const Record& b) {
  for (auto field : parsedFields()) {
    if (a.*field != b.*field) {
      return false;
    }
  }
  return a.vpi_priv_path == b.vpi_priv_path && a.vpi_error == b.vpi_error;
}

// The listing "qzdisk list" prints for the record.
std::vector<std::string> listingOf(const Record& r) {
  return toolLines("Device:    " + r.vpi_da + "\ntype:      " + r.vpi_da_type +
                   "\ndisk:      name=" + r.vpi_dm + " id=1.1.host" +
                   "\ngroup:     name=" + r.vpi_dgname + " id=" + r.vpi_dgid +
                   "\ninfo:      format=" + r.vpi_format + ",privoffset=" + r.vpi_priv_offset +
                   "\nflags:     online ready private" + (r.vpi_error ? " error" : "") +
                   "\npublic:    slice=" + r.vpi_pub_slice + " offset=" + r.vpi_pub_offset +
                   " len=" + r.vpi_pub_len + "\nprivate:   slice=" + r.vpi_priv_slice +
                   " offset=" + r.vpi_priv_offset + " len=" + r.vpi_priv_len +
                   "\nconfigs:   count=" + r.vpi_nconfig + " len=" + r.vpi_configlen +
                   "\nlogs:      count=" + r.vpi_nlogs + " len=" + r.vpi_loglen + "\n");
}

CQzVMSupport& support() {
  qzvmfi_fuzz::privateFolder();
  static CQzVMSupport object;
  return object;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::vector<std::string> lines = toolLines(qzvmfi_fuzz::textOf(bytes, size));
  if (hasDesignedAbort(lines)) {
    return 0;
  }
  Record record;
  if (support().parseVolPrivInfo(lines, record) != 0) {
    abort();
  }
  bool allNames = true;
  for (auto field : parsedFields()) {
    const std::string& value = record.*field;
    const bool whole = field == &Record::vpi_da || field == &Record::vpi_da_type;
    // A whole value is trimmed; a keyed one ends at a blank or a comma.
    const std::string trim = " \n\t\r";
    if (whole ? value.find('\n') != std::string::npos ||
                    (!value.empty() && (trim.find(value.front()) != std::string::npos ||
                                        trim.find(value.back()) != std::string::npos))
              : value.find_first_of(" ,\t\n") != std::string::npos) {
      abort();
    }
    allNames = allNames && qzvmNameFault(value) == nullptr;
  }
  if (allNames) {
    Record again;
    if (support().parseVolPrivInfo(listingOf(record), again) != 0 || !sameRecord(record, again)) {
      abort();
    }
  }
  return 0;
}
