// Framework exceptions and the platform error text.
#include <cerrno>
#include <stdexcept>
#include <type_traits>

#include <gtest/gtest.h>

#include "qzfi/errors.h"

using namespace qzfi_pdk_4_4;

TEST(Errors, FrameworkErrorKeepsItsFields) {
  CFiError error("MSG_ERROR_COMMAND_FAILED", "it failed", "clitool::executeCommand", 51);
  EXPECT_EQ(error.getMessageId(), "MSG_ERROR_COMMAND_FAILED");
  EXPECT_EQ(error.getText(), "it failed");
  EXPECT_EQ(error.getWhere(), "clitool::executeCommand");
  EXPECT_EQ(error.getLine(), 51);
  EXPECT_STREQ(error.what(), "it failed");
}

TEST(Errors, UdidExceptionKeepsTextAndCode) {
  CFiUdidException error("bad udid", 17);
  EXPECT_EQ(error.getText(), "bad udid");
  EXPECT_EQ(error.getCode(), 17);
  EXPECT_STREQ(error.what(), "bad udid");
}

TEST(Errors, ExecPipeErrorIsNotARuntimeError) {
  static_assert(!std::is_base_of<std::runtime_error, EFiExecPipe>::value,
                "callers catch EFiExecPipe apart from runtime errors");
  try {
    throw EFiExecPipe("cannot start");
  } catch (const std::runtime_error&) {
    FAIL() << "caught as a runtime error";
  } catch (const EFiExecPipe& error) {
    EXPECT_EQ(error.getText(), "cannot start");
    EXPECT_STREQ(error.what(), "cannot start");
  }
}

TEST(Errors, PlatformErrorGivesTheSystemText) {
  EXPECT_EQ(CFiPlatformError::returnErrorMsg(ENOENT), "No such file or directory");
  EXPECT_EQ(CFiPlatformError::returnErrorMsg(EACCES), "Permission denied");
}

TEST(Errors, PlatformErrorNamesAnUnknownNumber) {
  EXPECT_EQ(CFiPlatformError::returnErrorMsg(99999), "Errno 99999 (1869f) out of range");
  EXPECT_EQ(CFiPlatformError::returnErrorMsg(-1), "Errno -1 (ffffffff) out of range");
}

TEST(Errors, PlatformErrorTextIsShortAndHasNoLineEnd) {
  for (int err = 1; err < 140; ++err) {
    tstring text = CFiPlatformError::returnErrorMsg(err);
    ASSERT_FALSE(text.empty()) << err;
    EXPECT_LT(text.size(), 512u) << err;
    EXPECT_NE(text.back(), '\n') << err;
    EXPECT_NE(text.back(), '\r') << err;
  }
}
