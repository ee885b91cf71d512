// Data of a volume, read and written through its subdisks into the disk
// images: a subdisk's sectors live at public offset + subdisk offset.
#pragma once

#include <cstdint>
#include <string>

#include "sim.h"

namespace qzsim {

// Writes a pattern made from seed over [offset, offset+len) sectors of the
// volume (len 0: to its end), into every plex.
void writeVolume(Sim& s, const std::string& dg, const std::string& vol, uint64_t seed,
                 uint64_t offset, uint64_t len);
// Reads from the first complete plex.
std::string readVolume(Sim& s, const std::string& dg, const std::string& vol, uint64_t offset,
                       uint64_t len);
// 64-bit FNV-1a of the whole volume, as 16 hex digits.
std::string checksumVolume(Sim& s, const std::string& dg, const std::string& vol);

}  // namespace qzsim
