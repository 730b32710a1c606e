#include "host/Report.h"

#include <gtest/gtest.h>

namespace {

Provctl::JobOutcome wizardOutcome() {
    Provctl::JobOutcome outcome;
    outcome.imageAction = ProvisioningJob::SwapNextImage;
    outcome.activation = true;
    outcome.postUpgrade = true;
    outcome.followUpPending = true;
    outcome.followUpMode = "Wizard";
    outcome.followUpCommand = "add wizard";
    outcome.followUpArguments = {"intro.wiz"};
    outcome.statusLocation = "tftp://h/w/intro.wiz";
    return outcome;
}

TEST(ReportTest, jsonOfASuccess) {
    nlohmann::ordered_json object = Provctl::OUTCOME_TO_JSON(wizardOutcome());
    EXPECT_EQ(object["ok"], true);
    EXPECT_EQ(object["value"], 0);
    EXPECT_EQ(object["message"], "");
    EXPECT_TRUE(object["text"].is_string());
    EXPECT_EQ(object["imageAction"], "Swap Next Image");
    EXPECT_EQ(object["activation"], true);
    EXPECT_EQ(object["postUpgrade"], true);
    EXPECT_EQ(object["followUp"]["pending"], true);
    EXPECT_EQ(object["followUp"]["mode"], "Wizard");
    EXPECT_EQ(object["followUp"]["command"], "add wizard");
    EXPECT_EQ(object["followUp"]["arguments"], nlohmann::ordered_json::array({"intro.wiz"}));
    EXPECT_EQ(object["statusLocation"], "tftp://h/w/intro.wiz");
}

TEST(ReportTest, jsonOfAFailureCarriesValueMessageAndText) {
    Provctl::JobOutcome outcome;
    outcome.result = XCode(XCode::GENERIC_FAILURE);
    outcome.result.setString("NO LOCATIONS CONFIGURED");
    nlohmann::ordered_json object = Provctl::OUTCOME_TO_JSON(outcome);
    EXPECT_EQ(object["ok"], false);
    EXPECT_EQ(object["value"], 2147483647);
    EXPECT_EQ(object["message"], "NO LOCATIONS CONFIGURED");
    EXPECT_EQ(object["text"], outcome.result.toString().str());
    EXPECT_EQ(object["imageAction"], "No Action");
}

TEST(ReportTest, jsonIsOneLineAndSurvivesBytesThatAreNotUtf8) {
    Provctl::JobOutcome outcome;
    outcome.statusLocation = String("tftp://h/\xff\xfe", 11);
    String text = Provctl::DUMP_JSON(Provctl::OUTCOME_TO_JSON(outcome));
    EXPECT_EQ(text.indexOf('\n'), -1);
    EXPECT_FALSE(nlohmann::json::parse(text.str(), nullptr, false).is_discarded());
}

TEST(ReportTest, textEndsWithResultOk) {
    String text = Provctl::OUTCOME_TO_TEXT("wizard", wizardOutcome());
    EXPECT_TRUE(text.endsWith("\nresult: OK\n")) << text.c_str();
    EXPECT_NE(text.indexOf("follow-up: add wizard (mode Wizard) intro.wiz\n"), -1) << text.c_str();
    EXPECT_NE(text.indexOf("image action: Swap Next Image\n"), -1) << text.c_str();
}

TEST(ReportTest, textOfAFailureEndsWithTheResultText) {
    Provctl::JobOutcome outcome;
    outcome.result = XCode(XCode::GENERIC_FAILURE);
    outcome.result.setString("NOT IMPLEMENTED");
    String text = Provctl::OUTCOME_TO_TEXT("cdr", outcome);
    EXPECT_TRUE(text.endsWith("\nresult: " + outcome.result.toString() + "\n")) << text.c_str();
    EXPECT_EQ(text.indexOf("follow-up"), -1);
}

}  // namespace
