#include "commands/TestApplicabilityCommand.h"
#include "platform/applicability/ApplicabilityEvaluator.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

// Says what it was asked, and refuses when told to, with a reason outside Latin-1.
class RecordingEvaluator : public ApplicabilityEvaluator {
public:
    bool EvaluateFilters(std::vector<ApplicabilityFilter> filters, const std::wstring& targetVersion,
                         const std::vector<KeyValuePair>& tags, std::wstring& reason) override
    {
        filters_ = std::move(filters);
        targetVersion_ = targetVersion;
        tags_ = tags;
        if (refuse_) {
            reason = L"model \u00e9\u4e2d";
        }
        return !refuse_;
    }

    bool refuse_ = false;
    std::vector<ApplicabilityFilter> filters_;
    std::wstring targetVersion_;
    std::vector<KeyValuePair> tags_;
};

class TestApplicabilityCommandTest : public ::testing::Test {
protected:
    TestApplicabilityCommandTest() : root_(Services()) {}

    PlatformServices Services()
    {
        PlatformServices services;
        services.applicabilityEvaluator = evaluator_;
        return services;
    }

    Json::Value Ask(const std::string& payload, bool& success)
    {
        Tavrin::Veq::ClientBroker::Message message;
        message.guid = "G-1";
        message.notification.command = "Test-Applicability";
        message.notification.payload = payload;
        ClientRequest request;
        request.setMessage(message);
        bool pending = false;
        const auto result = command_.GetResponse(request, pending);
        success = result.isSuccess;
        EXPECT_EQ(result.message.guid, "G-1");
        EXPECT_EQ(result.message.notification.command, "Receive-Test-Applicability");
        Json::Value reply;
        Json::Reader().parse(result.message.notification.payload, reply);
        return reply;
    }

    std::shared_ptr<RecordingEvaluator> evaluator_ = std::make_shared<RecordingEvaluator>();
    VEQ::Test::TempRoot root_;
    Log log_;
    TestApplicabilityCommand command_{log_};
};

TEST_F(TestApplicabilityCommandTest, TheRequestBecomesTheEnginesInputAndItsVerdictTheReply)
{
    bool success = false;
    Json::Value reply = Ask(R"({"id":"req-7","targetVersion":"2.1",
        "filter":[{"model":"X1","os":"debian","unknown":"ignored"},"plain",{"tag":["not","text"]}],
        "additionalTags":{"beta":true,"ring":"fast","list":[1,2],"count":3}})",
                            success);
    EXPECT_TRUE(success);
    EXPECT_EQ(reply["id"].asString(), "req-7");
    EXPECT_EQ(reply["isApplicable"], Json::Value("true")) << "the verdict is text, not a JSON boolean";
    EXPECT_EQ(reply["reason"].asString(), "");

    ASSERT_EQ(evaluator_->filters_.size(), 3u);
    EXPECT_EQ(evaluator_->filters_[0].model, L"X1");
    EXPECT_EQ(evaluator_->filters_[0].os, L"debian");
    EXPECT_EQ(evaluator_->filters_[1].defaultValue, L"plain") << "a plain element is its \"default\" alone";
    EXPECT_EQ(evaluator_->filters_[1].model, L"");
    EXPECT_EQ(evaluator_->filters_[2].tag, L"");
    EXPECT_EQ(evaluator_->targetVersion_, L"2.1");
    // Members come in name order; an array is its styled text, a number nothing.
    ASSERT_EQ(evaluator_->tags_.size(), 4u);
    EXPECT_EQ(evaluator_->tags_[0].key, L"beta");
    EXPECT_EQ(evaluator_->tags_[0].value, L"true");
    EXPECT_EQ(evaluator_->tags_[1].key, L"count");
    EXPECT_EQ(evaluator_->tags_[1].value, L"");
    EXPECT_EQ(evaluator_->tags_[2].key, L"list");
    EXPECT_NE(evaluator_->tags_[2].value.find(L"1"), std::wstring::npos);
    EXPECT_EQ(evaluator_->tags_[3].value, L"fast");
}

TEST_F(TestApplicabilityCommandTest, ARefusalCarriesTheReasonAByteACharacterAndBadInputAsksAboutNothing)
{
    evaluator_->refuse_ = true;
    bool success = false;
    Json::Value reply = Ask(R"({"id":"r","filter":[{"model":"X1"}]})", success);
    EXPECT_TRUE(success);
    EXPECT_EQ(reply["isApplicable"].asString(), "false");
    // Narrowed, not converted: U+4E2D loses its high byte and becomes '-', and U+00E9 becomes the
    // lone byte 0xE9, which is no UTF-8 (so it reads back as a replacement, never as "é").
    const std::string reason = reply["reason"].asString();
    EXPECT_EQ(reason.rfind("model ", 0), 0u);
    EXPECT_EQ(reason.back(), '-');
    EXPECT_EQ(reason.find("\xC3\xA9"), std::string::npos);

    for (const char* payload : {"not json", "[1,2]", R"({"filter":[],"additionalTags":"x"})", R"({"filter":{}})"}) {
        SCOPED_TRACE(payload);
        reply = Ask(payload, success);
        EXPECT_TRUE(success);
        EXPECT_TRUE(evaluator_->filters_.empty());
        EXPECT_TRUE(evaluator_->tags_.empty());
        EXPECT_EQ(reply["id"].asString(), "");
    }
}

}  // namespace
}  // namespace VEQ
