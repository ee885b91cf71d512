#include "report.h"

#include <gtest/gtest.h>

#include "plugin_env.h"

namespace {

using qzfi_pdk_4_4::CFiError;
using qzfi_pdk_4_4::CFiIcuMessagePtr;
using qzfi_pdk_4_4::CFiUdidException;
using qzvmfi_report::MessageArg;
using qzvmfi_report::pushError;
using qzvmfi_report::reportingExceptions;
using qzvmfi_report::Site;
using qzvmfi_test::PluginEnv;
using Lines = std::vector<std::string>;

// A string argument as the catalogue gets it, and its bytes given back.
const char kToolBytes[] = "caf\xe9 \xff\xfe\x80 ok \xe2\x82";

class ReportTest : public PluginEnv {
 protected:
  // The one pushed message.
  CFiIcuMessagePtr pushedOne() const {
    const auto pushed = errors();
    EXPECT_EQ(1u, pushed.size());
    return pushed.empty() ? CFiIcuMessagePtr() : pushed[0];
  }

  // The argument texts of the one pushed message.
  Lines pushedTexts() const {
    const auto messages = pushed();
    EXPECT_EQ(1u, messages.size());
    return messages.empty() ? Lines() : messages[0].args;
  }

  static std::vector<icu::Formattable::Type> types(const CFiIcuMessagePtr& message) {
    std::vector<icu::Formattable::Type> kinds;
    for (const icu::Formattable& arg : message->getArguments()) {
      kinds.push_back(arg.getType());
    }
    return kinds;
  }

  // Runs the mapping around a body that throws thrown; the status and
  // whether failed was told the exception had been reported.
  template <class Thrown>
  std::pair<int, int> mapped(Thrown thrown) {
    int reported = -1;
    const int status = reportingExceptions(
        kSite, [&]() -> int { throw thrown; },
        [&](bool wasReported) {
          reported = wasReported ? 1 : 0;
          return 42;
        });
    return {status, reported};
  }

  const Site kSite{"someOperation", "../unit", 321};
};

const icu::Formattable::Type kText = icu::Formattable::kString;
const icu::Formattable::Type kInt = icu::Formattable::kLong;

// ===== message arguments =====

TEST_F(ReportTest, TextArgumentsKeepTheirBytes) {
  pushError("MSG_X", {std::string(kToolBytes), "plain", ""}, "unit", 7);
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ((Lines{kToolBytes, "plain", ""}), pushedTexts());
  EXPECT_EQ(std::string::npos, message->argumentText(0).find("\xef\xbf\xbd"));
  EXPECT_EQ("MSG_X", message->getIdentifier());
  EXPECT_EQ(3, message->getSeverity());
  EXPECT_EQ("unit", message->getSourceFile());
  EXPECT_EQ(7, message->getLine());
}

TEST_F(ReportTest, NumbersAreNumbers) {
  pushError("MSG_X", {1234567, 9876543210L, 12LL, "12"}, "unit", 7);
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ((std::vector<icu::Formattable::Type>{kInt, icu::Formattable::kInt64,
                                                 icu::Formattable::kInt64, kText}),
            types(message));
  EXPECT_EQ((Lines{"1234567", "9876543210", "12", "12"}), pushedTexts());
}

TEST_F(ReportTest, ANullTextIsEmpty) {
  EXPECT_EQ(kText, MessageArg(static_cast<const char*>(nullptr)).value().getType());
  pushError("MSG_X", {static_cast<const char*>(nullptr)}, "unit", 7);
  EXPECT_EQ(Lines{""}, pushedTexts());
}

// ===== the exception mapping =====

TEST_F(ReportTest, WithoutExceptionTheBodysStatusStandsAndNothingIsPushed) {
  bool failedCalled = false;
  EXPECT_EQ(5, reportingExceptions(
                   kSite, [] { return 5; },
                   [&](bool) {
                     failedCalled = true;
                     return 6;
                   }));
  EXPECT_FALSE(failedCalled);
  EXPECT_TRUE(errors().empty());
}

TEST_F(ReportTest, CommandLayerExceptionPushesNothing) {
  EXPECT_EQ(std::make_pair(42, 0), mapped(CQzVMCliException("qzdg failed")));
  EXPECT_TRUE(errors().empty());
}

TEST_F(ReportTest, FrameworkErrorPushesItsFourFields) {
  EXPECT_EQ(std::make_pair(42, 1), mapped(CFiError("MSG_ID", "went wrong", "../where:op", 99)));
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ("MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION", message->getIdentifier());
  EXPECT_EQ((Lines{"MSG_ID", "went wrong", "../where:op", "99"}), pushedTexts());
  EXPECT_EQ((std::vector<icu::Formattable::Type>{kText, kText, kText, kInt}), types(message));
  EXPECT_EQ(3, message->getSeverity());
  EXPECT_EQ("../unit", message->getSourceFile());
  EXPECT_EQ(321, message->getLine());
}

TEST_F(ReportTest, UdidExceptionPushesItsTextAndCode) {
  EXPECT_EQ(std::make_pair(42, 1), mapped(CFiUdidException("bad udid", 17)));
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ("MSG_ERROR_UDID_PARSING_EXCEPTION", message->getIdentifier());
  EXPECT_EQ((Lines{"bad udid", "17"}), pushedTexts());
  EXPECT_EQ((std::vector<icu::Formattable::Type>{kText, kInt}), types(message));
  EXPECT_EQ("../unit", message->getSourceFile());
  EXPECT_EQ(321, message->getLine());
}

TEST_F(ReportTest, RuntimeErrorPushesItsTextTheOperationAndTheLine) {
  EXPECT_EQ(std::make_pair(42, 1), mapped(std::runtime_error(kToolBytes)));
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION", message->getIdentifier());
  EXPECT_EQ((Lines{"std::runtime_error", kToolBytes, "someOperation", "321"}), pushedTexts());
  EXPECT_EQ((std::vector<icu::Formattable::Type>{kText, kText, kText, kInt}), types(message));
  EXPECT_EQ("../unit", message->getSourceFile());
}

TEST_F(ReportTest, ARuntimeErrorsKindIsCaughtAsOne) {
  EXPECT_EQ(std::make_pair(42, 1), mapped(std::range_error("out of range")));
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION", message->getIdentifier());
  EXPECT_EQ("out of range", message->argumentText(1));
}

TEST_F(ReportTest, ThrownIntPushesItTheSourceAndTheLine) {
  EXPECT_EQ(std::make_pair(42, 1), mapped(-123456));
  const auto message = pushedOne();
  ASSERT_TRUE(message);
  EXPECT_EQ("MSG_ERROR_UNHANDLED_INT_EXCEPTION", message->getIdentifier());
  EXPECT_EQ((Lines{"-123456", "../unit", "321"}), pushedTexts());
  EXPECT_EQ((std::vector<icu::Formattable::Type>{kInt, kText, kInt}), types(message));
  EXPECT_EQ("../unit", message->getSourceFile());
  EXPECT_EQ(321, message->getLine());
}

TEST_F(ReportTest, WithAFailureCodeEveryExceptionGivesIt) {
  EXPECT_EQ(6, reportingExceptions(kSite, 6, []() -> int { throw CQzVMCliException("x"); }));
  EXPECT_EQ(6, reportingExceptions(kSite, 6, []() -> int { throw 1; }));
  EXPECT_EQ(0, reportingExceptions(kSite, 6, [] { return 0; }));
  EXPECT_EQ(1u, errors().size());
}

TEST_F(ReportTest, OtherExceptionsAreNotTheMappingsToTake) {
  EXPECT_THROW(reportingExceptions(kSite, 6, []() -> int { throw std::logic_error("bug"); }),
               std::logic_error);
  EXPECT_TRUE(errors().empty());
}

// ===== joinLines =====

TEST_F(ReportTest, JoinLinesKeepsEachLinesOwnFeed) {
  EXPECT_EQ("a\nb", qzvmfi_report::joinLines({"a\n", "b"}));
  EXPECT_EQ("", qzvmfi_report::joinLines({}));
}

}  // namespace
