#include "volio.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "tools.h"

namespace qzsim {

namespace {

constexpr uint64_t kSector = 512;

struct Piece {
  std::string image;
  uint64_t byteOffset;  // in the image
  uint64_t volSector, sectors;
};

const VolRec& startedVolume(Sim& s, const Sim::Group& g, const std::string& vol) {
  const VolRec* v = g.cfg.findVol(vol);
  if (!v)
    fail(kNoObject, "Volume " + vol + " not found in disk group " + g.cfg.dg.name);
  if (!s.isStarted(g.dgid, vol))
    fail(kVolCannotStart, "Volume " + vol + " is not started");
  return *v;
}

std::vector<Piece> plexPieces(Sim& s, const Sim::Group& g, const PlexRec& p) {
  std::vector<Piece> pieces;
  for (const SdRec* sd : g.cfg.sdsOf(p.name)) {
    auto it = g.dmDisk.find(sd->dm);
    if (it == g.dmDisk.end())
      return {};
    Disk d = Sim::loadDisk(s.db, it->second);
    uint64_t byteOffset = (static_cast<uint64_t>(d.puboffset) + sd->dmOffset) * kSector;
    pieces.push_back({d.image, byteOffset, sd->plOffset, sd->len});
  }
  return pieces;
}

// Calls fn(fd, imageByte, volumeByte, bytes) for each piece of the range.
void forRange(const std::vector<Piece>& pieces, uint64_t first, uint64_t count, int flags,
              const std::function<void(int, uint64_t, uint64_t, uint64_t)>& fn) {
  for (const auto& p : pieces) {
    uint64_t b = std::max(first, p.volSector), e = std::min(first + count, p.volSector + p.sectors);
    if (b >= e)
      continue;
    int fd = open(p.image.c_str(), flags | O_CLOEXEC);
    if (fd < 0)
      fail(kNoDisk, "cannot open disk image " + p.image);
    fn(fd, p.byteOffset + (b - p.volSector) * kSector, b * kSector, (e - b) * kSector);
    close(fd);
  }
}

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

std::string pattern(uint64_t seed, uint64_t volByte, uint64_t bytes) {
  std::string buf(bytes, '\0');
  for (uint64_t i = 0; i < bytes; i += 8) {
    uint64_t v = mix(seed * 0x100000001b3ull ^ ((volByte + i) / 8));
    for (uint64_t k = 0; k < 8 && i + k < bytes; ++k) buf[i + k] = static_cast<char>(v >> (8 * k));
  }
  return buf;
}

uint64_t clampLen(const VolRec& v, uint64_t offset, uint64_t len) {
  if (offset > v.len)
    fail(kUsage, "offset beyond the end of the volume");
  return len == 0 || offset + len > v.len ? v.len - offset : len;
}

std::vector<Piece> readPieces(Sim& s, const Sim::Group& g, const std::string& vol) {
  for (const PlexRec* p : g.cfg.plexesOf(vol)) {
    auto pieces = plexPieces(s, g, *p);
    if (!pieces.empty())
      return pieces;
  }
  fail(kVolCannotStart, "Volume " + vol + " has no readable plex");
}

}  // namespace

void writeVolume(Sim& s, const std::string& dg, const std::string& vol, uint64_t seed,
                 uint64_t offset, uint64_t len) {
  Sim::Group g = s.requireGroup(dg);
  const VolRec& v = startedVolume(s, g, vol);
  len = clampLen(v, offset, len);
  for (const PlexRec* p : g.cfg.plexesOf(vol)) {
    forRange(
        plexPieces(s, g, *p), offset, len, O_WRONLY,
        [&](int fd, uint64_t at, uint64_t volByte, uint64_t bytes) {
          for (uint64_t done = 0; done < bytes;) {
            uint64_t n = std::min<uint64_t>(bytes - done, 1 << 20);
            std::string buf = pattern(seed, volByte + done, n);
            if (pwrite(fd, buf.data(), n, static_cast<off_t>(at + done)) != static_cast<ssize_t>(n))
              fail(kNoDisk, "write to disk image failed");
            done += n;
          }
        });
  }
}

std::string readVolume(Sim& s, const std::string& dg, const std::string& vol, uint64_t offset,
                       uint64_t len) {
  Sim::Group g = s.requireGroup(dg);
  const VolRec& v = startedVolume(s, g, vol);
  len = clampLen(v, offset, len);
  std::string data(len * kSector, '\0');
  forRange(readPieces(s, g, vol), offset, len, O_RDONLY,
           [&](int fd, uint64_t at, uint64_t volByte, uint64_t bytes) {
             ssize_t n =
                 pread(fd, &data[volByte - offset * kSector], bytes, static_cast<off_t>(at));
             if (n < 0)
               fail(kNoDisk, "read from disk image failed");
           });
  return data;
}

std::string checksumVolume(Sim& s, const std::string& dg, const std::string& vol) {
  Sim::Group g = s.requireGroup(dg);
  const VolRec& v = startedVolume(s, g, vol);
  uint64_t h = 0xcbf29ce484222325ull;
  const uint64_t step = 2048;  // sectors per read
  for (uint64_t off = 0; off < v.len; off += step) {
    std::string data = readVolume(s, dg, vol, off, std::min(step, v.len - off));
    for (unsigned char c : data) h = (h ^ c) * 0x100000001b3ull;
  }
  char buf[20];
  snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
  return buf;
}

}  // namespace qzsim
