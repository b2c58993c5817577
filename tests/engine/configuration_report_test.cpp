#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

class ConfigurationReport : public EmulatedTagger {};

// True if `text` has the shape of `pattern`, where '9' stands for a digit
// and '+' for a sign.
bool hasShape(const std::string& text, const std::string& pattern) {
  if (text.size() != pattern.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool ok = pattern[i] == '9'   ? (c >= '0' && c <= '9')
                    : pattern[i] == '+' ? (c == '+' || c == '-')
                                        : c == pattern[i];
    if (!ok) return false;
  }
  return true;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) out.push_back(line);
  return out;
}

TEST_F(ConfigurationReport, ParsesAsJsonAndShowsTheSettings) {
  ZeptickImpl& zt = open(ultraBoard("REP1"));
  zt.setInputDelay(2, 1234);
  zt.setInputDelay(-2, -55);
  zt.setDeadtime(-3, 10000);
  zt.setEventDivider(-4, 3);
  zt.setTriggerLevel(5, 0.25);
  zt.setInputMux(6, 2);
  zt.setConditionalFilter({1}, {-7, 8});
  zt.setLED(0x10001);
  zt.setStreamBlockSize(4096, 7);
  zt.setNormalization(false);
  zt.registerChannel(-9);
  zt.registerChannel(3);

  const std::string text = zt.getConfiguration();
  const nlohmann::json report = nlohmann::json::parse(text);
  EXPECT_EQ(report["software version"], "2.7.0");
  EXPECT_EQ(report["registered channels"], nlohmann::json({-9, 3}));
  EXPECT_EQ(report["serial"], "REP1");
  EXPECT_EQ(report["firmware version"], zt.getFirmwareVersion());
  EXPECT_EQ(report["hardware buffer size"], 67108864);
  EXPECT_EQ(report["normalization"], false);
  EXPECT_EQ(report["test signal divider"], 63);
  EXPECT_EQ(report["channel number scheme"], 2);
  EXPECT_EQ(report["led bitmask"], 0x10001);
  EXPECT_EQ(report["stream block size events"], 4096);
  EXPECT_EQ(report["stream block size latency"], 7);
  ASSERT_EQ(report["devices"].size(), 1u);
  EXPECT_EQ(report["devices"][0]["serial"], "REP1");
  EXPECT_EQ(report["devices"][0]["model"], "Zeptick Ultra");
  EXPECT_EQ(report["devices"][0]["resolution"], 9.0);
  EXPECT_EQ(report["devices"][0]["PCB version"], "1.4b");

  const nlohmann::json& inputs = report["inputs"];
  ASSERT_EQ(inputs.size(), 18u);
  for (int i = 0; i < 18; ++i) {
    EXPECT_EQ(inputs[i]["channel"], nlohmann::json({i + 1, -(i + 1)}));
  }
  EXPECT_EQ(inputs[1]["input delay"], nlohmann::json({1234, -55}));
  EXPECT_EQ(inputs[2]["deadtime"], nlohmann::json({2500, 10000}));
  EXPECT_EQ(inputs[3]["event divider"], nlohmann::json({0, 3}));
  EXPECT_NEAR(inputs[4]["trigger level"].get<double>(), 0.25, 1e-4);
  EXPECT_EQ(inputs[5]["input mux"], 2);
  EXPECT_EQ(inputs[6]["conditional filter filtered"], nlohmann::json({false, true}));
  EXPECT_EQ(inputs[7]["conditional filter filtered"], nlohmann::json({true, false}));
  EXPECT_EQ(inputs[0]["conditional filter triggers"], nlohmann::json({true, false}));
  EXPECT_EQ(inputs[0]["hardware delay compensation"], nlohmann::json({1574, 1574}));
  EXPECT_EQ(inputs[17]["hardware delay compensation"], nlohmann::json({2947, 2947}));
}

// The layout is fixed: indentation, key order, commas and the time format.
TEST_F(ConfigurationReport, KeepsItsLineLayout) {
  ZeptickImpl& zt = open(ultraBoard("REP2"));
  const std::vector<std::string> text = lines(zt.getConfiguration());
  const std::vector<std::string> head = {
      "{",
      "  \"current time\": ",
      "  \"software version\": \"2.7.0\",",
      "  \"registered channels\": [],",
      "  \"serial\": \"REP2\",",
      "  \"firmware version\": \"",
      "  \"hardware buffer size\": 67108864,",
      "  \"normalization\": true,",
      "  \"test signal divider\": 63,",
      "  \"channel number scheme\": 2,",
      "  \"led bitmask\": 0,",
      "  \"stream block size events\": 131072,",
      "  \"stream block size latency\": 20,",
      "  \"devices\": [",
      "    {",
      "      \"serial\": \"REP2\",",
      "      \"model\": \"Zeptick Ultra\",",
      "      \"resolution\": 9,",
      "      \"PCB version\": \"1.4b\"",
      "    }",
      "  ],",
      "  \"inputs\": [",
      "    {",
      "      \"channel\": [1, -1],",
      "      \"trigger level\": 0.5,",
      "      \"input delay\": [0, 0],",
      "      \"hardware delay compensation\": [1574, 1574],",
      "      \"deadtime\": [2500, 2500],",
      "      \"event divider\": [0, 0],",
      "      \"conditional filter filtered\": [false, false],",
      "      \"conditional filter triggers\": [false, false],",
      "      \"input mux\": 0",
      "    },",
  };
  ASSERT_GT(text.size(), head.size());
  for (size_t i = 0; i < head.size(); ++i) {
    EXPECT_EQ(text[i].rfind(head[i], 0), 0u) << "line " << i << ": " << text[i];
  }
  EXPECT_TRUE(hasShape(text[1], "  \"current time\": \"9999-99-99 99:99:99 +9999\",")) << text[1];
  // 18 inputs of 11 lines, the last without its comma, and the closing lines.
  ASSERT_EQ(text.size(), 22u + 18u * 11u + 2u);
  EXPECT_EQ(text[text.size() - 3], "    }");
  EXPECT_EQ(text[text.size() - 2], "  ]");
  EXPECT_EQ(text[text.size() - 1], "}");
}

}  // namespace
}  // namespace zeptick::testing
