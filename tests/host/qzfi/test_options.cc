// qzfi's command line.
#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using qzfi_host::Command;
using qzfi_host::Options;
using qzfi_host::parseOptions;
using qzfi_host::UsageError;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

Options parse(std::vector<std::string> args) {
  args.insert(args.begin(), "qzfi");
  return parseOptions(args);
}

// The text of the usage error args give.
std::string refusal(std::vector<std::string> args) {
  try {
    parse(std::move(args));
  } catch (const UsageError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(Options, GlobalOptionsComeBeforeTheCommand) {
  Options options =
      parse({"--plugin", "/opt/libother.so", "--json", "--quiet", "--verbose", "info"});
  EXPECT_EQ(options.plugin, "/opt/libother.so");
  EXPECT_TRUE(options.json);
  EXPECT_TRUE(options.quiet);
  EXPECT_TRUE(options.verbose);
  EXPECT_EQ(options.command, Command::info);
  EXPECT_EQ(options.commandName, "info");
}

// As users type them: "qzfi info --json".
TEST(Options, GlobalOptionsComeAfterTheCommandToo) {
  Options options = parse({"deport", "--json", "--record", "r.json", "--plugin", "/opt/libother.so",
                           "--quiet", "--verbose"});
  EXPECT_EQ(options.command, Command::deport);
  EXPECT_EQ(options.record, "r.json");
  EXPECT_EQ(options.plugin, "/opt/libother.so");
  EXPECT_TRUE(options.json);
  EXPECT_TRUE(options.quiet);
  EXPECT_TRUE(options.verbose);
  EXPECT_TRUE(parse({"info", "--json"}).json);
  EXPECT_FALSE(parse({"info"}).verbose);
}

TEST(Options, ThePluginDefaultsToQzvmfi) {
  EXPECT_EQ(parse({"info"}).plugin, "qzvmfi");
}

TEST(Options, PrepareTakesThePathAndTheRecord) {
  Options options = parse({"prepare", "/dev/qz/dsk/dg1/vol1", "--record", "/tmp/b.json"});
  EXPECT_EQ(options.command, Command::prepare);
  EXPECT_EQ(options.path, "/dev/qz/dsk/dg1/vol1");
  EXPECT_EQ(options.record, "/tmp/b.json");
}

TEST(Options, ImportTakesTheSecondaryDisksInTheirOrder) {
  Options options =
      parse({"import", "--record", "r.json", "--secondary", "/dev/sdf,/dev/sde", "--raw"});
  EXPECT_THAT(options.secondary, ElementsAre("/dev/sdf", "/dev/sde"));
  EXPECT_TRUE(options.raw);
}

TEST(Options, ReleaseTakesADispositionThatDefaultsToDelete) {
  EXPECT_EQ(parse({"release", "--record", "r.json"}).disposition, 1);
  EXPECT_EQ(parse({"release", "--record", "r.json", "--disposition", "3"}).disposition, 3);
  EXPECT_THAT(refusal({"release", "--record", "r.json", "--disposition", "9"}),
              HasSubstr("--disposition takes a number from 0 to 3, not '9'"));
}

TEST(Options, AccessSaysOnOrOffAndTakesFlags) {
  Options off = parse({"access", "off", "--record", "r.json", "--flags", "0x8400"});
  EXPECT_FALSE(off.accessOn);
  EXPECT_EQ(off.accessFlags, 0x8400);
  EXPECT_TRUE(parse({"access", "on", "--record", "r.json"}).accessOn);
  EXPECT_EQ(refusal({"access", "maybe", "--record", "r.json"}), "access: say 'on' or 'off'");
}

TEST(Options, ResourceCommandsTakeDisks) {
  Options format = parse({"format", "--group", "rdg", "--volume", "rvol", "/dev/sdb", "/dev/sdc"});
  EXPECT_EQ(format.group, "rdg");
  EXPECT_EQ(format.volume, "rvol");
  EXPECT_THAT(format.disks, ElementsAre("/dev/sdb", "/dev/sdc"));
  Options online = parse({"online", "--persistent", "/dev/sdb"});
  EXPECT_TRUE(online.persistent);
  EXPECT_THAT(online.disks, ElementsAre("/dev/sdb"));
  EXPECT_EQ(refusal({"unformat"}), "unformat: at least one disk is required");
}

TEST(Options, CommandsThatFollowARecordNeedIt) {
  EXPECT_EQ(refusal({"deport"}), "deport: --record FILE is required");
  EXPECT_EQ(refusal({"prepare", "/dev/qz/dsk/dg1/vol1"}), "prepare: --record FILE is required");
  EXPECT_EQ(refusal({"import", "--record", "r.json"}),
            "import: --secondary DISK[,DISK...] is required");
}

TEST(Options, OptionsOfAnotherCommandAreRefused) {
  EXPECT_EQ(refusal({"deport", "--record", "r.json", "--raw"}),
            "deport: unknown option or argument '--raw'");
  EXPECT_EQ(refusal({"claim", "/dev/qz/dsk/dg1/vol1", "extra"}),
            "claim: one object path is required");
}

TEST(Options, NamesWithShellCharactersNeverGetThrough) {
  EXPECT_THAT(
      refusal({"claim", "/dev/qz/dsk/dg1/vol1;reboot"}),
      HasSubstr("object path '/dev/qz/dsk/dg1/vol1;reboot' is not a device or object name"));
  EXPECT_THAT(refusal({"import", "--record", "r", "--secondary", "/dev/sdb,$(id)"}),
              HasSubstr("secondary disk '$(id)'"));
  EXPECT_THAT(refusal({"import", "--record", "r", "--secondary", "/dev/sdb,"}),
              HasSubstr("secondary disk ''"));
  EXPECT_THAT(refusal({"format", "--group", "a b", "/dev/sdb"}), HasSubstr("disk group 'a b'"));
  EXPECT_THAT(refusal({"format", "--volume", "../up", "/dev/sdb"}),
              HasSubstr("volume '../up' is not a group or volume name"));
  EXPECT_THAT(refusal({"online", "-rf"}), HasSubstr("unknown option or argument '-rf'"));
}

TEST(Options, GroupAndVolumeNamesAreAtMost31Characters) {
  EXPECT_EQ(parse({"format", "--group", std::string(31, 'g'), "/dev/sdb"}).group.size(), 31u);
  EXPECT_THAT(refusal({"format", "--group", std::string(32, 'g'), "/dev/sdb"}),
              HasSubstr("at most 31 characters"));
}

TEST(Options, UnknownCommandsAndOptionsAreNamed) {
  EXPECT_EQ(refusal({}), "no command given");
  EXPECT_EQ(refusal({"backup"}), "unknown command 'backup'");
  EXPECT_EQ(refusal({"--loud", "info"}), "unknown option '--loud'");
  EXPECT_EQ(refusal({"info", "--loud"}), "info: unknown option or argument '--loud'");
  EXPECT_EQ(refusal({"--plugin"}), "--plugin needs a name or a file");
  EXPECT_EQ(refusal({"info", "--plugin"}), "--plugin needs a name or a file");
  EXPECT_EQ(refusal({"prepare", "/dev/qz/dsk/dg1/vol1", "--record"}),
            "prepare: --record needs a value");
}

TEST(Options, HelpAndVersionNeedNothingElse) {
  EXPECT_EQ(parse({"--help"}).command, Command::help);
  EXPECT_EQ(parse({"help"}).command, Command::help);
  EXPECT_EQ(parse({"--version"}).command, Command::version);
}

TEST(Options, TheHelpListsEveryCommandAndExitCode) {
  const std::string help = qzfi_host::helpText();
  for (const char* command :
       {"info", "claim PATH", "prepare PATH --record FILE", "deport --record FILE",
        "import --record FILE --secondary", "move --record FILE",
        "release --record FILE [--disposition N]", "access off|on --record FILE",
        "format [--group DG]", "online", "unformat"}) {
    EXPECT_THAT(help, HasSubstr(command));
  }
  for (int code = 0; code <= 6; ++code) {
    EXPECT_THAT(help, HasSubstr("\n  " + std::to_string(code) + "  "));
  }
}

TEST(Options, ExitCodesHaveNames) {
  EXPECT_STREQ(qzfi_host::exitCodeName(0), "done");
  EXPECT_STREQ(qzfi_host::exitCodeName(3), "record unusable");
  EXPECT_STREQ(qzfi_host::exitCodeName(6), "failed");
}

}  // namespace

namespace {

TEST(Options, ThisHostWasIsTakenByTheCommandsThatRunOnARecordedHost) {
  for (const char* command : {"deport", "move", "release"}) {
    EXPECT_EQ(parse({command, "--record", "r.json", "--this-host-was", "A"}).thisHostWas, "A")
        << command;
  }
  EXPECT_EQ(parse({"access", "off", "--record", "r.json", "--this-host-was",
                   "0123456789abcdef0123456789abcdef"})
                .thisHostWas,
            "0123456789abcdef0123456789abcdef");
  EXPECT_EQ(parse({"release", "--record", "r.json"}).thisHostWas, "");
  EXPECT_EQ(
      refusal({"import", "--record", "r.json", "--secondary", "/dev/sdb", "--this-host-was", "A"}),
      "import: unknown option or argument '--this-host-was'");
  EXPECT_EQ(
      refusal({"prepare", "/dev/qz/dsk/dg1/vol1", "--record", "r.json", "--this-host-was", "A"}),
      "prepare: unknown option or argument '--this-host-was'");
  EXPECT_THAT(refusal({"release", "--record", "r.json", "--this-host-was", "a;b"}),
              HasSubstr("host 'a;b' is not a device or object name"));
  EXPECT_EQ(refusal({"release", "--record", "r.json", "--this-host-was"}),
            "release: --this-host-was needs a value");
  EXPECT_THAT(qzfi_host::helpText(), HasSubstr("--this-host-was HOST"));
}

}  // namespace
