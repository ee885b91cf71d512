// Split disks that the volume manager sees late: the plug-in waits for them
// and the copy is built once they appear. qzfi runs with its sleep() made
// instant and logged, so the test sees the wait without spending it; the
// progress line over a real pause is the progress watch's own test.
#include <fstream>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;

class WaitTest : public QzfiTest {
 protected:
  Lines sleptSeconds() const {
    std::ifstream log(sleeps());
    Lines seconds;
    for (std::string line; std::getline(log, line);) {
      seconds.push_back(line);
    }
    return seconds;
  }
};

TEST_F(WaitTest, ThePluginWaitsForDisksThatAppearLateAndBuildsTheCopyOnThem) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  admin({"fault", "hide-scans", "--host", "B", "--count", "1"});

  const QzfiRun imported =
      qzfiWithoutWaiting("B", {"--json", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  EXPECT_EQ((Lines{"10"}), sleptSeconds());
  const auto [group, volume] = groupAndVolume(imported.json()["device"]);
  EXPECT_EQ(checksum("B", group, volume), m_sourceSum);
  EXPECT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
}

}  // namespace
