// The text helpers and the dump file reading and writing.
#include "support/qzvm_support.h"

#include <stdio.h>

#include <filesystem>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

class SupportTest : public PluginEnv {};

// getToken

TEST(GetToken, CountsRunsOfNonWhiteCharacters) {
  EXPECT_EQ("b", getToken("  a  b c ", 1));
  EXPECT_EQ("a", getToken("  a  b c ", 0));
  EXPECT_EQ("c", getToken("  a  b c ", 2));
}

TEST(GetToken, PastTheLastTokenIsEmpty) {
  EXPECT_EQ("", getToken("a", 3));
  EXPECT_EQ("", getToken("a b", 2));
  EXPECT_EQ("", getToken("", 0));
  EXPECT_EQ("", getToken(" \t\n", 0));
}

TEST(GetToken, EveryWhiteCharacterSeparates) {
  EXPECT_EQ("b", getToken("a\tb\nc", 1));
  EXPECT_EQ("c", getToken("a\r\vb\fc", 2));
}

TEST(GetToken, RepeatedTokensAreCountedByPosition) {
  EXPECT_EQ("a", getToken("ab a", 1));
  EXPECT_EQ("ab", getToken("a ab", 1));
}

TEST(GetToken, NegativeIndexIsEmpty) {
  EXPECT_EQ("", getToken("a b", -1));
}

TEST(GetToken, TextEndsAtAZeroCharacter) {
  EXPECT_EQ("", getToken(std::string("a\0b", 3), 1));
}

// getValForKey

TEST(GetValForKey, FindsTheValueOfTheKey) {
  EXPECT_EQ("sda", getValForKey("dm_name=disk01 da_name=sda", "da_name"));
  EXPECT_EQ("disk01", getValForKey("dm_name=disk01 da_name=sda", "dm_name"));
}

TEST(GetValForKey, MissingKeyIsEmpty) {
  EXPECT_EQ("", getValForKey("x=1", "y"));
}

TEST(GetValForKey, ValueEndsAtABlankOrAComma) {
  EXPECT_EQ("1", getValForKey("a=1,b=2", "a"));
  EXPECT_EQ("2", getValForKey("a=1,b=2", "b"));
  EXPECT_EQ("x", getValForKey("k=x\ty", "k"));
}

TEST(GetValForKey, LeadingAndTrailingWhiteIsTrimmed) {
  EXPECT_EQ("v", getValForKey("k=  v\r\n", "k"));
  EXPECT_EQ("", getValForKey("k=   ", "k"));
  EXPECT_EQ("", getValForKey("k=", "k"));
}

TEST(GetValForKey, KeyIsFoundInsideALongerKey) {
  EXPECT_EQ("256", getValForKey("privlen=256 len=8", "len"));
}

// text as a death-test pattern that matches it literally. Built by hand:
// std::regex trips a false uninitialised-value warning of GCC 12 under the
// sanitizers.
std::string regexQuoted(const std::string& text) {
  std::string quoted;
  for (char c : text) {
    if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted;
}

TEST(GetValForKeyDeathTest, ValueBeginningWithACommaStopsTheProcess) {
  const std::string expected =
      "qzvm_support:4095: std::string getValForKey(const std::string&, const std::string&): "
      "Assertion `! ( (str[0] == ' ') || (str[0] == ',') || (str[0] == '\\t') || "
      "(str[0] == '\\n') )' failed.";
  EXPECT_DEATH(getValForKey("key=,x", "key"), regexQuoted(expected));
  EXPECT_DEATH(getValForKey("key=  ,x", "key"), regexQuoted(expected));
}

// getMetaValForkey

TEST(GetMetaValForkey, RestOfTheFirstLineHoldingTheKey) {
  const Lines lines{"Device:    sdb\n", "disk:      name=d01 id=1\n", "disk:   second\n"};
  std::string value = "old";
  EXPECT_EQ(0, getMetaValForkey(lines, "disk:", value));
  EXPECT_EQ("name=d01 id=1", value);
  EXPECT_EQ(0, getMetaValForkey(lines, "Device:", value));
  EXPECT_EQ("sdb", value);
}

TEST(GetMetaValForkey, WhatStandsBeforeTheKeyStays) {
  std::string value;
  EXPECT_EQ(0, getMetaValForkey({"  x private: slice=3\n"}, "private:", value));
  EXPECT_EQ("x  slice=3", value);
}

TEST(GetMetaValForkey, MissingKeyLeavesTheValue) {
  std::string value = "kept";
  EXPECT_EQ(1, getMetaValForkey({"a: 1\n"}, "flags:", value));
  EXPECT_EQ("kept", value);
  EXPECT_EQ(1, getMetaValForkey({}, "flags:", value));
}

// hasVal and its named forms

TEST(HasVal, KeyPresentWithEmptyValueIsFalse) {
  EXPECT_FALSE(hasVal("path=", "path"));
  EXPECT_FALSE(hasVal("x=1", "path"));
  EXPECT_TRUE(hasVal("path=/dev/qz/dmp/sdb3", "path"));
}

TEST(HasVal, NamedForms) {
  EXPECT_TRUE(hasDAName("\tda_name=sdb"));
  EXPECT_FALSE(hasDAName("\tdm_name=d01"));
  EXPECT_TRUE(hasDMName("\tdm_name=d01"));
  EXPECT_FALSE(hasDMName("\tdm_name="));
  EXPECT_TRUE(hasPathVal("\tpath=/dev/x"));
  EXPECT_FALSE(hasPathVal("\tpath= "));
}

// replaceString

TEST(ReplaceString, ReplacesTheFirstOccurrenceFromAPosition) {
  std::string text = "sdb sdb";
  EXPECT_EQ(0, replaceString(text, 0, "sdb", "sdx"));
  EXPECT_EQ("sdx sdb", text);
  EXPECT_EQ(0, replaceString(text, 1, "sd", "hd"));
  EXPECT_EQ("sdx hdb", text);
}

TEST(ReplaceString, NothingFoundLeavesTheText) {
  std::string text = "abc";
  EXPECT_EQ(1, replaceString(text, 0, "x", "y"));
  EXPECT_EQ(1, replaceString(text, 1, "a", "y"));
  EXPECT_EQ("abc", text);
}

TEST(ReplaceString, CalledUntilItFailsReplacesAll) {
  std::string text = "a-a-a";
  while (replaceString(text, 0, "a", "b") == 0) {
  }
  EXPECT_EQ("b-b-b", text);
}

// checkVectorMatch, isUniqueInVector

TEST(CheckVectorMatch, EveryWantedEntryMustBePresent) {
  EXPECT_TRUE(checkVectorMatch({"a", "b"}, {"b", "c", "a"}, false));
  EXPECT_FALSE(checkVectorMatch({"a", "d"}, {"b", "c", "a"}, false));
  EXPECT_FALSE(checkVectorMatch({"a"}, {}, false));
  EXPECT_TRUE(checkVectorMatch({"a", "a"}, {"a"}, false));
}

TEST(CheckVectorMatch, SameSizeComparesLengths) {
  EXPECT_FALSE(checkVectorMatch({"a"}, {"a", "b"}, true));
  EXPECT_TRUE(checkVectorMatch({"b", "a"}, {"a", "b"}, true));
  EXPECT_FALSE(checkVectorMatch({}, {"a"}, true));
}

TEST(CheckVectorMatch, EmptyWantedListMatches) {
  EXPECT_TRUE(checkVectorMatch({}, {"a"}, false));
  EXPECT_TRUE(checkVectorMatch({}, {}, true));
}

TEST(IsUniqueInVector, ExactComparison) {
  EXPECT_TRUE(isUniqueInVector({}, "a"));
  EXPECT_TRUE(isUniqueInVector({"A", "ab"}, "a"));
  EXPECT_FALSE(isUniqueInVector({"b", "a"}, "a"));
}

// MAKE_NAME_RFIT, createUniqueInVector

TEST(MakeNameRfit, LongNamesLoseTheirFront) {
  std::string name = "0123456789abcdefghijklmnopqrstuvwxy";  // 35 characters
  ASSERT_EQ(35u, name.size());
  MAKE_NAME_RFIT(name);
  EXPECT_EQ("456789abcdefghijklmnopqrstuvwxy", name);  // characters 5 to 35
}

TEST(MakeNameRfit, ShortNamesStay) {
  std::string name(31, 'n');
  MAKE_NAME_RFIT(name);
  EXPECT_EQ(std::string(31, 'n'), name);
  std::string empty;
  MAKE_NAME_RFIT(empty);
  EXPECT_EQ("", empty);
}

TEST_F(SupportTest, CreateUniqueTakesTheFirstFreeSuffix) {
  std::string name = "dg";
  createUniqueInVector({"dg_0", "dg_1"}, name);
  EXPECT_EQ("dg_2", name);
}

TEST_F(SupportTest, CreateUniqueAlwaysAddsASuffix) {
  std::string name = "dg";
  createUniqueInVector({}, name);
  EXPECT_EQ("dg_0", name);
}

TEST_F(SupportTest, CreateUniqueCutsTheCandidateBeforeTesting) {
  const std::string base = "abcdefghijklmnopqrstuvwxyz0123";  // 30 characters
  ASSERT_EQ(30u, base.size());
  std::string name = base;
  createUniqueInVector({}, name);
  EXPECT_EQ("bcdefghijklmnopqrstuvwxyz0123_0", name);

  name = base;
  createUniqueInVector({"bcdefghijklmnopqrstuvwxyz0123_0"}, name);
  EXPECT_EQ("bcdefghijklmnopqrstuvwxyz0123_1", name);
}

TEST_F(SupportTest, CreateUniqueGivesUpAfter1024Tries) {
  Lines taken;
  for (int i = 0; i < 1024; ++i) {
    taken.push_back("dm_" + std::to_string(i));
  }
  std::string name = "dm";
  createUniqueInVector(taken, name);
  EXPECT_EQ("", name);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::createUniqueInVector - unable to create unique name for dm/dg."));

  taken.pop_back();
  name = "dm";
  createUniqueInVector(taken, name);
  EXPECT_EQ("dm_1023", name);
}

// multiLinesToVector

TEST(MultiLinesToVector, KeepsEmptyLinesBetweenLineFeeds) {
  Lines lines{"before"};
  multiLinesToVector("a\n\nb\n", lines);
  EXPECT_EQ((Lines{"before", "a", "", "b"}), lines);
}

TEST(MultiLinesToVector, LastLineWithoutLineFeed) {
  Lines lines;
  multiLinesToVector("a\n b ", lines);
  EXPECT_EQ((Lines{"a", " b "}), lines);
  multiLinesToVector("", lines);
  EXPECT_EQ(2u, lines.size());
  multiLinesToVector("\n", lines);
  EXPECT_EQ((Lines{"a", " b ", ""}), lines);
}

// fgetline, putVectorInFile

class FileTest : public ::testing::Test {
 protected:
  TempDir m_dir;
};

TEST_F(FileTest, FgetlineReadsWholeLinesOfAnyLength) {
  const std::string longLine = std::string(1500, 'x') + "\n";
  writeFile(m_dir.file("in"), "first\n" + longLine + std::string(511, 'y') + "\nlast");
  FILE* in = fopen(m_dir.file("in").c_str(), "r");
  ASSERT_NE(nullptr, in);
  std::string line;
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ("first\n", line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ(longLine, line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ(std::string(511, 'y') + "\n", line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ("last", line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ("", line);
  fclose(in);
}

TEST_F(FileTest, PutVectorInFileWritesEntriesAsTheyAre) {
  const std::string path = m_dir.file("out");
  writeFile(path, "old content that is longer\n");
  EXPECT_EQ(0, CQzVMSupport::putVectorInFile({"vol v1\n", "\tlen=8\n", "tail"}, path));
  EXPECT_EQ("vol v1\n\tlen=8\ntail", readFile(path));
}

TEST_F(FileTest, PutVectorInFileWithAnEmptyListFailsButLeavesAnEmptyFile) {
  const std::string path = m_dir.file("out");
  writeFile(path, "old\n");
  EXPECT_EQ(1, CQzVMSupport::putVectorInFile({}, path));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ("", readFile(path));
}

TEST_F(FileTest, PutVectorInFileThatCannotOpenFails) {
  EXPECT_EQ(1, CQzVMSupport::putVectorInFile({"x\n"}, m_dir.file("missing/out")));
}

// printList4

TEST_F(SupportTest, PrintList4TracesAnEmptyLineThenEachEntry) {
  printList4({"a", "b c"});
  EXPECT_EQ((std::vector<TraceLine>{{3, ""}, {3, "printList  a"}, {3, "printList  b c"}}), m_trace);
}

}  // namespace
}  // namespace qzvmfi_support_test
