#include "config.h"

#include <gtest/gtest.h>

#include "plugin_env.h"

namespace {

using qzvmfi_test::PluginEnv;

class ConfigTest : public PluginEnv {};

TEST_F(ConfigTest, EveryOperationReturnsZeroWhateverItsArguments) {
  CQzVMConfig config;
  qfi_domain node{};
  qfi_confspec confspec{};
  char name[] = "anything";
  SSplitConfig split;
  qfi_blob blob{};

  EXPECT_EQ(0, config.getParameters(nullptr, nullptr, nullptr));
  EXPECT_EQ(0, config.getParameters(&node, name, &confspec));
  EXPECT_EQ(0, config.get(nullptr, nullptr, nullptr));
  EXPECT_EQ(0, config.get(&node, name, &confspec));
  EXPECT_EQ(0, config.set(nullptr, nullptr, nullptr));
  EXPECT_EQ(0, config.set(&node, name, &confspec));
  EXPECT_EQ(0, config.reaccess(nullptr, nullptr));
  EXPECT_EQ(0, config.reaccess(&node, &confspec));
  EXPECT_EQ(0, config.getDefaultConfig(nullptr, split));
  EXPECT_EQ(0, config.getDefaultConfig(name, split));
  EXPECT_EQ(0, config.getSplitConfig(split));
  EXPECT_EQ(0, config.isValidNodeSplitConfig());
  EXPECT_EQ(0, config.extract_from_blob(nullptr));
  EXPECT_EQ(0, config.extract_from_blob(&blob));
  EXPECT_EQ(0, config.createblob(nullptr));
  EXPECT_EQ(0, config.createblob(&blob));
  EXPECT_EQ(0, config.reset());
  EXPECT_EQ(0, config.resetSplitConfig());
}

TEST_F(ConfigTest, OperationsChangeNothingTheyAreGiven) {
  CQzVMConfig config;
  qfi_blob blob{};
  blob.len = 7;
  EXPECT_EQ(0, config.createblob(&blob));
  EXPECT_EQ(7u, blob.len);
  EXPECT_EQ(nullptr, blob.data);
  EXPECT_EQ(0, blob.flag);
}

TEST_F(ConfigTest, OperationsAreTracedScopes) {
  CQzVMConfig config;
  SSplitConfig split;
  config.getSplitConfig(split);
  const auto lines = traced("Entering Function getSplitConfig [");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(6, lines[0].level);
  EXPECT_NE(std::string::npos, lines[0].text.find(", config]"));
  EXPECT_EQ(1u, traced("Exiting Function getSplitConfig [").size());
}

TEST_F(ConfigTest, DestructorResets) {
  { CQzVMConfig config; }
  EXPECT_EQ(1u, traced("Entering Function reset [").size());
}

}  // namespace
