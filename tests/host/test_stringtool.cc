// String helpers, format options and objctl argument lists.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qzfi/stringtool.h"

using namespace qzfi_pdk_4_4;

namespace {

TEST(StringTool, CompareNoCaseIgnoresAsciiCase) {
  EXPECT_EQ(CFiStringTool::CompareNoCase("QzVM", "qzvm"), 0);
  EXPECT_LT(CFiStringTool::CompareNoCase("abc", "ABD"), 0);
  EXPECT_GT(CFiStringTool::CompareNoCase("abcd", "ABC"), 0);
  EXPECT_LT(CFiStringTool::CompareNoCase("", "a"), 0);
}

TEST(StringTool, FindLooksForASubstringOrAnEqualEntry) {
  std::vector<tstring> lines{"disk: name=d1", "private: len=8", "disk: name=d2"};
  EXPECT_EQ(CFiStringTool::find(lines, "disk:", 0, false), 0);
  EXPECT_EQ(CFiStringTool::find(lines, "disk:", 1, false), 2);
  EXPECT_EQ(CFiStringTool::find(lines, "len=", 0, false), 1);
  EXPECT_EQ(CFiStringTool::find(lines, "disk:", 0, true), -1);
  EXPECT_EQ(CFiStringTool::find(lines, "private: len=8", 0, true), 1);
  EXPECT_EQ(CFiStringTool::find(lines, "disk:", 3, false), -1);
  EXPECT_EQ(CFiStringTool::find(lines, "disk:", -4, false), 0);
}

TEST(StringTool, NumbersToTextAndBack) {
  EXPECT_EQ(CFiStringTool::int2str(-42), "-42");
  EXPECT_EQ(CFiStringTool::uint2str(18446744073709551615ul), "18446744073709551615");
  EXPECT_EQ(CFiStringTool::str2int("  123abc"), 123);
  EXPECT_EQ(CFiStringTool::str2int("-7"), -7);
  EXPECT_EQ(CFiStringTool::str2int("none"), 0);
  EXPECT_EQ(CFiStringTool::str2uint64("2199023255552 sectors"), 2199023255552ull);
  EXPECT_EQ(CFiStringTool::str2uint64(""), 0ull);
}

TEST(StringTool, TokenizeSkipsEmptyPiecesAndAppends) {
  std::vector<tstring> out{"kept"};
  EXPECT_EQ(CFiStringTool::tokenize("  a,,b c ,", " ,", out), 3);
  EXPECT_EQ(out, (std::vector<tstring>{"kept", "a", "b", "c"}));
  EXPECT_EQ(CFiStringTool::tokenize(",,,", ",", out), 0);
  EXPECT_EQ(out.size(), 4u);
}

TEST(StringTool, UpperCase) {
  EXPECT_EQ(CFiStringTool::tostrupper("dg_01-x"), "DG_01-X");
}

TEST(StringTool, TrimBothEndsInPlace) {
  tstring text = " \t value here\r\n";
  tstring& trimmed = CFiStringTool::trim(text);
  EXPECT_EQ(&trimmed, &text);
  EXPECT_EQ(text, "value here");
  tstring blanks = " \n\t\r";
  EXPECT_EQ(CFiStringTool::trim(blanks), "");
  tstring custom = "xxabcxx";
  EXPECT_EQ(CFiStringTool::trim(custom, "x"), "abc");
}

TEST(StringTool, DuplicatedListIsNullTerminatedCopies) {
  std::vector<tstring> list{"/dev/qz/dsk/dg/v1", "", "third"};
  char** copies = CFiStringTool::tstrduplist(list);
  ASSERT_NE(copies, nullptr);
  EXPECT_STREQ(copies[0], "/dev/qz/dsk/dg/v1");
  EXPECT_STREQ(copies[1], "");
  EXPECT_STREQ(copies[2], "third");
  EXPECT_EQ(copies[3], nullptr);
  CFiStringTool::tstrfreelist(copies);
  CFiStringTool::tstrfreelist(nullptr);
}

TEST(StringTool, StringConversionsKeepBytes) {
  EXPECT_EQ(CFiStringTool::str2tstr("a\xc3\xa9"), "a\xc3\xa9");
  EXPECT_EQ(CFiStringTool::tstr2str("b"), "b");
}

TEST(FormatOptions, ParsesPairsSeparatedByCommasAndSemicolons) {
  CFiFormatOptionList options;
  ASSERT_EQ(options.parse(" diskGroup = dg1 ; layout=concat,flag"), 0);
  tstring value;
  ASSERT_TRUE(options.getOption("diskGroup", value));
  EXPECT_EQ(value, "dg1");
  ASSERT_TRUE(options.getOption("layout", value));
  EXPECT_EQ(value, "concat");
  ASSERT_TRUE(options.getOption("flag", value));
  EXPECT_EQ(value, "");
  EXPECT_FALSE(options.getOption("missing", value));
  EXPECT_EQ(options.options().size(), 3u);
}

TEST(FormatOptions, APieceWithoutANameFailsAndKeepsTheOldOptions) {
  CFiFormatOptionList options;
  ASSERT_EQ(options.parse("a=1"), 0);
  EXPECT_NE(options.parse("b=2, =3"), 0);
  tstring value;
  EXPECT_TRUE(options.getOption("a", value));
  EXPECT_FALSE(options.getOption("b", value));
}

TEST(FormatOptions, EmptyTextIsNoOptions) {
  CFiFormatOptionList options;
  EXPECT_EQ(options.parse(nullptr), 0);
  EXPECT_EQ(options.parse(" ; , "), 0);
  EXPECT_TRUE(options.options().empty());
}

TEST(ObjctlArgs, ImportsInputArguments) {
  CFiObjctlArgs args;
  ASSERT_EQ(args.importArgs("<OBJCTL_ARG_LIST> <OBJCTL_INPUT arg=dg value=dg1 type=string />"
                            "<OBJCTL_INPUT arg=count value=\"3\" type=int/> </OBJCTL_ARG_LIST> "),
            0);
  ASSERT_EQ(args.inputs().size(), 2u);
  EXPECT_EQ(args.inputs()[1].name, "count");
  EXPECT_EQ(args.inputs()[1].value, "3");
  EXPECT_EQ(args.inputs()[1].type, "int");
  tstring value;
  ASSERT_TRUE(args.getInput("dg", value));
  EXPECT_EQ(value, "dg1");
  EXPECT_FALSE(args.getInput("vol", value));
}

TEST(ObjctlArgs, EmptyTextAndEmptyListAreNoArguments) {
  CFiObjctlArgs args;
  EXPECT_EQ(args.importArgs(""), 0);
  EXPECT_EQ(args.importArgs(nullptr), 0);
  EXPECT_EQ(args.importArgs("<OBJCTL_ARG_LIST> </OBJCTL_ARG_LIST> "), 0);
  EXPECT_TRUE(args.inputs().empty());
}

TEST(ObjctlArgs, MalformedTextFails) {
  CFiObjctlArgs args;
  EXPECT_NE(args.importArgs("<OBJCTL_ARG_LIST>"), 0);
  EXPECT_NE(args.importArgs("<OBJCTL_INPUT arg=a value=b type=c />"), 0);
  EXPECT_NE(args.importArgs("<OBJCTL_ARG_LIST><OBJCTL_INPUT value=b /></OBJCTL_ARG_LIST>"), 0);
  EXPECT_NE(args.importArgs("<OBJCTL_ARG_LIST><OBJCTL_INPUT arg=a size=1 /></OBJCTL_ARG_LIST>"), 0);
  EXPECT_NE(args.importArgs("<OBJCTL_ARG_LIST><OBJCTL_INPUT arg=a</OBJCTL_ARG_LIST>"), 0);
  EXPECT_NE(args.importArgs("<OBJCTL_ARG_LIST></OBJCTL_ARG_LIST> trailing"), 0);
}

TEST(ObjctlArgs, OutputsAreKeptInOrder) {
  CFiObjctlArgs args;
  args.addOutput("status", "ok", "string");
  args.addOutput("count", "2", "int");
  ASSERT_EQ(args.outputs().size(), 2u);
  EXPECT_EQ(args.outputs()[0].name, "status");
  EXPECT_EQ(args.outputs()[1].value, "2");
  EXPECT_EQ(args.outputs()[1].type, "int");
}

}  // namespace
