// What this host's volume manager shows, read with its listing tools; the
// runs answered by the framework's seam.
#include "host_tools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qzfi/execpipe.h>

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiExecSeamScope;
using ::testing::ElementsAre;

TEST(HostTools, AToolRunGivesItsStatusAndLines) {
  CFiExecSeamScope seam;
  CFiExecSeam::answer("/usr/sbin/qzdg list", 0, {"NAME STATE ID\n", "dg1 enabled 1.2.A\n"});
  std::vector<std::string> lines = {"left over"};
  EXPECT_EQ(qzfi_host::runTool("/usr/sbin/qzdg list", lines), 0);
  EXPECT_THAT(lines, ElementsAre("NAME STATE ID\n", "dg1 enabled 1.2.A\n"));
  EXPECT_EQ(qzfi_host::runTool("/usr/sbin/qzdisk list sdf", lines), 127);
}

TEST(HostTools, OnlyPlainNamesGoOnACommandLine) {
  EXPECT_TRUE(qzfi_host::plainName("/dev/sdf"));
  EXPECT_TRUE(qzfi_host::plainName("qzarr0_1:a+b.c"));
  EXPECT_FALSE(qzfi_host::plainName(""));
  EXPECT_FALSE(qzfi_host::plainName("-f"));
  EXPECT_FALSE(qzfi_host::plainName("sdf;rm"));
  EXPECT_FALSE(qzfi_host::plainName("sd f"));
}

TEST(HostTools, TheFirstWordSkipsBlanks) {
  EXPECT_EQ(qzfi_host::firstWord("  dg1   enabled\n"), "dg1");
  EXPECT_EQ(qzfi_host::firstWord("dg1\n"), "dg1");
  EXPECT_EQ(qzfi_host::firstWord(" \t"), "");
}

TEST(HostTools, TheGroupOnADiskIsItsGroupLinesName) {
  EXPECT_EQ(qzfi_host::groupOnDisk({"Device:    sdf\n", "group:     name=dg1_7 id=1.2.B\n"}),
            "dg1_7");
  EXPECT_EQ(qzfi_host::groupOnDisk({"Device:    sdf\n", "group:     -\n"}), "");
  EXPECT_EQ(qzfi_host::groupOnDisk({"Device:    sdf\n"}), "");
}

TEST(HostTools, AVolumePathGivesItsGroupAndVolume) {
  EXPECT_EQ(qzfi_host::groupOfVolumePath("/dev/qz/dsk/dg1_7/vol1"), "dg1_7");
  EXPECT_EQ(qzfi_host::volumeOfVolumePath("/dev/qz/dsk/dg1_7/vol1"), "vol1");
  EXPECT_EQ(qzfi_host::groupOfVolumePath("/vol1"), "");
  EXPECT_EQ(qzfi_host::volumeOfVolumePath("/vol1"), "");
  EXPECT_EQ(qzfi_host::volumeOfVolumePath("vol1"), "");
}

}  // namespace
